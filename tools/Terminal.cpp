#include "Terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <sstream>

namespace Metrics::tools {

namespace {

std::size_t WindowSize(unsigned short winsize::*member, std::size_t otherwise) {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.*member == 0)
        return otherwise;
    return size.*member;
}

} // namespace

bool UsesColors() {
    // NOLINTBEGIN(concurrency-mt-unsafe): nothing here changes the environment
    const char* const noColor = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    // NOLINTEND(concurrency-mt-unsafe)
    return isatty(STDOUT_FILENO) == 1 && (noColor == nullptr || *noColor == '\0') &&
           (terminal == nullptr || std::string(terminal) != "dumb");
}

std::size_t Columns() {
    return WindowSize(&winsize::ws_col, 100);
}

void ProgressLine::Show(const std::string& what, double share) {
    const Clock::time_point now = Clock::now();
    if (now < m_next || isatty(STDERR_FILENO) != 1)
        return;
    m_next = now + std::chrono::milliseconds(100);
    if (share < 0)
        std::fprintf(stderr, "\r%s ...\033[K", what.c_str());
    else
        std::fprintf(stderr, "\r%s: %.0f %%\033[K", what.c_str(), share * 100);
    m_isShown = true;
}

void ProgressLine::Clear() {
    if (m_isShown)
        std::fputs("\r\033[K", stderr);
    m_isShown = false;
}

namespace {

constexpr std::initializer_list<int> endings{SIGINT, SIGQUIT, SIGTERM, SIGHUP};

// What the signal handler writes to.
std::array<int, 2> wakeUp{-1, -1};

termios settings; ///< as they were

extern "C" void OnEnding(int) {
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = write(wakeUp[1], &byte, 1);
}

} // namespace

LiveScreen::LiveScreen(bool isWanted) {
    if (!isWanted || isatty(STDOUT_FILENO) != 1)
        return;
    if (pipe(wakeUp.data()) != 0)
        return;
    m_isTerminal = true;
    for (const int signal : endings)
        std::signal(signal, OnEnding);
    if (isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &settings) == 0) {
        m_hasKeys = true;
        termios keys = settings;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VSUSP] = _POSIX_VDISABLE; // it would leave the terminal as it is
        tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    }
    // Another screen, no cursor, and long lines end at the edge.
    std::fputs("\033[?1049h\033[?25l\033[?7l", stdout);
    std::fflush(stdout);
}

LiveScreen::~LiveScreen() {
    if (!m_isTerminal)
        return;
    std::fputs("\033[?7h\033[?25h\033[?1049l", stdout);
    std::fflush(stdout);
    if (m_hasKeys)
        tcsetattr(STDIN_FILENO, TCSANOW, &settings);
    for (const int signal : endings)
        std::signal(signal, SIG_DFL);
    close(wakeUp[0]);
    close(wakeUp[1]);
}

void LiveScreen::Show(const std::function<void(std::ostream&)>& print) const {
    if (!m_isTerminal) {
        print(std::cout);
        std::cout.flush();
        return;
    }
    // In one piece, over what stands there: a cleared screen would flicker.
    std::ostringstream text;
    print(text);
    std::istringstream lines(text.str());
    std::string frame = "\033[H";
    std::string line;
    for (std::size_t row = 1; std::getline(lines, line) && row < WindowSize(&winsize::ws_row, 24);
         ++row)
        frame += line + "\033[K\r\n";
    frame += "\033[J";
    std::cout << frame << std::flush;
}

bool LiveScreen::Wait(double seconds) const {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0)
            return true;
        std::array<pollfd, 2> files{{{m_isTerminal ? wakeUp[0] : -1, POLLIN, 0},
                                     {m_hasKeys ? STDIN_FILENO : -1, POLLIN, 0}}};
        if (poll(files.data(), files.size(), static_cast<int>(left)) <= 0)
            continue;
        if (files[0].revents != 0)
            return false;
        char key = 0;
        if (files[1].revents != 0 && (read(STDIN_FILENO, &key, 1) <= 0 || key == 'q'))
            return false;
    }
}

} // namespace Metrics::tools
