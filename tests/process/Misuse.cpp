// Consumers that do what they had better not: throw, come back, wait, never leave others alone.

#include "../support/Process.h"
#include "Exercise.h"

#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// What consumers throw ends one call, or reaches the emitting code, and harms nothing else.
void Throws() {
    std::atomic<int> delivered{0};
    const auto throws = MakeListener([](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Custom)
            throw 42;
    });
    const Session session;
    VERIFY(Manager().AddConsumer(throws, ~0ull, false));
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     delivered += event.eventType == MetricsEventType::Custom;
                                 }),
                                 ~0ull, false));
    for (int i = 0; i < 1000; ++i)
        EmitOne(i);
    VERIFY(Manager().AddConsumer(throws, MetricsBits::act, true));
    for (int i = 0; i < 1000; ++i) {
        try {
            EmitOne(i, {}, MetricsBits::act);
            VERIFY(!"what the consumer threw was lost");
        } catch (int thrown) {
            VERIFY(thrown == 42);
        }
        EmitOne(i, {}, MetricsBits::net);
    }
    Manager().WaitUntilWritesFlushed(20000);
    VERIFY(delivered == 2000); // a thousand were not queued
    VERIFY(Manager().RemoveConsumer(throws) && Manager().RemoveConsumer(throws)); // no lock is left
    VERIFY(Manager().Disable());
}

/// A synchronous consumer emits from its call while a registration waits for that very call.
void EmitsWhileOthersWait() {
    std::atomic<pid_t> registering{0};
    std::atomic<int> inner{0};
    const auto other = MakeListener([&](const MetricsEvent&) { ++inner; });
    const Session session;
    VERIFY(Manager().AddConsumer(other, MetricsBits::net, true));
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     if (event.bits != MetricsBits::act)
                                         return;
                                     registering = -1;
                                     VERIFY(Poll(
                                         [&] { return registering > 0 && IsAsleep(registering); }));
                                     for (int i = 0; i < 100; ++i)
                                         EmitOne(i, {}, MetricsBits::net);
                                 }),
                                 MetricsBits::act, true));
    std::thread thread([&] {
        VERIFY(Poll([&] { return registering == -1; }));
        registering = gettid();
        VERIFY(Manager().AddConsumer(other, 0, true));
    });
    EmitOne(0, {}, MetricsBits::act);
    thread.join();
    VERIFY(inner == 100);
}

/// A synchronous consumer whose own events pass its mask is not called again for them; others are.
void HearsItself() {
    int depth = 0;
    int calls = 0;
    int others = 0;
    const Session session;
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent&) {
                                     ++calls;
                                     VERIFY(++depth == 1);
                                     EmitOne("echo");
                                     --depth;
                                 }),
                                 ~0ull, true));
    VERIFY(
        Manager().AddConsumer(MakeListener([&](const MetricsEvent&) { ++others; }), ~0ull, true));
    EmitOne("voice");
    VERIFY(calls == 1 && others == 2);
}

/// From inside of a call, a flush and a registration return at once and Disable after its second.
void CallsBack(bool synchronous) {
    std::atomic<bool> isDone{false};
    MetricsListenerPtr listener = MakeListener([&](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::Custom)
            return;
        const auto start = Clock::now();
        VERIFY(!Manager().AddConsumer(listener, 0, true) && !Manager().RemoveConsumer(listener));
        Manager().WaitUntilWritesFlushed(1000 * 1000);
        VERIFY(SecondsSince(start) < 0.5);
        VERIFY(!Manager().Disable());
        VERIFY(SecondsSince(start) > 0.9 && SecondsSince(start) < 1.9);
        isDone = true;
    });
    const Session session;
    VERIFY(Manager().AddConsumer(listener, ~0ull, synchronous));
    EmitOne("call");
    VERIFY(Poll([&] { return isDone.load(); }) && IsInert());
}

/// Registrations get their turn while eight threads deliver without a pause.
void RegistersUnderLoad() {
    std::atomic<bool> isOver{false};
    std::array<std::atomic<unsigned>, 8> emitted{};
    const auto listener = MakeListener([](const MetricsEvent&) {
        for (const auto start = Clock::now(); SecondsSince(start) < 20e-6;) {}
    });
    const Session session;
    VERIFY(Manager().AddConsumer(listener, ~0ull, true));
    std::vector<std::thread> threads;
    for (auto& count : emitted)
        threads.emplace_back([&] {
            for (; !isOver; ++count)
                EmitOne("load");
        });
    const auto start = Clock::now();
    for (int i = 0; i < Repetitions(200); ++i) {
        const unsigned before = emitted[i % 8];
        VERIFY(Poll([&] { return emitted[i % 8] - before >= 2; }));
        VERIFY(Manager().AddConsumer(listener, 0, (i & 1) != 0));
        VERIFY(Manager().RemoveConsumer(listener));
    }
    std::printf("%d registrations and removals in %.1f s\n", Repetitions(200), SecondsSince(start));
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"throws", Throws},
                     {"emits while a registration waits", EmitsWhileOthersWait},
                     {"hears itself", HearsItself},
                     {"a synchronous consumer calls back", [] { CallsBack(true); }},
                     {"an asynchronous consumer calls back", [] { CallsBack(false); }},
                     {"registers under load", RegistersUnderLoad, 60}});
}
