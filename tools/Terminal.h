#ifndef METRICS_TOOLS_TERMINAL_H
#define METRICS_TOOLS_TERMINAL_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

namespace Metrics::tools {

/// Whether the standard output is a terminal, and nobody asked for no colours.
bool UsesColors();

/// The width of the terminal; 100 where there is none.
std::size_t Columns();

/// One line on stderr that is rewritten in place, when that is a terminal and the time has come.
class ProgressLine {
public:
    ProgressLine() = default;
    ~ProgressLine() { Clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// @param share from 0 to 1; negative when it is not known.
    void Show(const std::string& what, double share);
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point m_next = Clock::now() + std::chrono::seconds(1);
    bool m_isShown = false;
};

/// What is shown again and again in the same place, until SIGINT, SIGQUIT, SIGTERM, SIGHUP or the
/// key q. The terminal's contents and settings are as before when it goes. Where there is no
/// terminal, what is shown follows one after the other.
///
/// There is one at a time: signals are of the whole process.
class LiveScreen {
public:
    /// @param isWanted whether to take over the terminal, if there is one.
    explicit LiveScreen(bool isWanted);
    ~LiveScreen();
    LiveScreen(const LiveScreen&) = delete;
    LiveScreen& operator=(const LiveScreen&) = delete;

    void Show(const std::function<void(std::ostream&)>& print) const;

    /// @return false when it is time to end.
    bool Wait(double seconds) const;

private:
    bool m_isTerminal = false;
    bool m_hasKeys = false;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_TERMINAL_H
