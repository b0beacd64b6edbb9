// Consumers that do what they had better not: come back, wait, never leave others alone.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <pthread.h>
#include <sys/syscall.h>

#include <array>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// A synchronous consumer emits from its call while its removal waits for that very call. It is not
/// called again for what it emits; others are.
void EmitsWhileItsRemovalWaits() {
    std::jthread thread;
    std::atomic<pid_t> removing{0};
    int calls = 0, others = 0;
    MetricsListenerPtr consumer;
    const Session session;
    consumer = Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            return;
        VERIFY(++calls == 1);
        thread = std::jthread([&] {
            removing = gettid();
            VERIFY(Manager().RemoveConsumer(consumer));
        });
        VERIFY(Poll([&] { return removing != 0 && IsAsleep(removing); }));
        for (int i = 0; i < 100; ++i)
            Send(i);
    });
    Consume(true, [&](const MetricsEvent&) { ++others; });
    Send("first");
    thread.join();
    VERIFY(calls == 1);
    VERIFY(others == 101);
}

/// From inside of a call a flush returns at once, and Disable after its second.
void CallsBack(bool synchronous) {
    std::atomic<bool> isDone{false};
    const Session session;
    Consume(synchronous, [&](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::Custom)
            return;
        const auto start = Clock::now();
        Manager().WaitUntilWritesFlushed(1000 * 1000);
        VERIFY(SecondsSince(start) < 0.5 && !Manager().Disable());
        VERIFY(SecondsSince(start) > 0.9 && SecondsSince(start) < 1.9);
        isDone = true;
    });
    Send("call");
    VERIFY(Poll([&] { return isDone.load(); }) && IsInert());
}

/// A consumer or the init function ends the delivery thread by pthread_exit: nothing more is
/// delivered, and nobody who waits for that waits for good.
void EndsTheDeliveryThread(bool inInitFunction) {
    static std::atomic<bool> isUnwound{false};
    struct Local {
        ~Local() { isUnwound = true; }
    };
    const auto end = [] {
        const Local local;
        pthread_exit(nullptr);
    };
    if (inInitFunction)
        Manager().SetThreadInitFunction(end);
    const auto consumer = Consume(false, [end](const MetricsEvent&) { end(); });
    VERIFY(consumer);
    for (int i = 0; i < 3; ++i)
        Send(i);
    VERIFY(Poll([] { return isUnwound && ThreadsNamed("metrics") == 0; }));
    Send(3);
    VERIFY(Manager().RemoveConsumer(consumer));
    auto start = Clock::now();
    Manager().WaitUntilWritesFlushed(100);
    VERIFY(SecondsSince(start) < 5);
    start = Clock::now();
    VERIFY(!Manager().Disable());
    VERIFY(SecondsSince(start) < 5);
    VERIFY(IsInert());
}

/// A thread ends inside of a synchronous call, without any of its destructors: nobody waits for
/// that call, also not when the memory of the thread is ready for another one.
void EndsInsideOfASynchronousCall() {
    const Session session;
    Consume(true, [](const MetricsEvent& event) {
        if (event.bits == MetricsBits::act)
            syscall(SYS_exit, 0); // the thread alone, see _exit(2)
    });
    Consume(false, [](const MetricsEvent&) {});
    std::thread([] { Send(0, 0, MetricsBits::act); }).join();
    for (int i = 0; i < 40; ++i) { // so many new ones that the library looks who has ended
        std::thread([] { Send(0); }).join();
        Flush();
        Flush(); // it has looked by now
        VERIFY(Manager().RemoveConsumer(Consume(true, [](const MetricsEvent&) {})));
    }
}

/// Registrations get their turn while eight threads and the delivery thread call without a pause.
void RegistersUnderLoad() {
    constexpr unsigned backlog = 2000;
    std::array<std::atomic<unsigned>, 8> emitted{};
    std::atomic<unsigned> begun{0};
    std::atomic<unsigned> delivered{0};
    const Session session;
    // A call lasts until another has begun: only a thread that queues keeps new ones out.
    Consume(true, [&begun](const MetricsEvent&) {
        const unsigned before = ++begun;
        for (const auto start = Clock::now(); begun == before && SecondsSince(start) < 5e-3;)
            std::this_thread::yield();
    });
    VERIFY(Consume(false, [&](const MetricsEvent&) {
        if (begun - ++delivered < backlog)
            usleep(200); // falls behind
    }));
    std::vector<std::jthread> threads;
    for (auto& count : emitted)
        threads.emplace_back([&](const std::stop_token& isOver) {
            for (; !isOver.stop_requested(); ++count)
                Send("load");
        });
    const auto another = MakeListener([](const MetricsEvent&) {});
    for (unsigned i = 0; i < unsigned(Repetitions(200)); ++i) {
        const unsigned before = emitted[i % 8];
        VERIFY(Poll([&] { return emitted[i % 8] - before >= 2; }));
        VERIFY(Manager().AddConsumer(another, 0, (i & 1) != 0));
        VERIFY(Manager().RemoveConsumer(another));
    }
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Case> cases{{"EmitsWhileItsRemovalWaits", EmitsWhileItsRemovalWaits},
                            {"ASynchronousConsumerCallsBack", [] { CallsBack(true); }},
                            {"AnAsynchronousConsumerCallsBack", [] { CallsBack(false); }},
                            {"RegistersUnderLoad", RegistersUnderLoad, 60}};
    if (sanitizer.empty()) // whose runtimes want to see every thread end
        cases.insert(cases.end(),
                     {{"AConsumerEndsTheDeliveryThread", [] { EndsTheDeliveryThread(false); }, 30},
                      {"TheInitFunctionEndsIt", [] { EndsTheDeliveryThread(true); }, 30},
                      {"EndsInsideOfASynchronousCall", EndsInsideOfASynchronousCall, 30}});
    return RunCases(argc, argv, cases);
}
