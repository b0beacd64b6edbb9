#ifndef METRICS_TESTS_SUPPORT_PROCESS_H
#define METRICS_TESTS_SUPPORT_PROCESS_H

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// What tests need that are processes of their own.
namespace Metrics::test {

using Clock = std::chrono::steady_clock;

constexpr std::string_view sanitizer = METRICS_SANITIZER; // the value of -fsanitize
constexpr bool hasThreadSanitizer = sanitizer == "thread";
constexpr bool hasAddressSanitizer = sanitizer.find("address") != std::string_view::npos;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Ends the process at the first failure, without running anything else of it, and prints both
/// sides of the comparison that the condition begins with.
#define VERIFY(condition)                                                                          \
    ((::Metrics::test::Compared() <= condition)                                                    \
         ? void()                                                                                  \
         : ::Metrics::test::Fail(#condition, __FILE__, __LINE__))

inline thread_local std::string t_sides; // of the comparison on this thread that was false last

[[noreturn]] inline void Fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: %s%s\n", file, line, condition, t_sides.c_str());
    std::fflush(nullptr);
    _exit(1);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare" // literals lose that they are constant

/// The left side of a comparison; the right one follows.
template <class Left>
struct LeftSide {
    const Left& left;

    template <class Right>
    bool Note(bool holds, const char* relation, const Right& right) const {
        std::ostringstream text;
        if constexpr (requires { text << left << right; })
            text << "; here " << left << ' ' << relation << ' ' << right;
        t_sides = holds ? "" : text.str();
        return holds;
    }
    template <class Right>
    bool operator==(const Right& right) const {
        return Note(left == right, "==", right);
    }
    template <class Right>
    bool operator!=(const Right& right) const {
        return Note(left != right, "!=", right);
    }
    template <class Right>
    bool operator<(const Right& right) const {
        return Note(left < right, "<", right);
    }
    template <class Right>
    bool operator>(const Right& right) const {
        return Note(left > right, ">", right);
    }
    template <class Right>
    bool operator<=(const Right& right) const {
        return Note(left <= right, "<=", right);
    }
    template <class Right>
    bool operator>=(const Right& right) const {
        return Note(left >= right, ">=", right);
    }
    explicit operator bool() const {
        t_sides.clear();
        return static_cast<bool>(left);
    }
};

#pragma GCC diagnostic pop
// Below, "Compared() <= a == b" is meant to be read from the left.
#pragma GCC diagnostic ignored "-Wparentheses"

struct Compared {
    template <class Left>
    LeftSide<Left> operator<=(const Left& left) const {
        return {left};
    }
};

/// Scales a number of repetitions by METRICS_TEST_SCALE, a percentage, from the environment or from
/// the build: sanitizers are slow, and the long run is for CI.
inline int Repetitions(int usual) {
    const char* const scale = std::getenv("METRICS_TEST_SCALE");
    return std::max(1, usual * (scale == nullptr ? METRICS_TEST_SCALE : std::atoi(scale)) / 100);
}

/// Looks again until the condition holds. @return false when it never did within the time.
template <class Condition>
bool Poll(Condition condition, std::chrono::seconds atMost = std::chrono::seconds(20)) {
    for (const auto start = Clock::now(); !condition();) {
        if (Clock::now() - start > atMost)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

inline std::string ReadFile(const std::string& path) {
    std::ostringstream text; // does not throw when a thread whose file it is has ended
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// A file of this process alone, in the working directory; removed in the end.
struct TemporaryFile {
    std::string path = "test." + std::to_string(getpid()) + ".csv";
    ~TemporaryFile() { unlink(path.c_str()); }
};

inline std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        ++count;
    return count;
}

/// Whether a file with this in its path is mapped into this process.
inline bool IsMapped(const std::string& name) {
    return ReadFile("/proc/self/maps").find(name) != std::string::npos;
}

inline int ThreadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        count += ReadFile(task.path() / "comm") == name + '\n';
    return count;
}

/// Whether a thread sleeps in the kernel, as one does that waits for a lock.
inline bool IsAsleep(pid_t thread) {
    return Count(ReadFile("/proc/self/task/" + std::to_string(thread) + "/stat"), ") S ") == 1;
}

struct Ended {
    int status = 0;     ///< Exit status, or minus the signal that ended the process.
    std::string output; ///< What it wrote to either standard stream.
    double seconds = 0;
};

/// Runs `body` in a child process, which ends by exit, or by SIGALRM at the deadline.
inline Ended RunChild(const std::function<int()>& body,
                      std::chrono::seconds deadline = std::chrono::seconds(120)) {
    std::fflush(nullptr);
    const int output = memfd_create("output", MFD_CLOEXEC);
    const auto start = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
        alarm(static_cast<unsigned>(deadline.count()));
        VERIFY(dup2(output, 1) == 1 && dup2(output, 2) == 2 && close(output) == 0);
        std::exit(body());
    }
    int status = 0;
    VERIFY(waitpid(child, &status, 0) == child);
    Ended ended{WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
                ReadFile("/proc/self/fd/" + std::to_string(output)), SecondsSince(start)};
    close(output);
    return ended;
}

struct Case {
    std::string name;
    std::function<void()> run;
    int seconds = 120; ///< deadline
    int times = 1;     ///< before they are scaled
};

/// Runs the case that the command line names, or every one, each time in a process of its own.
/// With --list it prints the names: ctest takes them from there.
inline int RunCases(int argc, char** argv, const std::vector<Case>& cases) {
    const std::string chosen = argc > 1 ? argv[1] : "";
    bool failed = false;
    bool found = false;
    for (const Case& test : cases) {
        if (chosen == "--list")
            std::puts(test.name.c_str());
        if (!chosen.empty() && chosen != test.name)
            continue;
        found = true;
        for (int run = 0; run < Repetitions(test.times); ++run) {
            const Ended ended =
                RunChild([&test] { return test.run(), 0; }, std::chrono::seconds(test.seconds));
            if (run == 0 || ended.status != 0)
                std::printf("%s: status %d after %.2f s\n%s", test.name.c_str(), ended.status,
                            ended.seconds, ended.output.c_str());
            failed = failed || ended.status != 0;
        }
    }
    return failed || (!found && chosen != "--list") ? 1 : 0;
}

} // namespace Metrics::test

#endif // METRICS_TESTS_SUPPORT_PROCESS_H
