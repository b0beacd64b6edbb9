// The end of the process while threads use the library: nothing crashes, nothing hangs, and calls
// are harmless to the very last instruction.

#include "../support/Process.h"
#include "Exercise.h"

#include <algorithm>
#include <array>
#include <cstdlib>

using namespace Metrics;
using namespace Metrics::test;

namespace {

std::array<std::atomic<unsigned>, 8> s_rounds; // how often each thread has used everything
std::atomic<bool> s_isBusy{false};

/// Whether every thread completes two more rounds, and so began one after the call.
bool AllGoRoundAgain() {
    return std::all_of(s_rounds.begin(), s_rounds.end(), [](const auto& rounds) {
        const unsigned before = rounds;
        return Poll([&] { return rounds - before >= 2; });
    });
}

/// Uses the library when its static or thread-local object is destroyed.
struct LateUser {
    ~LateUser() { UseEverything("from a destructor"); }
};
LateUser s_lateUser;
thread_local LateUser t_lateUser;

// Registered before the loader's own end is, so it runs when the library has been taken down.
void AfterTheLibrary(int, void*) {
    if (s_isBusy && !(AllGoRoundAgain() && IsInert()))
        _exit(9); // this run proves nothing
}
void RegisterFirst(int, char**, char**) {
    on_exit(AfterTheLibrary, nullptr);
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const s_registerFirst)(int, char**,
                                                                            char**) = RegisterFirst;

int ExitWhileBusy(const std::string& how) {
    static std::atomic<unsigned> seen{0};
    const auto count = MakeListener([](const MetricsEvent&) { ++seen; });
    Start();
    VERIFY(Manager().AddConsumer(count, MetricsBits::act, true));
    VERIFY(Manager().AddConsumer(count, ~std::uint64_t{0}, false));
    std::atexit([] { UseEverything("from an exit handler"); });
    std::atomic<bool> isOver{false};
    std::thread late([&isOver] {
        static_cast<void>(&t_lateUser);
        UseEverything("early");
        VERIFY(Poll([&isOver] { return isOver.load(); }));
    });
    s_isBusy = true;
    for (auto& rounds : s_rounds)
        std::thread([&rounds] {
            for (;; ++rounds)
                UseEverything("some text that is too long to be stored inside of a string");
        }).detach();
    VERIFY(AllGoRoundAgain());
    if (how == "shutdown") {
        MetricsManager::ShutdownAndFreeInstance();
        VERIFY(AllGoRoundAgain() && IsInert());
    }
    isOver = true;
    late.join();
    if (how == "exit from a thread")
        std::thread([] { std::exit(0); }).join();
    return 0;
}

/// A consumer never returns, and maybe a registration waits for it: one deadline of a second covers
/// all that there is to wait for.
int ExitWhileStuck(bool synchronous, bool isRegistering) {
    static std::atomic<pid_t> stuck{0};
    static std::atomic<pid_t> registering{0};
    const auto getStuck = MakeListener([](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            return;
        for (stuck = gettid();;)
            pause();
    });
    Start().AddConsumer(MakeListener([](const MetricsEvent&) {}), 0, true);
    VERIFY(Manager().AddConsumer(getStuck, ~std::uint64_t{0}, synchronous));
    std::thread([] { UseEverything("stuck"); }).detach();
    VERIFY(Poll([] { return stuck != 0 && IsAsleep(stuck); }));
    if (isRegistering) {
        std::thread([&] {
            registering = gettid();
            Manager().AddConsumer(getStuck, 0, false);
        }).detach();
        VERIFY(Poll([] { return registering != 0 && IsAsleep(registering); }));
    }
    const auto start = Clock::now();
    MetricsManager::ShutdownAndFreeInstance();
    const double seconds = SecondsSince(start);
    VERIFY(seconds > 0.95 && seconds < 1.5);
    VERIFY(IsInert());
    return 0;
}

/// The rest of the library's lives, to be seen to leak nothing: LeakSanitizer fails the run.
int ExitQuietly(const std::string& how) {
    if (how == "never enabled")
        Manager().SetBits(1);
    if (how == "enabled" || how == "disabled")
        UseEverything((Start(), "x"));
    if (how == "disabled")
        VERIFY(Manager().Disable());
    if (how == "made again") {
        MetricsManager::ShutdownAndFreeInstance();
        UseEverything((Start(), "x"));
        MetricsManager::ShutdownAndFreeInstance();
        VERIFY(IsInert());
    }
    return 0;
}

int Child(const std::string& how) {
    static_cast<void>(&t_lateUser);
    if (how.find("stuck") != std::string::npos)
        return ExitWhileStuck(how.find("async") == std::string::npos,
                              how.find("and") != std::string::npos);
    if (how == "return" || how == "exit from a thread" || how == "shutdown")
        return ExitWhileBusy(how);
    return ExitQuietly(how);
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3)
        return Child(argv[2]);
    const struct {
        const char* how;
        int runs;
    } rows[] = {{"return", 300},
                {"exit from a thread", 300},
                {"shutdown", 300},
                {"sync stuck", 5},
                {"async stuck", 5},
                {"sync stuck and a registration", 3},
                {"async stuck and a registration", 3},
                {"unused", 1},
                {"never enabled", 1},
                {"enabled", 20},
                {"disabled", 20},
                {"made again", 20}};
    int failed = 0;
    for (const auto& row : rows) {
        double longest = 0;
        for (int run = 0; run < Repetitions(row.runs); ++run) {
            const Ended ended = RunChild(
                [&] { return execl("/proc/self/exe", argv[0], "--child", row.how, nullptr); },
                std::chrono::seconds(30));
            longest = std::max(longest, ended.seconds);
            if (ended.status == 0 && ended.output.empty())
                continue;
            ++failed;
            std::printf("FAILED %s: status %d\n%s", row.how, ended.status, ended.output.c_str());
        }
        std::printf("%s: %d runs, the longest took %.2f s\n", row.how, Repetitions(row.runs),
                    longest);
    }
    return failed == 0 ? 0 : 1;
}
