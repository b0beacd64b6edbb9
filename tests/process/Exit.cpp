// The end of the process while threads use the library: nothing crashes, nothing hangs, and calls
// are harmless to the very last instruction.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <array>
#include <csignal>

using namespace Metrics;
using namespace Metrics::test;

namespace {

std::array<std::atomic<unsigned>, 8> s_rounds; // how often each thread has used everything
std::atomic<bool> s_isBusy{false}, s_isEnding{false};
std::atomic<int> s_inside{-1}; // from 0 on, the threads stop inside of a call and are counted

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

std::atomic<bool> s_isHeld{false}, s_goesOn{false};

/// A thread that was held in the middle of an emit since before the end goes on behind it: it does
/// not write into memory that is in other hands by now.
void GoOnBehindTheEnd() {
    std::vector<std::string> blocks; // of every size that may have been freed
    for (std::size_t size = 24; size <= 520; size += 16)
        blocks.resize(blocks.size() + 50, std::string(size - 1, '\x5A'));
    const std::vector<std::string> before = blocks;
    const unsigned round = s_rounds[0];
    s_goesOn = true;
    VERIFY(Poll([&] { return s_rounds[0] - round >= 2; }));
    VERIFY(blocks == before);
}

// Registered before the loader's own end is, so it runs when the library has been taken down.
void AfterTheLibrary(int, void*) {
    VERIFY(!s_isBusy || (AllGoRoundAgain() && IsInert()));
    if (s_isHeld)
        GoOnBehindTheEnd();
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const s_registerFirst)() = [] {
    on_exit(AfterTheLibrary, nullptr);
};

void GetBusy() {
    static std::atomic<unsigned> seen{0};
    Start();
    VERIFY(Consume(true, [](const MetricsEvent&) {
        if (s_inside < 0 || s_inside++ >= 8)
            return;
        while (!s_isEnding)
            std::this_thread::yield();
    }));
    VERIFY(Consume(false, [](const MetricsEvent&) { ++seen; }));
    std::atexit([] {
        s_isEnding = true;
        UseEverything("from an exit handler");
    });
    s_isBusy = true;
    for (auto& rounds : s_rounds)
        std::thread([&rounds] {
            for (;; ++rounds)
                UseEverything("some text that is too long to be stored inside of a string");
        }).detach();
    VERIFY(AllGoRoundAgain());
    std::thread([] {
        static_cast<void>(&t_lateUser);
        UseEverything("early");
    }).join();
    s_inside = 0;
    VERIFY(Poll([] { return s_inside >= 8; }));
}

/// One thread emits and is held wherever it is, until all has ended. It does not run ahead of the
/// delivery, and so allocates nothing: an allocator's locks would be held with it.
void HoldAnEmitter() {
    static std::atomic<unsigned> delivered{0};
    std::signal(SIGUSR1, [](int) {
        s_isHeld = true;
        while (!s_goesOn)
            usleep(100);
    });
    Start();
    Consume(false, [](const MetricsEvent&) { ++delivered; });
    std::thread emitter([] {
        for (;; ++s_rounds[0]) {
            while (!s_goesOn && s_rounds[0] - delivered > 3000)
                std::this_thread::yield();
            AttributeImpl(1, 2, 0);
        }
    });
    VERIFY(Poll([] { return s_rounds[0] > 20000; }));
    const unsigned before = s_rounds[0];
    while (s_rounds[0] == before) {} // it is under way
    pthread_kill(emitter.native_handle(), SIGUSR1);
    emitter.detach();
    VERIFY(Poll([] { return s_isHeld.load(); }));
}

/// A consumer does not return, and maybe its removal waits for it: a second covers all of that, and
/// whoever is late finds everything as it was.
void GetStuck(bool synchronous, bool isRemoved) {
    static std::atomic<pid_t> stuck{0}, removing{0};
    static std::atomic<bool> hasLeft{false};
    Start();
    Consume(true, [](const MetricsEvent&) {});
    const auto consumer = Consume(synchronous, [](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            return;
        stuck = gettid();
        while (!s_isEnding)
            usleep(1000);
    });
    VERIFY(consumer);
    std::thread([] {
        UseEverything("stuck");
        hasLeft = true;
    }).detach();
    VERIFY(Poll([] { return stuck != 0 && IsAsleep(stuck); }));
    if (isRemoved) {
        std::thread([consumer] {
            removing = gettid();
            Manager().RemoveConsumer(consumer);
        }).detach();
        VERIFY(Poll([] { return removing != 0 && IsAsleep(removing); }));
    }
    const auto start = Clock::now();
    MetricsManager::ShutdownAndFreeInstance();
    const double seconds = SecondsSince(start);
    VERIFY(seconds > 0.95 && seconds < 5 && IsInert());
    s_isEnding = true;
    VERIFY(Poll([] { return hasLeft && ThreadsNamed("metrics") == 0; }));
}

void ShutDown() {
    s_isEnding = true;
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY((!s_isBusy || AllGoRoundAgain()) && IsInert());
}

} // namespace

int main(int argc, char** argv) {
    static_cast<void>(&t_lateUser); // made before anything of the library's, so it goes after that
    const auto exitOnAThread = [] {
        GetBusy();
        std::thread([] { std::exit(0); }).join();
    };
    const auto shutDownWhileBusy = [] {
        GetBusy();
        ShutDown();
    };
    const auto startAfterTheEnd = [] {
        MetricsManager::ShutdownAndFreeInstance();
        Start();
        ShutDown();
    };
    const auto leaveOpen = [] {
        Start();
        UseEverything("x");
    };
    return RunCases(argc, argv,
                    {{"ReturnFromMain", GetBusy, 30, 60},
                     {"ExitOnAThread", exitOnAThread, 30, 60},
                     {"Shutdown", shutDownWhileBusy, 30, 60},
                     {"WhileAnEmitterIsHeld", HoldAnEmitter, 30, 30},
                     {"SynchronousAndStuck", [] { GetStuck(true, false); }, 30, 5},
                     {"AsynchronousAndStuck", [] { GetStuck(false, false); }, 30, 5},
                     {"SynchronousStuckAndRemoved", [] { GetStuck(true, true); }, 30, 3},
                     {"AsynchronousStuckAndRemoved", [] { GetStuck(false, true); }, 30, 3},
                     // The rest leaks nothing: LeakSanitizer fails the run.
                     {"NeverUsed", [] {}},
                     {"LeftEnabled", leaveOpen, 30, 20},
                     {"LeftDisabled", [] { VERIFY(Start().Disable()); }, 30, 20},
                     {"StartedAfterTheEnd", startAfterTheEnd, 30, 20}});
}
