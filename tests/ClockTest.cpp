#include "support/Process.h"
#include "support/Transcript.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

namespace Metrics::test {

/// A look at both clocks, from the library or from an event.
struct Instant {
    std::uint64_t upTime; // ns
    std::uint64_t wall;   // us since 1970

    static Instant Now() {
        std::uint64_t seconds = 0;
        std::uint32_t microseconds = 0;
        CurrentUnixTime(&seconds, &microseconds);
        EXPECT_LT(microseconds, 1000000u);
        return {AppUpTime(), seconds * 1000000 + microseconds};
    }
    static Instant Of(const MetricsEvent& event) {
        EXPECT_LT(event.unixMicroseconds, 1000000u);
        return {event.timestamp, event.unixSeconds * 1000000 + event.unixMicroseconds};
    }
    bool IsNotAfter(const Instant& other) const {
        return upTime <= other.upTime && wall <= other.wall;
    }
    friend bool operator==(const Instant&, const Instant&) = default;
};

TEST(Clock, CountsNanosecondsAndMicroseconds) {
    const auto nanoseconds = [](clockid_t clock) {
        timespec now{};
        clock_gettime(clock, &now);
        return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
               static_cast<std::uint64_t>(now.tv_nsec);
    };
    // Up-time begins when the library is loaded: ages that are read later are no smaller.
    EXPECT_LT(AppUpTime(), 60'000'000'000u);
    const std::uint64_t startBefore = nanoseconds(CLOCK_MONOTONIC);
    const std::uint64_t first = AppUpTime();
    const std::uint64_t startAfter = nanoseconds(CLOCK_MONOTONIC);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const std::uint64_t endBefore = nanoseconds(CLOCK_MONOTONIC);
    const std::uint64_t passed = AppUpTime() - first;
    const std::uint64_t endAfter = nanoseconds(CLOCK_MONOTONIC);
    EXPECT_GE(passed, endBefore - startAfter);
    EXPECT_LE(passed, endAfter - startBefore);

    const std::uint64_t before = nanoseconds(CLOCK_REALTIME) / 1000;
    const Instant now = Instant::Now();
    EXPECT_GE(now.wall, before);
    EXPECT_LE(now.wall, nanoseconds(CLOCK_REALTIME) / 1000);
}

/// Each event is stamped while it is emitted, whatever the way, and alike for all consumers.
TEST(Clock, StampsEachEventWhileItIsEmitted) {
    std::vector<Instant> stamps, shown; // shown at once
    const Session session;
    Consume(false, [&stamps](const MetricsEvent& e) { stamps.push_back(Instant::Of(e)); });
    Context context(0, Context::Create(true));
    context.OpenScope();
    Flush();
    stamps.clear();

    struct Bracket {
        Instant before, after;
    };
    std::vector<Bracket> brackets;
    const auto emit = [&brackets](auto operation) {
        const Instant before = Instant::Now();
        operation();
        brackets.push_back({before, Instant::Now()});
    };
    for (const bool synchronous : {false, true}) {
        if (synchronous)
            Consume(true, [&shown](const MetricsEvent& e) { shown.push_back(Instant::Of(e)); });
        for (int i = 0; i < Repetitions(20000); ++i) {
            emit([&] { context.Emit(i); });
            emit([&] { Attribute("name", i); });
            emit([&] { Send(i); });
            if (i % 100 == 0)
                Flush();
        }
        emit([&] { Context::Create(true); });
    }
    Flush();
    ASSERT_EQ(stamps.size(), brackets.size());
    std::size_t early = 0, late = 0;
    for (std::size_t i = 0; i < stamps.size(); ++i) {
        early += !brackets[i].before.IsNotAfter(stamps[i]);
        late += !stamps[i].IsNotAfter(brackets[i].after);
    }
    EXPECT_EQ(early, 0u);
    EXPECT_EQ(late, 0u);
    EXPECT_TRUE(!shown.empty() && std::equal(shown.rbegin(), shown.rend(), stamps.rbegin()));
}

TEST(Clock, StampsAnEventAnewWhenItIsEmittedAgain) {
    Start();
    const auto event = Send(0);
    const Instant first = Instant::Of(*event);
    Flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const Instant before = Instant::Now();
    Manager().EmitEvent(event);
    const Instant second = Instant::Of(*event);
    EXPECT_TRUE(before.IsNotAfter(second) && second.IsNotAfter(Instant::Now()));
    EXPECT_LT(first.upTime, second.upTime);
    EXPECT_LT(first.wall, second.wall);
}

} // namespace Metrics::test
