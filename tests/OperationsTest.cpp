#include "support/Exercise.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <latch>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

namespace Metrics::test {

using Reason = MetricsError::Reason;
using Numbers = std::vector<std::int64_t>;

static MetricsStatistics Statistics() {
    return Manager().GetStatistics();
}

/// The consumer of this name, as the statistics describe it; empty when there is none.
static MetricsConsumerStatistics Describe(const std::string& name) {
    for (const MetricsConsumerStatistics& consumer : Statistics().consumers)
        if (consumer.name == name)
            return consumer;
    return {};
}

static MetricsListenerPtr Register(bool synchronous, const MetricsConsumerOptions& options,
                                   Handle handle) {
    const auto listener = MakeListener(std::move(handle));
    EXPECT_TRUE(Start().AddConsumer(listener, everyBit, synchronous, options));
    return listener;
}

static bool IsNotice(const MetricsEvent& event) {
    return event.eventType == MetricsEventType::Custom && event.param1.text != nullptr &&
           *event.param1.text == "lost" && event.bits == 0 && event.contextId == 0 &&
           event.sourceId == 0;
}

/// Holds the delivery inside of its first event, number -1, and notes what comes behind: each
/// event's number, and -1000 less the number of a notice.
class HeldStream {
public:
    explicit HeldStream(const std::string& name = "") {
        Register(false, {name, 0, 0}, [this](const MetricsEvent& event) {
            if (event.param1.integer == -1) {
                m_entered.Signal();
                m_release.Wait(forever);
                return;
            }
            m_numbers.push_back(IsNotice(event) ? -1000 - event.param2.integer
                                                : event.param1.integer);
            m_ordered = m_ordered && event.timestamp >= std::exchange(m_last, event.timestamp) &&
                        event.unixSeconds + 3600 >= std::exchange(m_lastSecond, event.unixSeconds);
        });
        Hold();
    }
    void Hold() {
        m_entered.Reset();
        m_release.Reset();
        AttributeImpl(-1, 0, 0);
        EXPECT_TRUE(m_entered.Wait(20'000));
    }
    void Release() { m_release.Signal(); }
    Numbers Take() {
        Release();
        Flush();
        EXPECT_TRUE(m_ordered) << "a notice is not in its place";
        return std::exchange(m_numbers, {});
    }

private:
    korsys::TEvent m_entered{false}, m_release{false};
    Numbers m_numbers;
    std::uint64_t m_last = 0, m_lastSecond = 0; // which a clock that is set may take back
    bool m_ordered = true;
};

constexpr std::int64_t tooMany = 1000;

static void EmitTooMany() {
    for (std::int64_t i = 0; i < tooMany; ++i)
        AttributeImpl(i, 0, 0);
}

static Numbers From(std::int64_t first, std::int64_t end) {
    Numbers numbers;
    for (; first < end; ++first)
        numbers.push_back(first);
    return numbers;
}

// The bound ------------------------------------------------------------------------------------

TEST(QueueLimit, DropsTheNewestAndSaysSoInTheirPlace) {
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    HeldStream stream;
    const Session session;
    EmitTooMany();
    const MetricsStatistics full = Statistics();
    EXPECT_GT(full.queued, 150u);
    EXPECT_EQ(full.accepted, std::uint64_t(tooMany) + 1);
    EXPECT_EQ(full.queued + full.lostToLimit, std::uint64_t(tooMany));
    EXPECT_GT(full.queuedBytes, 16384u * 9 / 10);
    EXPECT_GT(full.oldestNanoseconds, 0u);
    const auto kept = static_cast<std::int64_t>(full.queued);
    Numbers expected = From(0, kept);
    expected.push_back(-1000 - (tooMany - kept));
    EXPECT_EQ(stream.Take(), expected);
    EXPECT_EQ(Statistics().delivered, full.queued + 1) << "a notice is no event";

    AttributeImpl(5, 0, 0); // there is room again
    EXPECT_EQ(stream.Take(), Numbers{5});
    EXPECT_EQ(Statistics().queuedBytes, 0u);
    EXPECT_LE(Statistics().peakQueuedBytes, 16384u * 105 / 100);
}

TEST(QueueLimit, DropsTheOldest) {
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropOldest);
    HeldStream stream;
    const Session session;
    EmitTooMany();
    const MetricsStatistics full = Statistics();
    EXPECT_GT(full.queued, 150u);
    EXPECT_EQ(full.queued + full.lostToLimit, std::uint64_t(tooMany));
    Numbers expected = From(tooMany - static_cast<std::int64_t>(full.queued), tooMany);
    expected.insert(expected.begin(), -1000 - static_cast<std::int64_t>(full.lostToLimit));
    EXPECT_EQ(stream.Take(), expected);
    EXPECT_LE(Statistics().peakQueuedBytes, 16384u * 105 / 100);
}

/// What a dropped event holds goes on the emitting thread, where it may emit into the same queue.
TEST(QueueLimit, DropsWhatEmitsWhenItGoes) {
    std::atomic<std::uint64_t> emitted{1};
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropOldest);
    HeldStream stream;
    const Session session;
    for (std::int64_t i = 0; i < tooMany; ++i) {
        MetricsValue value(i);
        value.extra = std::shared_ptr<const void>(&emitted, [&emitted](const void*) {
            AttributeImpl(1, 0, 0);
            ++emitted;
        });
        AttributeImpl(std::move(value), 0, 0);
        ++emitted;
    }
    const MetricsStatistics full = Statistics();
    EXPECT_GT(full.lostToLimit, 0u);
    EXPECT_EQ(full.accepted, emitted);
    stream.Release();
    EXPECT_TRUE(Poll([] { return Statistics().queued == 0; }));
    Flush(); // what the last ones have emitted
    EXPECT_EQ(Statistics().accepted, 2 * std::uint64_t(tooMany) + 1);
    EXPECT_LE(Statistics().peakQueuedBytes, 16384u * 105 / 100);
}

TEST(QueueLimit, WaitsForAsLongAsItWasTold) {
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::Wait, 50);
    HeldStream stream;
    const Session session;
    auto start = Clock::now();
    std::uint64_t kept = 0;
    double longest = 0;
    for (; Statistics().lostToLimit == 0; ++kept) {
        start = Clock::now();
        AttributeImpl(0, 0, 0);
        longest = std::max(longest, SecondsSince(start));
    }
    EXPECT_GT(kept, 150u);
    EXPECT_GE(SecondsSince(start), 0.05);
    EXPECT_LT(longest, 5);
    // Whoever waits goes on when there is room.
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::Wait, forever);
    std::atomic<bool> isBack{false};
    std::atomic<pid_t> id{0};
    std::jthread waiting([&] {
        id = gettid();
        AttributeImpl(7, 0, 0);
        isBack = true;
    });
    EXPECT_TRUE(Poll([&] { return id != 0 && IsAsleep(id); }));
    EXPECT_FALSE(isBack);
    stream.Release();
    EXPECT_TRUE(Poll([&] { return isBack.load(); }));
    EXPECT_EQ(stream.Take().back(), 7);
    EXPECT_EQ(Statistics().lostToLimit, 1u);
}

TEST(QueueLimit, LosesNothingWhereEmittersWaitForAFastConsumer) {
    constexpr std::uint64_t events = 20000;
    std::atomic<std::uint64_t> delivered{0};
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::Wait, forever);
    const Session session;
    Consume(false, [&](const MetricsEvent&) { ++delivered; });
    {
        std::vector<std::jthread> emitters;
        for (int i = 0; i < 4; ++i)
            emitters.emplace_back([] {
                for (std::uint64_t n = 0; n < events / 4; ++n)
                    AttributeImpl(n, 0, 0);
            });
    }
    Flush();
    EXPECT_EQ(delivered, events);
    EXPECT_EQ(Statistics().lostToLimit, 0u);
    EXPECT_LE(Statistics().peakQueuedBytes, 16384u * 105 / 100);
}

TEST(QueueLimit, HoldsNobodyBeyondTheEnd) {
    HeldStream stream;
    Manager().SetQueueLimit(4096, MetricsQueuePolicy::Wait, forever);
    std::atomic<pid_t> id{0};
    std::atomic<bool> isBack{false};
    std::jthread waiting([&] {
        id = gettid();
        EmitTooMany();
        isBack = true;
    });
    EXPECT_TRUE(Poll([&] { return id != 0 && IsAsleep(id); }));
    EXPECT_FALSE(Manager().Shutdown(0).ended) << "a consumer is held";
    EXPECT_TRUE(Poll([&] { return isBack.load(); }));
    stream.Release();
    EXPECT_TRUE(Poll([] { return Manager().Shutdown(0).ended; }));
}

TEST(QueueLimit, TellsOfNothingAsOlderThanWhatWasDelivered) {
    std::vector<std::uint64_t> stamps;
    std::atomic<int> notices{0};
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    const Session session;
    Consume(false, [&](const MetricsEvent& event) {
        stamps.push_back(event.timestamp);
        if (IsNotice(event)) {
            if (++notices == 1)
                AttributeImpl(-1, 0, 0); // newer than the next gap, which it comes before
        } else if (event.param1.integer == -2) {
            EmitTooMany();
        } else if (event.param1.integer == 0) {
            AttributeImpl(-1, 0, 0); // finds no room: the next gap
        }
    });
    AttributeImpl(-2, 0, 0);
    EXPECT_TRUE(Poll([&] {
        Flush();
        return notices == 2;
    }));
    EXPECT_TRUE(std::is_sorted(stamps.begin(), stamps.end()));
}

/// Before what another thread has emitted since, though more was lost behind that.
TEST(QueueLimit, TellsOfALossWhereItBegan) {
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    HeldStream stream;
    const Session session;
    korsys::TEvent hasRoom{false}, goesOn{false}, hasEmitted{false};
    const std::jthread other([&] {
        AttributeImpl(6, 0, 0);
        hasRoom.Signal();
        goesOn.Wait(forever);
        AttributeImpl(7, 0, 0);
        hasEmitted.Signal();
    });
    EXPECT_TRUE(hasRoom.Wait(forever));
    EmitTooMany();
    goesOn.Signal();
    EXPECT_TRUE(hasEmitted.Wait(forever));
    EmitTooMany();
    const Numbers numbers = stream.Take();
    ASSERT_GT(numbers.size(), 2u);
    EXPECT_EQ(numbers.back(), 7);
    EXPECT_LT(*(numbers.end() - 2), -1000);
}

TEST(QueueLimit, TellsNobodyOfWhatWasLostBeforeHeCame) {
    Manager().SetQueueLimit(4096, MetricsQueuePolicy::DropNewest);
    const Session session;
    while (Statistics().lostToLimit == 0)
        EmitTooMany();
    Flush();
    HeldStream stream;
    EXPECT_EQ(stream.Take(), Numbers{});
}

/// As much fits in as before, whatever came and went: nothing stays charged, or is given back
/// twice.
TEST(QueueLimit, HasAllItsRoomAgain) {
    constexpr std::uint64_t limit = 16384;
    HeldStream stream;
    const Session session;
    const auto release = [&stream] {
        stream.Release();
        Flush();
    };
    const auto room = [&] {
        stream.Hold();
        EmitTooMany();
        const std::uint64_t queued = Statistics().queued;
        release();
        return queued;
    };
    EmitTooMany(); // what waits already is not charged
    for (int i = 0; i < 100; ++i)
        Send(std::string(300, 'x'));
    Manager().SetQueueLimit(limit, MetricsQueuePolicy::DropNewest);
    release();
    const std::uint64_t before = room();
    EXPECT_GT(before, 150u);

    for (int i = 0; i < 100; ++i) // threads that use little of what they were granted
        std::jthread([] { AttributeImpl(0, 0, 0); }).join();
    EXPECT_TRUE(Poll([] {
        Flush();
        return Statistics().threads < 20;
    }));
    EXPECT_GT(room(), before * 9 / 10) << "behind threads";

    // Texts for which there is room, but not for their records: those need another chunk.
    for (std::int64_t fill = 0; fill < 64 && !HasFailure(); ++fill) {
        stream.Hold();
        for (std::int64_t i = 0; i < fill / 2; ++i)
            AttributeImpl(i, 0, 0);
        for (std::size_t length = limit; length > 257; length -= 8)
            if (fill % 2 == 0)
                Send(std::string(length, 'x'));
            else
                AttributeImpl(std::string(length, 'x'), 0, 0);
        release();
    }
    EXPECT_GT(room(), before * 9 / 10) << "behind long texts";

    Manager().SetQueueLimit(limit, MetricsQueuePolicy::DropOldest);
    stream.Hold();
    for (std::int64_t i = 0; i < tooMany; ++i) { // what emits in the middle of making room
        MetricsValue value(i);
        value.extra =
            std::shared_ptr<const void>(&stream, [](const void*) { AttributeImpl(1, 0, 0); });
        AttributeImpl(std::move(value), 0, 0);
    }
    release();
    Flush(); // what the last ones have emitted
    Manager().SetQueueLimit(limit, MetricsQueuePolicy::DropNewest);
    EXPECT_GT(room(), before * 9 / 10) << "behind what emits";
}

/// A consumer that emits must not wait for the delivery, which may wait for the consumer.
TEST(QueueLimit, HoldsNoConsumer) {
    Manager().SetQueueLimit(4096, MetricsQueuePolicy::Wait, forever);
    const Session session;
    const auto emits = [](const MetricsEvent& event) {
        if (event.param2.integer == 1)
            for (int i = 0; i < 200; ++i)
                AttributeImpl(i, 0, 0);
    };
    Consume(true, emits);
    Consume(false, emits);
    const auto start = Clock::now();
    AttributeImpl(0, 1, 0);
    Flush();
    EXPECT_LT(SecondsSince(start), forever / 2000.0);
    EXPECT_GT(Statistics().lostToLimit, 0u);
}

TEST(QueueLimit, BoundsWhatTheProcessTakes) {
    constexpr std::uint64_t limit = 4 << 20;
    for (const auto policy : {MetricsQueuePolicy::DropNewest, MetricsQueuePolicy::DropOldest})
        for (const bool isLong : {false, true}) {
            const auto fill = [=] {
                HeldStream stream;
                const Session session;
                Manager().SetQueueLimit(limit, policy);
                const auto resident = [] {
                    const std::string status = ReadFile("/proc/self/status");
                    return std::strtoull(status.c_str() + status.find("RssAnon:") + 8, nullptr, 10);
                };
                std::vector<std::jthread> emitters;
                constexpr int threads = 100;
                std::latch begin(threads), done(threads), end(1);
                std::atomic<unsigned long long> before{0};
                const std::string text(isLong ? 20000 : 100, 'x');
                for (int i = 0; i < threads; ++i)
                    emitters.emplace_back([&] {
                        Context context(0, Context::Create(true));
                        context.OpenScope();
                        context.DetachFromThread(); // and nothing more of it
                        begin.arrive_and_wait();
                        const ContextGuard guard(context);
                        for (int n = 0; n < (isLong ? 20 : 1000); ++n)
                            Attribute("text", text);
                        done.count_down();
                        end.wait();
                    });
                begin.wait();
                before = resident();
                done.wait();
                const auto grown = (resident() - before) << 10;
                const MetricsStatistics full = Statistics();
                VERIFY(full.lostToLimit > 0);
                VERIFY(full.queuedBytes <= limit * 105 / 100);
                VERIFY(full.queuedBytes > limit * 8 / 10);
                // Stacks and heaps of the threads come on top; unbounded it would be ten times it.
                VERIFY(!sanitizer.empty() || grown < 2 * limit);
                end.count_down();
                stream.Release();
                emitters.clear();
                return 0;
            };
            const Ended ended = RunChild(fill);
            EXPECT_EQ(ended.status, 0) << static_cast<int>(policy) << isLong << ended.output;
        }
}

TEST(QueueLimit, IsNotUsedUpByThreadsThatEmitLittle) {
    constexpr std::uint64_t limit = 65536;
    constexpr int threads = 30;
    HeldStream stream;
    const Session session;
    std::latch areKnown(threads + 1), isBounded(1), haveEmitted(threads + 1), isOver(1);
    std::vector<std::thread> quiet;
    for (int i = 0; i < threads; ++i)
        quiet.emplace_back([&] {
            Manager().GetThreadContext();
            areKnown.arrive_and_wait();
            isBounded.wait();
            AttributeImpl(0, 0, 0);
            haveEmitted.arrive_and_wait();
            isOver.wait();
        });
    areKnown.arrive_and_wait();
    Manager().SetQueueLimit(limit, MetricsQueuePolicy::DropNewest);
    isBounded.count_down();
    haveEmitted.arrive_and_wait();
    while (Statistics().lostToLimit == 0)
        AttributeImpl(0, 0, 0);
    EXPECT_GT(Statistics().queuedBytes, limit * 8 / 10);
    isOver.count_down();
    stream.Release();
    for (std::thread& thread : quiet)
        thread.join();
}

TEST(QueueLimit, IsNotUsedUpByWhatNobodyHears) {
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    const Session session;
    std::latch isOver(1);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 30; ++i) {
        korsys::TEvent hasEmitted{false};
        threads.emplace_back([&] {
            for (int n = 0; n < 20; ++n)
                AttributeImpl(n, 0, 0);
            hasEmitted.Signal();
            isOver.wait(); // and keeps its queue
        });
        EXPECT_TRUE(hasEmitted.Wait(forever));
        Flush();
    }
    EXPECT_EQ(Statistics().lostToLimit, 0u);
    isOver.count_down();
}

TEST(QueueLimit, IsTakenOffAgain) {
    Manager().SetQueueLimit(4096, MetricsQueuePolicy::DropNewest);
    HeldStream stream;
    const Session session;
    EmitTooMany();
    const std::uint64_t lost = Statistics().lostToLimit;
    EXPECT_GT(lost, 0u);
    Manager().SetQueueLimit(0, MetricsQueuePolicy::DropNewest);
    EmitTooMany();
    EXPECT_EQ(Statistics().lostToLimit, lost);
    EXPECT_EQ(stream.Take().size(), 2 * tooMany - lost + 1);
    EXPECT_EQ(Statistics().queuedBytes, 0u);
    Manager().SetQueueLimit(65536, MetricsQueuePolicy::DropOldest);
    EmitTooMany();
    Flush();
    Manager().SetQueueLimit(65536, MetricsQueuePolicy::DropNewest);
    EmitTooMany();
    Flush();
    const MetricsStatistics now = Statistics();
    EXPECT_EQ(now.accepted, 4 * std::uint64_t(tooMany) + 1);
    EXPECT_EQ(now.delivered + now.lostToLimit, now.accepted);
    EXPECT_EQ(now.queuedBytes, 0u);
}

// The consumers' figures -----------------------------------------------------------------------

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
    Register(true, {"first", 0, 0}, waitsAt(1));
    Register(true, {"second", 0, 0}, waitsAt(2));
    Register(false, {"third", 0, 0}, waitsAt(2));
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
    for (int i = 0; i < consumers; ++i)
        listeners.push_back(Register(true, {std::to_string(i), 0, 0}, [](const MetricsEvent&) {}));
    const auto emit = [](int count) {
        std::jthread other([count] {
            for (int n = 0; n < count; ++n)
                AttributeImpl(n, 0, 0);
        });
        for (int n = 0; n < count; ++n)
            AttributeImpl(n, 0, 0);
    };
    emit(100);
    // A place that has become free goes to the next one, whose counts begin anew.
    for (const int i : {0, 5, 11}) {
        EXPECT_TRUE(Manager().RemoveConsumer(listeners[static_cast<std::size_t>(i)]));
        Register(true, {"new " + std::to_string(i), 0, 0}, [](const MetricsEvent&) {});
    }
    emit(10);
    EXPECT_EQ(Statistics().consumers.size(), std::size_t(consumers));
    EXPECT_EQ(Describe("0").name, "");
    for (const char* const name : {"new 0", "new 5", "new 11"})
        EXPECT_EQ(Describe(name).calls, 20u) << name;
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

// Faults ---------------------------------------------------------------------------------------

/// A handler that keeps what it was told.
class Told {
public:
    explicit Told(unsigned int lagMilliseconds = 0) {
        Manager().SetErrorHandler([this](const MetricsError& error) { Note(error); },
                                  lagMilliseconds);
    }
    void Note(const MetricsError& error) {
        const std::lock_guard lock(m_lock);
        m_errors.push_back(error);
        m_times.push_back(Clock::now());
        std::array<char, 16> name{};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        m_byDelivery = m_byDelivery && name.data() == std::string("metrics");
    }
    std::vector<MetricsError> Of(Reason reason) const {
        const std::lock_guard lock(m_lock);
        std::vector<MetricsError> errors;
        for (const MetricsError& error : m_errors)
            if (error.reason == reason)
                errors.push_back(error);
        return errors;
    }
    /// Waits for the first one. @return it.
    MetricsError First(Reason reason) const {
        EXPECT_TRUE(Poll([&] { return !Of(reason).empty(); })) << static_cast<int>(reason);
        const auto errors = Of(reason);
        return errors.empty() ? MetricsError() : errors.front();
    }
    std::vector<Clock::time_point> Times() const {
        const std::lock_guard lock(m_lock);
        return m_times;
    }
    bool ByDelivery() const {
        const std::lock_guard lock(m_lock);
        return m_byDelivery;
    }

private:
    mutable std::mutex m_lock;
    std::vector<MetricsError> m_errors;
    std::vector<Clock::time_point> m_times;
    bool m_byDelivery = true;
};

TEST(ErrorHandler, IsToldOfEachReason) {
    Told told(1);
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    std::optional<HeldStream> stream(std::in_place);
    const Session session;
    Register(false, {"throws", 2, 0},
             [](const MetricsEvent&) { throw std::runtime_error("what it said"); });
    EmitTooMany();
    const std::uint64_t lost = Statistics().lostToLimit;
    const auto throwing =
        Consume(true, [](const MetricsEvent&) { throw std::runtime_error("seen"); });
    EXPECT_THROW(AttributeImpl(0, 0, 0), std::runtime_error);
    EXPECT_TRUE(Manager().RemoveConsumer(throwing));
    const auto start = Clock::now();
    EXPECT_TRUE(Poll([&] { return SecondsSince(start) > 0.002; })); // the lag
    stream->Release();

    EXPECT_EQ(told.First(Reason::LostToLimit).count, lost);
    EXPECT_EQ(told.First(Reason::LostToException).count, 1u);
    EXPECT_GT(told.First(Reason::DeliveryLags).nanoseconds, 1'000'000u);
    EXPECT_EQ(told.First(Reason::ConsumerSetAside).consumer, "throws");
    const MetricsError thrown = told.First(Reason::ConsumerThrew);
    EXPECT_EQ(thrown.consumer, "throws");
    EXPECT_GE(thrown.count, 1u);
    try {
        std::rethrow_exception(thrown.exception);
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "what it said");
    }
    Flush();
    MetricsRawClient client;
    ASSERT_TRUE(Open(client, "/dev/full"));
    AttributeImpl(0, 0, 0);
    Flush();
    EXPECT_EQ(told.First(Reason::WriteFailed).path, "/dev/full");
    EXPECT_EQ(told.First(Reason::WriteFailed).error, ENOSPC);
    EXPECT_TRUE(told.ByDelivery());
    Flush();
    EXPECT_TRUE(Manager().Disable());
}

TEST(ErrorHandler, IsToldOncePerSecondAndOfTheRestAtTheEnd) {
    Told told;
    Register(false, {"throws", 0, 0}, [](const MetricsEvent&) { throw 1; });
    std::uint64_t emitted = 0;
    const auto start = Clock::now();
    while (told.Of(Reason::ConsumerThrew).size() < 2 && SecondsSince(start) < 20) {
        AttributeImpl(0, 0, 0);
        ++emitted;
        Flush();
    }
    AttributeImpl(0, 0, 0);
    ++emitted;
    EXPECT_TRUE(Manager().Disable());
    const auto errors = told.Of(Reason::ConsumerThrew);
    const auto times = told.Times();
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_GE(std::chrono::duration<double>(times[1] - times[0]).count(), 0.99);
    EXPECT_EQ(errors[0].count + errors[1].count + errors[2].count, emitted);
}

TEST(ErrorHandler, IsToldOfWhatIsLostBehindTheEnd) {
    Told told;
    HeldStream stream;
    Consume(false, [](const MetricsEvent& event) {
        if (event.param1.integer == 5)
            EmitTooMany(); // behind the end
    });
    AttributeImpl(5, 0, 0);
    Send(0, 0, 0, MetricsEventType::Shutdown);
    stream.Release();
    EXPECT_EQ(told.First(Reason::LostToShutdown).count, std::uint64_t(tooMany));
    EXPECT_TRUE(Manager().Shutdown(forever).ended);
}

TEST(ErrorHandler, MayThrowReplaceItselfAndIsReleased) {
    std::weak_ptr<int> firstHeld, secondHeld;
    std::atomic<int> first{0}, second{0};
    Consume(false, [](const MetricsEvent&) { throw std::runtime_error("told"); });
    {
        const auto ofFirst = std::make_shared<int>(), ofSecond = std::make_shared<int>();
        firstHeld = ofFirst;
        secondHeld = ofSecond;
        Manager().SetErrorHandler([&first, &second, ofFirst, secondHeld](const MetricsError&) {
            Manager().SetErrorHandler([&second, held = secondHeld.lock()](const MetricsError&) {
                ++second;
                throw std::runtime_error("dropped");
            });
            EXPECT_EQ(ofFirst.use_count(), 2) << "the caller's and its own, during the call";
            ++first;
            throw std::runtime_error("dropped");
        });
        AttributeImpl(0, 0, 0);
        EXPECT_TRUE(Poll([&] { return first == 1; }));
    }
    EXPECT_TRUE(Poll([&] { return firstHeld.expired(); }));
    EXPECT_FALSE(secondHeld.expired());
    AttributeImpl(0, 0, 0);
    EXPECT_TRUE(Poll([&] { return second == 1; }));
    AttributeImpl(0, 0, 0); // told at the end
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
    EXPECT_TRUE(secondHeld.expired()) << "it goes with the delivery";
    auto late = std::make_shared<int>();
    Manager().SetErrorHandler([late](const MetricsError&) {});
    EXPECT_EQ(late.use_count(), 1) << "nobody would ever let go of it";
}

/// The delivery thread, which calls it, does not wait for itself.
TEST(ErrorHandler, MaySetABound) {
    double shortest = 1e9;
    korsys::TEvent isTold{false};
    const Session session;
    Manager().SetErrorHandler([&](const MetricsError&) {
        for (int i = 0; i < 5; ++i) {
            const auto start = Clock::now();
            Manager().SetQueueLimit(1 << 20, MetricsQueuePolicy::DropOldest);
            shortest = std::min(shortest, SecondsSince(start));
        }
        isTold.Signal();
    });
    Consume(false, [](const MetricsEvent&) { throw std::runtime_error("told"); });
    AttributeImpl(0, 0, 0);
    EXPECT_TRUE(isTold.Wait(forever));
    EXPECT_LT(shortest, 0.05);
    Manager().SetErrorHandler(nullptr);
}

/// Whoever takes a handler away may free what it uses.
TEST(ErrorHandler, IsNotCalledAnyMoreOnceItWasTakenAway) {
    const Session session;
    Consume(false, [](const MetricsEvent&) { throw 1; });
    for (int i = 0; i < Repetitions(200); ++i) {
        korsys::TEvent entered(false);
        const auto isTakenAway = std::make_shared<std::atomic<bool>>(false);
        Manager().SetErrorHandler([isTakenAway, &entered](const MetricsError&) {
            entered.Signal();
            for (const auto start = Clock::now(); SecondsSince(start) < 0.001;)
                EXPECT_FALSE(*isTakenAway);
        });
        AttributeImpl(0, 0, 0);
        Manager().WaitUntilWritesFlushed(0); // wakes the delivery
        EXPECT_TRUE(entered.Wait(forever));
        Manager().SetErrorHandler(nullptr);
        *isTakenAway = true;
    }
}

TEST(ErrorHandler, HearsOfNothingThatWentWell) {
    Told told(forever);
    const Session session;
    Consume(false, [](const MetricsEvent&) {});
    EmitTooMany();
    EXPECT_TRUE(Manager().Shutdown(forever).ended);
    EXPECT_TRUE(told.Times().empty());
}

} // namespace Metrics::test
