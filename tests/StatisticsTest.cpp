#include "support/HeldStream.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Metrics::test {

TEST(Statistics, CountWhatEachConsumerWasCalledFor) {
    const Session session;
    const auto waitsAt = [](std::int64_t number) {
        return [number](const MetricsEvent& event) {
            if (event.param1.integer == number)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (event.param1.integer == 3)
                throw std::runtime_error("refused");
        };
    };
    constexpr std::uint32_t limit = 4295; // ms, which are more ns than 32 bits hold
    Register(true, {"first", 0, limit}, waitsAt(1));
    Register(true, {"second", 0, limit}, waitsAt(2));
    Register(false, {"third", 0, limit}, waitsAt(2));
    Consume(false, [](const MetricsEvent&) {});
    constexpr std::uint64_t threads = 4, each = 250;
    {
        std::vector<std::jthread> emitters;
        for (std::uint64_t i = 0; i < threads; ++i)
            emitters.emplace_back([] {
                for (std::uint64_t n = 0; n < each; ++n)
                    AttributeImpl(0, n, 0);
            });
    }
    for (const int number : {1, 2})
        AttributeImpl(number, 0, 0);
    EXPECT_THROW(AttributeImpl(3, 0, 0), std::runtime_error);
    Flush();
    const std::vector<MetricsConsumerStatistics> all = Statistics().consumers;
    ASSERT_EQ(all.size(), 4u);
    const char* const names[] = {"first", "second", "third", "Metrics::test::Listener"};
    const std::uint64_t calls[] = {threads * each + 3, threads * each + 2, threads * each + 2,
                                   threads * each + 2};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(all[i].name, names[i]);
        EXPECT_EQ(all[i].synchronous, i < 2);
        EXPECT_EQ(all[i].bits, everyBit);
        EXPECT_EQ(all[i].calls, calls[i]) << i;
        EXPECT_EQ(all[i].exceptions, i == 0 ? 1u : 0u) << i;
        EXPECT_FALSE(all[i].setAside);
        EXPECT_GE(all[i].totalNanoseconds, all[i].longestNanoseconds);
        // It has waited. What neighbours took is not known exactly.
        EXPECT_TRUE(i == 3 || all[i].longestNanoseconds > 19'900'000) << i;
    }
    // None is charged for another one's time: together they have waited three times.
    EXPECT_GE(all[0].totalNanoseconds + all[1].totalNanoseconds, 40'000'000u);
}

TEST(Statistics, CountTheBytesOfALongTextWhereverItStands) {
    HeldStream stream;
    const Session session;
    constexpr std::uint64_t length = 10000;
    const auto text = [] { return MetricsValue(std::string(length, 'x')); };
    const std::function<void()> ways[] = {[&] { AttributeImpl(text(), 1, 0); },
                                          [&] { AttributeImpl(1, text(), 0); },
                                          [&] { Send(text(), 1); }, [&] { Send(1, text()); }};
    for (std::size_t i = 0; i < std::size(ways); ++i) {
        const std::uint64_t before = Statistics().queuedBytes;
        ways[i]();
        EXPECT_GE(Statistics().queuedBytes - before, length) << i;
        EXPECT_LT(Statistics().queuedBytes - before, 2 * length) << i;
    }
    stream.Take();
    EXPECT_EQ(Statistics().queuedBytes, 0u);
}

TEST(Statistics, CountForAsManySynchronousConsumersAsThereAre) {
    const Session session;
    constexpr int consumers = 12; // more than each thread has places for
    std::vector<MetricsListenerPtr> listeners;
    listeners.reserve(consumers);
    const auto throws = [](const MetricsEvent& event) {
        if (event.param1.integer == -1)
            throw std::runtime_error("refused");
    };
    for (int i = 0; i < consumers; ++i)
        listeners.push_back(Register(true, {std::to_string(i), 0, 0}, throws));
    const auto emit = [](int count) {
        std::jthread other([count] {
            for (int n = 0; n < count; ++n)
                AttributeImpl(n, 0, 0);
        });
        for (int n = 0; n < count; ++n)
            AttributeImpl(n, 0, 0);
    };
    emit(100);
    EXPECT_THROW(AttributeImpl(-1, 0, 0), std::runtime_error); // of the first one
    EXPECT_EQ(Describe("0").exceptions, 1u);
    // A place that has become free goes to the next one, whose counts begin anew.
    for (const int i : {0, 5, 11}) {
        EXPECT_TRUE(Manager().RemoveConsumer(listeners[static_cast<std::size_t>(i)]));
        Register(true, {"new " + std::to_string(i), 0, 0}, [](const MetricsEvent&) {});
    }
    emit(10);
    EXPECT_EQ(Statistics().consumers.size(), std::size_t(consumers));
    EXPECT_EQ(Describe("0").name, "");
    for (const char* const name : {"new 0", "new 5", "new 11"}) {
        EXPECT_EQ(Describe(name).calls, 20u) << name;
        EXPECT_EQ(Describe(name).exceptions, 0u) << name;
    }
    for (const char* const name : {"1", "4", "7", "8", "10"})
        EXPECT_EQ(Describe(name).calls, 220u) << name;
}

TEST(Statistics, SetAsideWhoThrowsTooOftenInARow) {
    const Session session;
    for (const bool synchronous : {true, false}) {
        const std::string name = synchronous ? "synchronous" : "asynchronous";
        std::atomic<int> calls{0};
        const auto consumer = Register(synchronous, {name, 3, 0}, [&](const MetricsEvent& event) {
            ++calls;
            if (event.param1.integer == 1)
                throw std::runtime_error("refused");
        });
        for (const int number : {1, 1, 0, 1, 1, 0, 1, 1, 1, 1, 0, 1})
            try {
                AttributeImpl(number, 0, 0);
            } catch (const std::runtime_error&) {
                EXPECT_TRUE(synchronous);
            }
        Flush();
        EXPECT_EQ(calls, 9) << name;
        EXPECT_EQ(Describe(name).calls, 9u);
        EXPECT_EQ(Describe(name).exceptions, 7u);
        EXPECT_TRUE(Describe(name).setAside);
        EXPECT_TRUE(Manager().RemoveConsumer(consumer)) << "it is registered still";
    }
}

TEST(Statistics, AreThereAtAnyTime) {
    const MetricsStatistics idle = Statistics();
    EXPECT_EQ(idle.accepted + idle.threads + idle.peakQueuedBytes + idle.oldestNanoseconds, 0u);
    EXPECT_TRUE(idle.consumers.empty());
    std::atomic<std::uint64_t> emitted{0}, reads{0};
    Register(false, {"counts", 0, 0}, [](const MetricsEvent&) {});
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&emitted](const std::stop_token& isOver) {
                for (int n = 1; !isOver.stop_requested(); ++n) {
                    AttributeImpl(n, 0, 0);
                    ++emitted;
                    if (n % 64 == 0)
                        Manager().WaitUntilWritesFlushed(100);
                }
            });
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&](const std::stop_token& isOver) {
                MetricsStatistics last;
                while (!isOver.stop_requested()) {
                    const std::uint64_t before = emitted;
                    const MetricsStatistics now = Statistics();
                    EXPECT_GE(now.accepted, before); // nothing that was there is missing
                    EXPECT_GE(now.delivered, last.delivered);
                    EXPECT_GE(now.peakQueuedBytes, last.peakQueuedBytes);
                    EXPECT_EQ(now.accepted, now.delivered + now.queued);
                    last = now;
                    ++reads;
                }
            });
        for (int i = 0; i < Repetitions(100); ++i) { // consumers come and go meanwhile
            const bool synchronous = i % 2 == 0;
            const auto other = Register(synchronous, {"other", 0, 0}, [](const MetricsEvent&) {});
            EXPECT_TRUE(Manager().RemoveConsumer(other));
        }
        EXPECT_TRUE(Poll([&] { return reads > 200 && emitted > 1000; }));
        EXPECT_GE(Statistics().threads, 1u);
    }
    EXPECT_TRUE(Manager().Disable());
    const MetricsStatistics over = Statistics();
    AttributeImpl(0, 0, 0);
    EXPECT_EQ(over.accepted, emitted);
    EXPECT_EQ(over.delivered, emitted);
    EXPECT_EQ(Statistics().accepted, emitted);
    EXPECT_EQ(Describe("counts").calls, emitted);
    EXPECT_EQ(Manager().Shutdown(forever).statistics.accepted, emitted) << "off already";
}

TEST(Statistics, AreEmptyInAForkedChild) {
    const Session session;
    Consume(false, [](const MetricsEvent&) {});
    AttributeImpl(0, 0, 0);
    Flush();
    const Ended ended = RunChild([]() -> int {
        const MetricsStatistics now = Statistics();
        VERIFY(now.accepted + now.delivered + now.threads == 0);
        VERIFY(now.consumers.empty());
        const MetricsShutdownReport report = Manager().Shutdown(forever);
        VERIFY(!report.ended);
        VERIFY(report.stuckConsumer == "");
        Manager().SetQueueLimit(1, MetricsQueuePolicy::DropOldest);
        Manager().SetErrorHandler([](const MetricsError&) {});
        _exit(0);
    });
    EXPECT_EQ(ended.status, 0) << ended.output;
    EXPECT_EQ(Statistics().accepted, 1u);
}

// The end --------------------------------------------------------------------------------------

TEST(SecondThread, GoesOnBehindWhoIsStuckInOrderAndWithNothingTwice) {
    constexpr std::int64_t events = 200;
    std::atomic<bool> isFree{false};
    std::atomic<int> back{0};
    std::array<Numbers, 3> seen;
    std::array<std::vector<pid_t>, 3> threads;
    const auto witness = [&](std::size_t number) {
        return [&, number](const MetricsEvent& event) {
            seen.at(number).push_back(event.param1.integer);
            threads.at(number).push_back(gettid());
            EXPECT_EQ(*event.param2.text, "as it was");
        };
    };
    // Two of them in the same event, and the third one later.
    const auto stuckAt = [&](const std::string& name, std::int64_t number) {
        Register(false, {name, 0, 20}, [&, number](const MetricsEvent& event) {
            if (event.param1.integer == number) {
                isFree.wait(false);
                EXPECT_EQ(*event.param2.text, "as it was") << "freed under the one who is stuck";
                ++back;
            }
        });
    };
    Register(false, {"first", 0, 0}, witness(0));
    stuckAt("a", 10);
    Register(false, {"second", 0, 0}, witness(1));
    stuckAt("b", 10);
    stuckAt("c", 150);
    const auto last = Register(false, {"third", 0, 0}, witness(2));

    for (std::int64_t i = 0; i < events; ++i)
        Send(i, "as it was");
    Flush();
    EXPECT_EQ(back, 0);
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen.at(i), From(0, events)) << i;
    EXPECT_NE(threads[0].front(), threads[0].back());
    EXPECT_NE(threads[1].at(10), threads[2].at(10)) << "within one event";
    for (const char* name : {"a", "b", "c"})
        EXPECT_TRUE(Describe(name).setAside) << name;
    EXPECT_FALSE(Describe("third").setAside);
    EXPECT_TRUE(Manager().RemoveConsumer(last)) << "which waits for none of them";

    const MetricsShutdownReport report = Manager().Shutdown(forever);
    EXPECT_TRUE(report.ended);
    EXPECT_EQ(report.statistics.delivered, std::uint64_t{events});
    EXPECT_EQ(back, 0);
    isFree = true;
    isFree.notify_all();
    EXPECT_TRUE(Poll([&] { return back == 3; }));
}

TEST(SecondThread, DoesNotStepInWhereManyShortCallsTakeLong) {
    const Session session;
    std::vector<pid_t> threads;
    Register(false, {"short", 0, 200}, [&](const MetricsEvent&) {
        threads.push_back(gettid());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    for (int i = 0; i < 100; ++i)
        Send(0, 0);
    Flush();
    EXPECT_EQ(threads.size(), 100U);
    EXPECT_EQ(std::count(threads.begin(), threads.end(), threads[0]), 100);
    EXPECT_FALSE(Describe("short").setAside);
}

TEST(ShutdownReport, SaysWhatBecameOfEverything) {
    Register(false, {"counts", 0, 0}, [](const MetricsEvent&) {});
    EmitTooMany();
    const MetricsShutdownReport report = Manager().Shutdown(forever);
    EXPECT_TRUE(report.ended);
    EXPECT_EQ(report.statistics.accepted, std::uint64_t(tooMany));
    EXPECT_EQ(report.statistics.delivered, std::uint64_t(tooMany));
    EXPECT_EQ(report.stuckConsumer, "");
    EXPECT_EQ(report.stuckNanoseconds, 0u);
    ASSERT_EQ(report.statistics.consumers.size(), 1u);
    EXPECT_EQ(report.statistics.consumers[0].name, "counts");
    EXPECT_EQ(report.statistics.consumers[0].calls, std::uint64_t(tooMany));
    EXPECT_TRUE(IsInert());
}

TEST(ShutdownReport, ComesToEverybodyAtTheEnd) {
    HeldStream stream;
    std::array<std::atomic<pid_t>, 2> ids{};
    std::vector<std::jthread> callers;
    for (auto& id : ids)
        callers.emplace_back([&id] {
            id = gettid();
            EXPECT_TRUE(Manager().Shutdown(forever).ended);
        });
    for (const auto& id : ids)
        EXPECT_TRUE(Poll([&id] { return id != 0 && IsAsleep(id); }));
    stream.Release();
}

TEST(ShutdownReport, CountsWhatASynchronousConsumerHeldUntilTheEnd) {
    korsys::TEvent entered(false), release(false);
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Shutdown)
            return;
        entered.Signal();
        release.Wait(forever);
    });
    std::jthread emitter([] { AttributeImpl(0, 0, 0); });
    EXPECT_TRUE(entered.Wait(forever));
    EXPECT_FALSE(Manager().Shutdown(0).ended) << "it waits for the call";
    release.Signal();
    emitter.join();
    MetricsShutdownReport report;
    EXPECT_TRUE(Poll([&] { return (report = Manager().Shutdown(0)).ended; }));
    EXPECT_EQ(report.statistics.lostToShutdown, 1u);
    EXPECT_EQ(report.statistics.accepted, 1u);
}

TEST(ShutdownReport, CountsWhatCameBehindAnEventThatEndsTheLibrary) {
    HeldStream stream; // one event
    AttributeImpl(1, 0, 0);
    Send(0, 0, 0, MetricsEventType::Shutdown);
    AttributeImpl(2, 0, 0);
    stream.Release();
    MetricsShutdownReport report;
    EXPECT_TRUE(Poll([&] { return (report = Manager().Shutdown(0)).ended; }));
    EXPECT_EQ(report.statistics.delivered, 2u);
    EXPECT_EQ(report.statistics.lostToShutdown, 1u);
    EXPECT_EQ(report.statistics.accepted, 3u);
}

TEST(ShutdownReport, NamesWhoIsStuck) {
    const auto stream = std::make_unique<HeldStream>("stuck");
    EmitTooMany();
    const auto start = Clock::now();
    MetricsShutdownReport report = Manager().Shutdown(100);
    EXPECT_GE(SecondsSince(start), 0.1);
    EXPECT_FALSE(report.ended);
    EXPECT_EQ(report.stuckConsumer, "stuck");
    EXPECT_GE(report.stuckNanoseconds, 100'000'000u);
    EXPECT_LT(static_cast<double>(report.stuckNanoseconds) / 1e9, SecondsSince(start) + 20);
    EXPECT_EQ(report.statistics.accepted, std::uint64_t(tooMany) + 1);
    EXPECT_EQ(report.statistics.queued, std::uint64_t(tooMany));
    EXPECT_FALSE(Manager().Shutdown(0).ended);
    stream->Release();
    EXPECT_TRUE(Poll([&] { return (report = Manager().Shutdown(0)).ended; }));
    EXPECT_EQ(report.statistics.delivered, std::uint64_t(tooMany) + 1);
    EXPECT_EQ(report.stuckConsumer, "");
}

TEST(ShutdownReport, OfALibraryThatIsNotOnComesAtOnce) {
    const auto start = Clock::now();
    const MetricsShutdownReport report = Manager().Shutdown(forever);
    EXPECT_LT(SecondsSince(start), forever / 2000.0);
    EXPECT_FALSE(report.ended);
    EXPECT_EQ(report.statistics.accepted, 0u);
    EXPECT_TRUE(IsInert());
}

} // namespace Metrics::test
