// A thread that is stopped inside of an emit, as by a debugger: it delays its own event, and
// nothing else.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <sys/ptrace.h>

#include <csignal>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// What the tracing process and the traced one share.
struct Shared {
    std::atomic<pid_t> emitter{0};
    std::atomic<unsigned> emitted{0};
    std::atomic<int> ready{0};     // rounds
    std::atomic<int> asked{0};     // rounds; while the emitter is stopped
    std::atomic<int> answered{0};  // rounds
    std::atomic<int> resumed{0};   // rounds
    std::atomic<bool> ends{false}; // the last round is Disable
};

Shared& MakeShared() {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    VERIFY(memory != MAP_FAILED);
    return *new (memory) Shared;
}

/// The traced process: one thread emits, the main thread does all that must go on. What is emitted
/// allocates nothing, since malloc holds locks that others wait for.
int Host(Shared& shared) {
    std::atomic<int> last{0};
    std::atomic<unsigned> delivered{0};
    Start();
    Consume(false, [&](const MetricsEvent& event) {
        ++delivered;
        if (event.bits == MetricsBits::act)
            last = static_cast<int>(event.param1.integer);
    });
    std::thread([&] {
        for (int i = 0;; ++i) {
            if (i == 1000) // the first emits allocate
                shared.emitter = gettid();
            while (static_cast<int>(shared.emitted - delivered) > 200000) // may be negative
                std::this_thread::yield();
            AttributeImpl(1, 2, 0);
            ++shared.emitted;
        }
    }).detach();

    const auto listener = MakeListener([](const MetricsEvent&) {});
    for (int round = 1;; ++round) {
        shared.ready = round;
        VERIFY(Poll([&] { return shared.asked == round; }));
        const auto start = Clock::now();
        if (shared.ends) {
            VERIFY(Manager().Disable());
            shared.answered = round;
            _exit(0);
        }
        Send(round, 0, MetricsBits::act);
        Manager().WaitUntilWritesFlushed(10000);
        VERIFY(last == round);
        VERIFY(Manager().AddConsumer(listener, 0, false));
        VERIFY(Manager().RemoveConsumer(listener));
        VERIFY(Manager().AddConsumer(listener, 0, true));
        VERIFY(SecondsSince(start) < 10);
        shared.answered = round;
        VERIFY(Poll([&] { return shared.resumed == round; }));
        VERIFY(Manager().RemoveConsumer(listener));
    }
}

/// Stops the emitter at that many instants, then a last time for the end.
void Trace(int stops) {
    Shared& shared = MakeShared();
    const pid_t host = fork();
    if (host == 0) {
        alarm(60);
        Host(shared);
    }
    VERIFY(Poll([&] { return shared.emitter != 0; }));
    const pid_t emitter = shared.emitter;
    VERIFY(ptrace(PTRACE_SEIZE, emitter, nullptr, PTRACE_O_EXITKILL) == 0);
    for (int round = 1; round <= stops + 1; ++round) {
        VERIFY(Poll([&] { return shared.ready == round; }));
        const unsigned before = shared.emitted;
        while (shared.emitted - before < unsigned(round) * 37 % 200) {} // it is under way
        VERIFY(ptrace(PTRACE_INTERRUPT, emitter, nullptr, nullptr) == 0);
        int status = 0;
        VERIFY(waitpid(emitter, &status, __WALL) == emitter);
        VERIFY(WIFSTOPPED(status) == 1);
        shared.ends = round > stops;
        shared.asked = round;
        VERIFY(Poll([&] { return shared.answered == round; }));
        if (round <= stops)
            VERIFY(ptrace(PTRACE_CONT, emitter, nullptr, nullptr) == 0);
        shared.resumed = round;
    }
    int status = -1;
    while (waitpid(-1, &status, __WALL) != host) {} // the thread comes first
    VERIFY(status == 0);
    munmap(&shared, sizeof shared);
}

} // namespace

int main(int argc, char** argv) {
    const auto ends = [] {
        for (int i = 0; i < Repetitions(50); ++i)
            Trace(0);
    };
    const auto goesOn = [] { Trace(Repetitions(500)); };
    return RunCases(argc, argv, {{"DisableGoesOn", ends}, {"FlushesAndRegistrationsGoOn", goesOn}});
}
