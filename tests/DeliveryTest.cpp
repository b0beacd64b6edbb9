#include "support/Transcript.h"

#include <pthread.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <new>
#include <stdexcept>

static thread_local std::function<void()> t_onNextArray; // what the thread does in its next new[]

// The library's arrays come from here, too.
void* operator new[](std::size_t size) {
    if (const auto call = std::exchange(t_onNextArray, nullptr))
        call();
    void* const memory = std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace Metrics::Testing {

using std::chrono::steady_clock;

/// The two roads into the buffer: an event of the application's, and one that the library builds.
static void Emit(bool shared, std::uint64_t first, std::uint64_t second) {
    shared ? static_cast<void>(Send(first, second)) : AttributeImpl(first, second, 0);
}

TEST(Delivery, LosesRepeatsAndReordersNothingInAThousandSwaps) {
    // Sequences of numbers: one for each emitter, one that all of them emit by turns, each after
    // the emit of the one before has returned, and one for the flushes.
    constexpr std::size_t emitters = 8, byTurns = 8, flushes = 9, rounds = 1000;
    constexpr std::uint64_t window = 5000; // events under way, so that memory is bounded
    std::array<std::uint64_t, 10> emitted{}, expected{};
    std::uint64_t outOfOrder = 0, timestamp = 0;
    std::atomic<std::uint64_t> begun{0}, delivered{0}, flushed{0};
    Consume(false, [&](const MetricsEvent& event) {
        const auto sequence = static_cast<std::size_t>(event.param1.integer);
        outOfOrder += static_cast<std::uint64_t>(event.param2.integer) != expected.at(sequence)++;
        if (sequence == byTurns)
            outOfOrder += event.timestamp < std::exchange(timestamp, event.timestamp);
        flushed += sequence == flushes;
        ++delivered;
    });
    // What is emitted after a flush stands in another buffer than what was before.
    const auto flush = [&] {
        for (std::size_t round = 0; round < rounds; ++round) {
            ++begun;
            Send(flushes, emitted[flushes]++);
            Flush();
            EXPECT_EQ(flushed, emitted[flushes]) << "the flush ended before the delivery";
        }
    };
    flush();
    std::atomic<bool> done{false};
    std::mutex turn;
    {
        std::deque<Thread> threads;
        for (std::size_t emitter = 0; emitter < emitters; ++emitter)
            threads.emplace_back([&, emitter] {
                while (!done) {
                    while (begun - delivered > window && !done)
                        std::this_thread::yield();
                    begun += 2;
                    Emit(emitted[emitter] % 2 == 0, emitter, emitted[emitter]);
                    ++emitted[emitter];
                    const std::lock_guard lock(turn);
                    Emit(emitted[byTurns] % 3 == 0, byTurns, emitted[byTurns]);
                    ++emitted[byTurns];
                }
            });
        flush();
        done = true;
    }
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(outOfOrder, 0u);
    EXPECT_EQ(expected, emitted);
    EXPECT_EQ(delivered, begun);
}

class PausedAppend : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Shared, PausedAppend, testing::Bool());

TEST_P(PausedAppend, KeepsItsBufferFromBeingWalked) {
    korsys::TEvent entered(false), release(false), paused(false), go(false);
    std::atomic<std::uint64_t> delivered{0};
    Consume(false, [&](const MetricsEvent&) {
        if (++delivered == 1) {
            entered.Signal();
            release.Wait(forever);
        }
    });
    Send(0);
    ASSERT_TRUE(entered.Wait(forever));
    // While the delivery is held the other buffer fills, until the next append needs an array.
    constexpr std::uint64_t full = 256 * 256;
    for (std::uint64_t i = 0; i < full; ++i)
        Emit(GetParam(), 1, i);
    {
        const Thread emitter([&] {
            t_onNextArray = [&] {
                paused.Signal();
                go.Wait(forever);
            };
            Emit(GetParam(), 1, full);
        });
        EXPECT_TRUE(paused.Wait(forever));
        Send(0); // nobody else waits for it
        release.Signal();
        Manager().WaitUntilWritesFlushed(200); // ends at once when the buffer is walked
        EXPECT_EQ(delivered, 1u);
        go.Signal();
    }
    Flush();
    EXPECT_EQ(delivered, full + 3);
    EXPECT_TRUE(Manager().Disable());
}

TEST(Delivery, StampsWhatItTakes) {
    EXPECT_EQ(Send(0)->timestamp, 0u) << "not enabled";
    Manager().Enable();
    Manager().SetBitsAbsolute(MetricsBits::act);
    const auto seconds = static_cast<std::uint64_t>(std::time(nullptr));
    const auto outerBegin = steady_clock::now();
    const auto first = Send(0);
    const auto innerBegin = steady_clock::now();
    while (steady_clock::now() - innerBegin < std::chrono::milliseconds(20)) {}
    const auto last = Send(0, 0, MetricsBits::act);
    EXPECT_LT(first->timestamp, 600'000'000'000u) << "counts from the loading of the library";
    const std::chrono::nanoseconds upTime(last->timestamp - first->timestamp);
    EXPECT_GE(upTime, std::chrono::milliseconds(20));
    EXPECT_LE(upTime, steady_clock::now() - outerBegin);
    EXPECT_LE(last->timestamp, AppUpTime());
    EXPECT_LE(last->unixSeconds - seconds, 60u);
    EXPECT_LT(last->unixMicroseconds, 1'000'000u);
    const auto dropped = Send(0, 0, MetricsBits::net);
    EXPECT_EQ(dropped->timestamp + dropped->unixSeconds + dropped->unixMicroseconds, 0u);
    Manager().EmitEvent(nullptr);
}

TEST(Delivery, EndsAtShutdownAndLetsEveryWaiterGo) {
    korsys::TEvent entered(false), release(false);
    std::int64_t last = -1; // delivery thread only, until Disable has returned
    std::atomic<bool> released{false};
    const auto flush = [](const auto&...) {
        const auto begin = steady_clock::now();
        Flush();
        EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(30));
    };
    flush();                                   // not enabled
    Send(0, 0, 0, MetricsEventType::Shutdown); // the same
    Consume(true, flush);
    Consume(false, flush);
    Consume(false, [&](const MetricsEvent& event) { last = event.param1.integer; });
    const auto holding = Consume(false, [&](const MetricsEvent&) {
        entered.Signal();
        release.Wait(forever);
        released = true;
    });
    flush(); // nothing to wait for
    Send(0);
    ASSERT_TRUE(entered.Wait(forever));
    for (std::uint64_t i = 0; i <= 1000; ++i)
        Send(i, 0, 0, i % 301 == 300 ? MetricsEventType::Shutdown : MetricsEventType::Custom);
    Manager().WaitUntilWritesFlushed(1); // its time is over first
    {
        const Thread first(flush), second(flush);
        const Thread remover([&] {
            Manager().RemoveConsumer(holding);
            EXPECT_TRUE(released) << "removed during a call";
        });
        for (const Thread* thread : {&first, &second, &remover})
            thread->UntilBlocked();
        release.Signal();
    }
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(last, 299);
    flush(); // off
}

TEST(Delivery, BeginsWithTheInitFunctionAndEndsWithWhatWasQueued) {
    korsys::TEvent release(false);
    std::string log; // delivery thread only, until Disable has returned
    const auto token = std::make_shared<int>();
    Manager().SetThreadInitFunction([] { FAIL() << "replaced"; });
    Manager().SetThreadInitFunction([&, token] {
        std::array<char, 16> name{};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        log += name.data();
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (const int signal : {SIGTERM, SIGPROF, SIGUSR1, SIGCHLD, SIGSEGV, SIGFPE})
            log += sigismember(&mask, signal) == 1 ? " blocked" : " open";
        release.Wait(forever);
        throw std::runtime_error("dropped");
    });
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            release.Signal(); // Disable has begun
    });
    const auto consumer = Consume(false, [&](const MetricsEvent& event) {
        EXPECT_EQ(token.use_count(), 1) << "the init function is kept";
        log += ' ' + std::to_string(event.param1.integer);
    });
    Manager().SetThreadInitFunction([] { FAIL() << "too late"; });
    Send(1);
    Send(2);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(log, "metrics blocked blocked blocked blocked open open 1 2");

    Manager().Enable(); // off is for good
    Manager().SetBitsAbsolute(everyBit);
    EXPECT_EQ(Manager().SetBits(everyBit) + Send(3)->timestamp + Context::Create(true), 0u);
    EXPECT_FALSE(Manager().AddConsumer(consumer, everyBit, false));
    EXPECT_FALSE(Manager().RemoveConsumer(consumer));
    EXPECT_FALSE(Manager().Disable());
}

TEST(Delivery, FirstUsersThatRaceShareOneInstance) {
    // A process for each round, since the first use comes only once. A second instance starts a
    // second delivery thread, or one without the init function that was set before.
    for (int round = 0; round < 300; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            std::atomic<int> missing{2}, started{0};
            {
                const auto use = [&] {
                    for (--missing; missing != 0;) {}
                    Manager().SetThreadInitFunction([&started] { ++started; });
                    Manager().Enable();
                };
                const Thread first(use), second(use);
            }
            const bool isDisabled = Manager().Disable();
            _exit(isDisabled && started == 1 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0) << "in round " << round;
    }
}

} // namespace Metrics::Testing
