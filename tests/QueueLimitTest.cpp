#include "support/HeldStream.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Metrics::test {

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
    std::int64_t told = 0;
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    const Session session;
    Consume(false, [&](const MetricsEvent& event) {
        stamps.push_back(event.timestamp);
        if (IsNotice(event)) {
            told += event.param2.integer;
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
    EXPECT_EQ(static_cast<std::uint64_t>(told), Statistics().lostToLimit);
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
    room(); // in a chunk that was begun without a limit
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
        Send(i); // which somebody shares
    }
    release();
    Flush(); // what the last ones have emitted
    EXPECT_EQ(Statistics().queuedBytes, 0u);
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
    auto start = Clock::now();
    AttributeImpl(0, 1, 0);
    Flush();
    EXPECT_LT(SecondsSince(start), forever / 2000.0);
    EXPECT_GT(Statistics().lostToLimit, 0u);

    HeldStream stream;
    Manager().SetQueueLimit(4096, MetricsQueuePolicy::Wait, 100);
    start = Clock::now();
    AttributeImpl(0, 1, 0); // waits, but none of those that it causes
    EXPECT_LT(SecondsSince(start), 5);
    stream.Take();
}

std::uint64_t ResidentBytes() {
    const std::string status = ReadFile("/proc/self/status");
    return std::strtoull(status.c_str() + status.find("RssAnon:") + 8, nullptr, 10) << 10;
}

/// What is read of a backlog is free for others at once, in the middle of a batch as well.
TEST(QueueLimit, BoundsWhatTheProcessTakesWhileItIsRead) {
    constexpr int threads = 100;
    constexpr std::uint64_t limit = 4 << 20, perChunk = 31, perThread = limit / threads / 64;
    const auto refill = [] {
        std::atomic<std::uint64_t> seen{0}, allowed{0};
        const Session session;
        Consume(false, [&](const MetricsEvent&) {
            ++seen;
            for (std::uint64_t now = allowed; seen > now; now = allowed)
                allowed.wait(now);
        });
        const auto let = [&](std::uint64_t more) {
            allowed += more;
            allowed.notify_one();
            VERIFY(Poll([&] { return seen == allowed + 1; })); // held
        };
        Manager().SetQueueLimit(limit, MetricsQueuePolicy::DropNewest);
        std::barrier round(threads + 1), turn(threads);
        std::vector<std::jthread> emitters;
        for (int i = 0; i < threads; ++i)
            emitters.emplace_back([&] {
                Context context(0, Context::Create(true));
                context.OpenScope();
                context.DetachFromThread();
                const ContextGuard guard(context);
                for (int fill = 0; fill < 2; ++fill) {
                    round.arrive_and_wait();
                    for (std::uint64_t n = 0; n < 2 * perThread; ++n) {
                        Attribute(1, 2, 0);
                        if (n % perChunk == 0)
                            turn.arrive_and_wait(); // so that they are read by turns
                    }
                    round.arrive_and_wait();
                }
                round.arrive_and_wait();
            });
        let(0);
        std::uint64_t resident[2] = {};
        for (std::uint64_t& bytes : resident) {
            round.arrive_and_wait();
            round.arrive_and_wait();
            bytes = ResidentBytes();
            VERIFY(Statistics().queuedBytes > limit * 8 / 10);
            let(threads * perChunk * 15 / 2); // some of each queue's chunks
        }
        // Some memory is made ready for whoever emits next.
        VERIFY(!sanitizer.empty() || resident[1] < resident[0] + limit / 8);
        allowed = ~std::uint64_t{0} / 2;
        allowed.notify_one();
        round.arrive_and_wait();
        return 0;
    };
    const Ended ended = RunChild(refill);
    EXPECT_EQ(ended.status, 0) << ended.output;
}

TEST(QueueLimit, BoundsWhatTheProcessTakes) {
    constexpr std::uint64_t limit = 4 << 20;
    for (const auto policy : {MetricsQueuePolicy::DropNewest, MetricsQueuePolicy::DropOldest})
        for (const bool isLong : {false, true}) {
            const auto fill = [=] {
                HeldStream stream;
                const Session session;
                Manager().SetQueueLimit(limit, policy);
                std::vector<std::jthread> emitters;
                constexpr int threads = 100;
                std::latch begin(threads), done(threads), end(1);
                std::atomic<std::uint64_t> before{0};
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
                before = ResidentBytes();
                done.wait();
                const std::uint64_t grown = ResidentBytes() - before;
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

} // namespace Metrics::test
