#ifndef METRICS_TOOLS_EXPORT_OUTPUT_H
#define METRICS_TOOLS_EXPORT_OUTPUT_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace Metrics::tools {

/// A file that is written from its beginning to its end; "-" is the standard output.
///
/// Thread-safety: one thread at a time for each object.
class Output {
public:
    /// @throws std::runtime_error when it cannot be opened.
    explicit Output(const std::string& path);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// What is to be written. Append to it, and call Flow() now and then.
    std::string& Text() { return m_text; }

    /// Writes what there is, once that is worth a call.
    /// @throws std::runtime_error
    void Flow() {
        if (m_text.size() >= enough)
            WriteOut();
    }

    /// Writes the rest, and closes.
    /// @throws std::runtime_error
    void Finish();

private:
    static constexpr std::size_t enough = 1 << 18;

    void WriteOut();
    [[noreturn]] void Fail() const;

    std::string m_path;
    std::FILE* m_file;
    std::string m_text;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_OUTPUT_H
