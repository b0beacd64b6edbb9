#include "support/Exercise.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <array>
#include <chrono>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Metrics::test {

/// The two roads into the buffer: an event of the application's, and one that the library builds.
static void Emit(std::uint64_t first, std::uint64_t second) {
    second % 3 == 0 ? static_cast<void>(Send(first, second)) : AttributeImpl(first, second, 0);
}

static std::atomic<bool> s_isHeld, s_isReleased;

/// Holds its thread wherever it is, until it is released or 2 ms are over.
static void Hold(int /*signal*/) {
    s_isHeld = true;
    const auto end = Clock::now() + std::chrono::milliseconds(2);
    while (!s_isReleased && Clock::now() < end)
        std::this_thread::yield();
}

TEST(Delivery, LosesRepeatsAndReordersNothingInAThousandSwaps) {
    // Sequences of numbers: one for each emitter, one that all emit by turns, one for the flushes.
    constexpr std::size_t emitters = 8, byTurns = 8, flushes = 9;
    std::array<std::uint64_t, 10> emitted{}, expected{};
    std::uint64_t outOfOrder = 0, timestamp = 0;
    std::atomic<std::uint64_t> begun{0}, delivered{0}, flushed{0};
    EXPECT_EQ(Send(0)->timestamp, 0u) << "not enabled";
    Consume(false, [&](const MetricsEvent& event) {
        const auto sequence = static_cast<std::size_t>(event.param1.integer);
        outOfOrder += static_cast<std::uint64_t>(event.param2.integer) != expected.at(sequence)++;
        if (sequence == byTurns)
            outOfOrder += event.timestamp < std::exchange(timestamp, event.timestamp);
        flushed += sequence == flushes;
        ++delivered;
    });
    std::signal(SIGUSR1, Hold);
    std::mutex turn;
    {
        std::vector<std::jthread> threads;
        for (std::size_t emitter = 0; emitter < emitters; ++emitter)
            threads.emplace_back([&, emitter](const std::stop_token& done) {
                while (!done.stop_requested()) {
                    while (begun - delivered > 5000)
                        std::this_thread::yield();
                    begun += 2;
                    Emit(emitter, emitted[emitter]++);
                    const std::lock_guard lock(turn);
                    Emit(byTurns, emitted[byTurns]++);
                }
            });
        for (std::size_t round = 0; round < std::size_t(Repetitions(1000)); ++round) {
            s_isHeld = s_isReleased = false;
            pthread_kill(threads[round % emitters].native_handle(), SIGUSR1);
            while (!s_isHeld)
                std::this_thread::yield();
            ++begun;
            Send(flushes, emitted[flushes]++);
            Flush();
            EXPECT_EQ(flushed, emitted[flushes]) << "the flush ended before the delivery";
            s_isReleased = true;
        }
    }
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(outOfOrder, 0u);
    EXPECT_EQ(expected, emitted);
    EXPECT_EQ(delivered, begun);
}

TEST(Delivery, EndsAtShutdownAndLetsEveryWaiterGo) {
    korsys::TEvent entered(false), release(false);
    std::int64_t last = -1; // delivery thread only, until Disable has returned
    std::atomic<bool> released{false};
    std::atomic<int> waiting{0};
    const auto flush = [&] {
        ++waiting;
        const auto start = Clock::now();
        Flush();
        EXPECT_LT(SecondsSince(start), forever / 2000.0) << "never released";
    };
    Consume(false, [&](const MetricsEvent& event) { last = event.param1.integer; });
    const auto holding = Consume(false, [&](const MetricsEvent&) {
        entered.Signal();
        release.Wait(forever);
        released = true;
    });
    Send(0);
    ASSERT_TRUE(entered.Wait(forever));
    Manager().WaitUntilWritesFlushed(1); // in vain
    for (std::uint64_t i = 0; i <= 1000; ++i)
        Send(i, 0, 0, i % 301 == 300 ? MetricsEventType::Shutdown : MetricsEventType::Custom);
    {
        const std::jthread first(flush), second(flush), remover([&] {
            ++waiting;
            Manager().RemoveConsumer(holding);
            EXPECT_TRUE(released) << "removed during a call";
        });
        while (waiting < 3)
            std::this_thread::yield();
        release.Signal();
    }
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(last, 299);
}

TEST(Delivery, BeginsWithTheInitFunctionAndEndsWithWhatWasQueued) {
    korsys::TEvent release(false);
    std::string log; // delivery thread only, until Disable has returned
    Manager().SetThreadInitFunction([&] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (const int signal :
             {SIGTERM, SIGPROF, SIGCHLD, SIGSEGV, SIGFPE, SIGBUS, SIGILL, SIGTRAP, SIGABRT})
            log += sigismember(&mask, signal) == 1 ? " blocked" : " open";
        release.Wait(forever);
        throw std::runtime_error("dropped");
    });
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            release.Signal(); // Disable has begun
    });
    const auto consumer = Consume(false, [&](const MetricsEvent& event) {
        log += ' ' + std::to_string(event.param1.integer);
    });
    Send(1);
    Send(2);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(log, " blocked blocked blocked open open open open open open 1 2");

    Manager().Enable(); // off is for good
    EXPECT_EQ(Manager().SetBits(everyBit) + Send(3)->timestamp + Context::Create(true), 0u);
    EXPECT_FALSE(Manager().AddConsumer(consumer, everyBit, false));
}

TEST(Delivery, FirstUsersThatRaceShareOneInstance) {
    // A second instance starts a second delivery thread, or one without the init function.
    const auto race = [] {
        std::atomic<int> missing{2}, started{0};
        {
            const auto use = [&] {
                for (--missing; missing != 0;) {}
                Manager().SetThreadInitFunction([&started] { ++started; });
                Manager().Enable();
            };
            const std::jthread first(use), second(use);
        }
        return Manager().Disable() && started == 1 ? 0 : 1;
    };
    for (int round = 0; round < 300; ++round)
        ASSERT_EQ(RunChild(race).status, 0) << "in round " << round;
}

} // namespace Metrics::test
