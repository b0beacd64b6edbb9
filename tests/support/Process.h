#ifndef METRICS_TESTS_SUPPORT_PROCESS_H
#define METRICS_TESTS_SUPPORT_PROCESS_H

#include <dirent.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>

/// What tests need that are processes of their own.
namespace Metrics::test {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Ends the process at the first failure, without running anything else of it.
[[noreturn]] inline void Fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: %s\n", file, line, condition);
    std::fflush(nullptr);
    _exit(1);
}

#define VERIFY(condition)                                                                          \
    ((condition) ? void() : ::Metrics::test::Fail(#condition, __FILE__, __LINE__))

/// Scales a number of repetitions by METRICS_TEST_SCALE, a percentage: sanitizers are slow.
inline int Repetitions(int usual) {
    const char* const scale = std::getenv("METRICS_TEST_SCALE");
    return std::max(1, usual * (scale == nullptr ? 100 : std::atoi(scale)) / 100);
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
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A name for a file of this process alone, in the working directory; removed in the end.
struct TemporaryFile {
    std::string path = "test." + std::to_string(getpid()) + ".csv";
    ~TemporaryFile() { unlink(path.c_str()); }
};

inline std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

/// Physical memory of this process.
inline long ResidentKilobytes() {
    const std::string status = ReadFile("/proc/self/status");
    return std::atol(status.c_str() + status.find("VmRSS:") + 6);
}

/// Whether a file with this in its path is mapped into this process.
inline bool IsMapped(const std::string& name) {
    return ReadFile("/proc/self/maps").find(name) != std::string::npos;
}

/// Calls with the directory of each thread of this process.
template <class Visit>
void ForEachThread(Visit visit) {
    DIR* const tasks = opendir("/proc/self/task");
    while (const dirent* const entry = readdir(tasks))
        if (entry->d_name[0] != '.')
            visit(std::string("/proc/self/task/") + entry->d_name);
    closedir(tasks);
}

inline int ThreadsNamed(const std::string& name) {
    int count = 0;
    ForEachThread(
        [&](const std::string& task) { count += ReadFile(task + "/comm") == name + '\n'; });
    return count;
}

/// Whether a thread sleeps in the kernel, as one does that waits for a lock.
inline bool IsAsleep(pid_t thread) {
    const std::string stat = ReadFile("/proc/self/task/" + std::to_string(thread) + "/stat");
    return stat.find(") S ") != std::string::npos;
}

} // namespace Metrics::test

/// ThreadSanitizer waits for a second at every exit otherwise.
extern "C" [[gnu::used]] inline const char* __tsan_default_options() {
    return "atexit_sleep_ms=0";
}

namespace Metrics::test {

struct Ended {
    int status = 0;     ///< Exit status, or minus the signal that ended the process.
    std::string output; ///< What it wrote to either standard stream.
    double seconds = 0;
};

/// Runs `body` in a child process, which ends by exit; past the deadline it is killed.
inline Ended RunChild(const std::function<int()>& body, std::chrono::seconds deadline) {
    std::fflush(nullptr);
    int ends[2];
    VERIFY(pipe(ends) == 0);
    const auto start = Clock::now();
    const pid_t child = fork();
    VERIFY(child >= 0);
    if (child == 0) {
        dup2(ends[1], 1);
        dup2(ends[1], 2);
        close(ends[0]);
        close(ends[1]);
        std::exit(body());
    }
    close(ends[1]);
    Ended ended;
    for (;;) {
        const auto left =
            std::chrono::milliseconds(deadline) -
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        pollfd readable{ends[0], POLLIN, 0};
        char buffer[4096];
        ssize_t size = 0;
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) == 0) {
            kill(child, SIGKILL);
            ended.output += "killed at its deadline\n";
            break;
        }
        if ((size = read(ends[0], buffer, sizeof buffer)) <= 0)
            break;
        ended.output.append(buffer, static_cast<std::size_t>(size));
    }
    close(ends[0]);
    int status = 0;
    VERIFY(waitpid(child, &status, 0) == child);
    ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    ended.seconds = SecondsSince(start);
    return ended;
}

struct Case {
    const char* name;
    std::function<void()> run;
    int seconds = 120; ///< deadline
};

/// Runs every case, or those named on the command line, each in a process of its own.
inline int RunCases(int argc, char** argv, std::initializer_list<Case> cases) {
    int failed = 0;
    for (const Case& test : cases) {
        bool wanted = argc < 2;
        for (int i = 1; i < argc; ++i)
            wanted = wanted || std::strcmp(argv[i], test.name) == 0;
        if (!wanted)
            continue;
        const Ended ended =
            RunChild([&test] { return test.run(), 0; }, std::chrono::seconds(test.seconds));
        std::printf("%-6s %s (%.1f s, status %d)\n%s", ended.status == 0 ? "ok" : "FAILED",
                    test.name, ended.seconds, ended.status, ended.output.c_str());
        failed += ended.status != 0;
    }
    return failed == 0 ? 0 : 1;
}

} // namespace Metrics::test

#endif // METRICS_TESTS_SUPPORT_PROCESS_H
