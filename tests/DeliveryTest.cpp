#include "support/Exercise.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Metrics::test {

/// Both ways of an event: one of the application's, and one that the library builds.
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

/// Holds the delivery thread inside of a consumer call.
class HeldDelivery {
public:
    /// Emits an event, and returns when the delivery stands in it.
    HeldDelivery() {
        m_listener = Consume(false, [this](const MetricsEvent&) {
            m_entered.Signal();
            m_release.Wait(forever);
        });
        Send(0);
        EXPECT_TRUE(m_entered.Wait(forever));
    }
    void Release() { m_release.Signal(); }
    bool Remove() { return Manager().RemoveConsumer(m_listener); }

private:
    korsys::TEvent m_entered{false}, m_release{false};
    MetricsListenerPtr m_listener;
};

/// A thread that calls something; made when it sleeps in there.
class SleepingThread {
public:
    template <class Body>
    explicit SleepingThread(Body body)
        : m_thread([this, body] {
              m_id = gettid();
              body();
              m_id = -1;
          }) {
        EXPECT_TRUE(Poll([this] { return m_id < 0 || (m_id != 0 && IsAsleep(m_id)); }));
        EXPECT_NE(m_id, -1) << "has not waited";
    }

private:
    std::atomic<pid_t> m_id{0};
    std::jthread m_thread;
};

TEST(Delivery, FlushWaitsForWhatWasQueuedBeforeIt) {
    std::atomic<std::int64_t> last{-1};
    std::optional<HeldDelivery> held;
    const Session session;
    Consume(false, [&last](const MetricsEvent& event) { last = event.param1.integer; });
    for (int i = 1; i <= 5 && !HasFailure(); ++i) {
        held.emplace();
        Send(i); // behind the batch that is being delivered
        {
            const auto flush = [&last, i] {
                const auto start = Clock::now();
                Flush();
                EXPECT_EQ(last, i);
                EXPECT_LT(SecondsSince(start), forever / 2000.0) << "was not told";
            };
            const SleepingThread first(flush), second(flush), third(flush);
            held->Release();
        }
        EXPECT_TRUE(held->Remove());
    }
}

TEST(Delivery, FlushGivesUpAtItsTimeOut) {
    HeldDelivery held;
    for (const unsigned int milliseconds : {0u, 1u, 300u}) {
        const auto start = Clock::now();
        Manager().WaitUntilWritesFlushed(milliseconds);
        EXPECT_GE(SecondsSince(start), milliseconds / 1000.0);
        EXPECT_LT(SecondsSince(start), milliseconds / 1000.0 + 5);
    }
    held.Release();
    EXPECT_TRUE(Manager().Disable());
    const auto start = Clock::now();
    Flush();
    EXPECT_LT(SecondsSince(start), forever / 2000.0) << "it is off";
}

TEST(Delivery, RemovalWaitsForTheCallInProgress) {
    HeldDelivery held;
    std::atomic<bool> released{false};
    {
        const SleepingThread remover([&] {
            EXPECT_TRUE(held.Remove());
            EXPECT_TRUE(released) << "removed during a call";
        });
        released = true;
        held.Release();
    }
    EXPECT_TRUE(Manager().Disable());
}

/// But for no more than that: not for the rest of the batch.
TEST(Delivery, RemovalReturnsBetweenTwoCalls) {
    korsys::TEvent begins(false), entered(false), goesOn(false);
    std::atomic<bool> isRemoved{false};
    int calls = 0;
    Manager().SetThreadInitFunction([&begins] { begins.Wait(forever); });
    const auto removed = Consume(false, [](const MetricsEvent&) {});
    Consume(false, [&](const MetricsEvent&) {
        if (++calls == 1) {
            entered.Signal();
            goesOn.Wait(forever);
        } else {
            EXPECT_TRUE(Poll([&isRemoved] { return isRemoved.load(); }));
        }
    });
    AttributeImpl(1, 2, 0); // nothing of the application's is let go of in between
    AttributeImpl(3, 4, 0);
    begins.Signal();
    EXPECT_TRUE(entered.Wait(forever));
    {
        const SleepingThread remover([&] {
            EXPECT_TRUE(Manager().RemoveConsumer(removed));
            isRemoved = true;
        });
        goesOn.Signal();
    }
    Flush();
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(calls, 2);
}

TEST(Delivery, EndsAtTheApplicationsOwnShutdown) {
    korsys::TEvent release(false);
    std::vector<std::int64_t> delivered;
    Manager().SetThreadInitFunction([&release] { release.Wait(forever); });
    const auto consumer = Consume(false, [&delivered](const MetricsEvent& event) {
        EXPECT_NE(event.eventType, MetricsEventType::Shutdown);
        delivered.push_back(event.param1.integer);
    });
    const auto flush = [] {
        const auto start = Clock::now();
        Flush();
        EXPECT_LT(SecondsSince(start), forever / 2000.0) << "never signalled";
    };
    Context context(0, 1);
    std::weak_ptr<MetricsEvent> behind;
    {
        Send(1);
        Send(2);
        const SleepingThread before(flush);
        Send(3, 0, MetricsBits::act, MetricsEventType::Shutdown);
        const SleepingThread late(flush), another(flush); // in the Shutdown's own batch
        behind = Send(4);
        release.Signal();
    }
    flush();
    EXPECT_TRUE(Poll([] { return !TestBits(0); })) << "the mask is 0";
    EXPECT_FALSE(TestBitsAndContext(0));
    EXPECT_FALSE(Manager().AddConsumer(consumer, everyBit, true));
    EXPECT_FALSE(Manager().AddConsumer(consumer, everyBit, false));
    EXPECT_FALSE(Manager().RemoveConsumer(consumer)) << "it was released";
    Manager().SetBits(everyBit);
    EXPECT_EQ(Send(5)->timestamp, 0u);
    context.Emit("late");
    Manager().Enable();
    EXPECT_FALSE(Manager().AddConsumer(consumer, everyBit, false));
    Manager().Disable();
    EXPECT_TRUE(behind.expired()) << "what is not delivered is let go of";
    EXPECT_EQ(delivered, (std::vector<std::int64_t>{0, 1, 2})) << "0: the opened context";
}

/// What synchronous consumers take for the Shutdown event is not taken from the delivery, and what
/// they emit is delivered.
TEST(Delivery, GivesTheConsumersOfTheShutdownTheirTime) {
    std::vector<std::int64_t> delivered;
    int shutdowns = 0;
    Consume(true, [&shutdowns](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::Shutdown)
            return;
        ++shutdowns;
        EXPECT_EQ(event.bits, 0u);
        EXPECT_NE(event.timestamp, 0u);
        Send(2);
        std::this_thread::sleep_for(std::chrono::milliseconds(1200)); // longer than Disable waits
    });
    Consume(true, [](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            throw std::runtime_error("dropped");
    });
    Consume(false, [&delivered](const MetricsEvent& event) {
        if (delivered.empty()) // takes its own time
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        delivered.push_back(event.param1.integer);
    });
    Send(1);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(shutdowns, 1);
    EXPECT_EQ(delivered, (std::vector<std::int64_t>{1, 2}));
    EXPECT_FALSE(Manager().Disable());
}

TEST(Delivery, HoldsAnyNumberOfEventsBack) {
    constexpr int threads = 4;
    constexpr std::uint64_t perThread = 100000;
    std::array<std::uint64_t, threads> expected{};
    std::uint64_t outOfOrder = 0;
    korsys::TEvent release(false);
    Manager().SetThreadInitFunction([&release] { release.Wait(forever); });
    Consume(false, [&](const MetricsEvent& event) {
        auto& next = expected.at(static_cast<std::size_t>(event.param1.integer));
        outOfOrder += static_cast<std::uint64_t>(event.param2.integer) != next;
        ++next;
    });
    {
        std::vector<std::jthread> emitters;
        for (std::uint64_t thread = 0; thread < threads; ++thread)
            emitters.emplace_back([thread] {
                for (std::uint64_t i = 0; i < perThread; ++i)
                    Emit(thread, i);
            });
    }
    release.Signal();
    Flush();
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(outOfOrder, 0u);
    for (const std::uint64_t count : expected)
        EXPECT_EQ(count, perThread);
}

/// The shortest of several times until an event is delivered: the machine may be busy.
static double SecondsUntilDelivered(bool flushes) {
    std::atomic<bool> isDelivered{false};
    const auto listener = Consume(false, [&isDelivered](const MetricsEvent& event) {
        if (event.bits == MetricsBits::test1)
            isDelivered = true;
    });
    double shortest = forever;
    for (int i = 0; i < 9; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30)); // the thread falls asleep
        isDelivered = false;
        const auto start = Clock::now();
        Send(0, 0, MetricsBits::test1);
        if (flushes)
            Flush();
        EXPECT_TRUE(Poll([&] { return isDelivered.load(); }));
        shortest = std::min(shortest, SecondsSince(start));
    }
    EXPECT_TRUE(Manager().RemoveConsumer(listener));
    return shortest;
}

TEST(Delivery, ComesSoonWhetherIdleOrBusy) {
    const Session session;
    EXPECT_LT(SecondsUntilDelivered(false), 0.15) << "an idle thread looks every 100 ms";
    EXPECT_LT(SecondsUntilDelivered(true), 0.05) << "a flush wakes it";
    std::jthread load([](const std::stop_token& done) {
        for (int i = 0; !done.stop_requested(); ++i) {
            Send(i, 0, MetricsBits::act);
            if (i % 20 == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    EXPECT_LT(SecondsUntilDelivered(false), 0.05) << "a busy one goes on at once";
}

/// The number behind `name` in a file of proc(5) about the delivery thread.
static std::uint64_t DeliveryNumber(const char* file, const std::string& name) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        if (ReadFile(task.path() / "comm") == "metrics\n") {
            const std::string text = ReadFile(task.path() / file);
            return std::stoull(text.substr(text.find(name) + name.size()));
        }
    ADD_FAILURE() << "no such thread";
    return 0;
}

/// Nanoseconds of processor time that the delivery thread has used.
static std::uint64_t DeliveryTime() {
    return DeliveryNumber("schedstat", "");
}

TEST(Delivery, SleepsWhenThereIsNothingToDo) {
    const Session session;
    Consume(true, [](const MetricsEvent&) {});
    Consume(false, [](const MetricsEvent&) {});
    for (const int events : {0, 1, 100000}) {
        for (int i = 0; i < events; ++i)
            Send(i);
        Flush(); // also wakes it
        Flush();
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // memory is given back
        const std::uint64_t before = DeliveryTime();
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        EXPECT_LT(DeliveryTime() - before, 70'000'000u) << "a tenth of the time, at " << events;
    }
}

TEST(Delivery, LooksSeldomWhereLittleHappens) {
    const Session session;
    Consume(false, [](const MetricsEvent&) {});
    Flush();
    const char* const sleeps = "\nvoluntary_ctxt_switches:";
    const std::uint64_t before = DeliveryNumber("status", sleeps);
    const auto start = Clock::now();
    while (SecondsSince(start) < 0.75) {
        Send(0);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    // One long pause, and one in which more might have come, by turns.
    EXPECT_LT(static_cast<double>(DeliveryNumber("status", sleeps) - before),
              SecondsSince(start) * 30);
}

TEST(Delivery, BeginsWithTheInitFunctionAndEndsWithWhatWasQueued) {
    korsys::TEvent release(false);
    std::string log; // delivery thread only, until Disable has returned
    const auto token = std::make_shared<int>();
    Manager().SetThreadInitFunction([token, &log] { log += "replaced"; });
    Manager().SetThreadInitFunction([&, token] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (const int signal : {SIGTERM, SIGPROF, SIGCHLD})
            EXPECT_EQ(sigismember(&mask, signal), 1) << signal;
        for (const int signal : {SIGSEGV, SIGFPE, SIGBUS, SIGILL, SIGTRAP, SIGABRT})
            EXPECT_EQ(sigismember(&mask, signal), 0) << signal;
        log += "init";
        release.Wait(forever);
        throw std::runtime_error("dropped");
    });
    EXPECT_EQ(token.use_count(), 2) << "the replaced one is released";
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            release.Signal(); // Disable has begun
    });
    const auto consumer = Consume(false, [&](const MetricsEvent& event) {
        EXPECT_EQ(token.use_count(), 1) << "the init function is released right after";
        log += ' ' + std::to_string(event.param1.integer);
    });
    EXPECT_TRUE(Poll([] { return ThreadsNamed("metrics") == 1; }));
    Manager().Enable(); // nothing more begins
    Manager().SetThreadInitFunction([&log] { log += "too late"; });
    Send(1);
    Send(2);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(log, "init 1 2");

    Manager().Enable(); // off is for good
    EXPECT_EQ(Manager().SetBits(everyBit) + Send(3)->timestamp + Context::Create(true), 0u);
    EXPECT_FALSE(Manager().AddConsumer(consumer, everyBit, false));
    const auto start = Clock::now();
    MetricsManager::ShutdownAndFreeInstance();
    EXPECT_LT(SecondsSince(start), 0.5) << "there is nothing to wait for";
}

TEST(Delivery, LeavesErrnoAloneInAThreadsFirstEmit) {
    Start();
    // A thread that finds the record of one that has ended asks the kernel about it.
    for (int i = 0; i < 5; ++i)
        std::thread([] {
            errno = EXDEV;
            Send(1);
            EXPECT_EQ(errno, EXDEV);
            const Context context(0, Context::Create(true));
            EXPECT_EQ(errno, EXDEV);
        }).join();
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
