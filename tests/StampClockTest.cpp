// The clock of the stamps, on clocks that the test invents.

#include "StampClock.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <random>

namespace {

/// What the kernel's clocks show: one counter, an offset, and what the last tick has stored.
struct Clocks {
    std::uint64_t now = 500'000'000'000;              // steady clock, ns
    std::uint64_t offset = 1'700'000'000'000'000'000; // to the wall clock
    std::uint64_t tick = 4'000'000;                   // between two stores of the coarse clocks
    std::uint64_t resolution = 1;                     // of the fine clocks
    std::uint64_t misfit = 0;                         // of the coarse wall clock
    std::function<std::uint64_t()> step = [] { return std::uint64_t{20}; }; // before each read
    int wallReads = 0;

    std::uint64_t Wall() const { return now + offset; }
    std::uint64_t Read(clockid_t clock) {
        now += step();
        const std::uint64_t fine = now / resolution * resolution;
        const std::uint64_t coarse = now / tick * tick;
        switch (clock) {
        case CLOCK_MONOTONIC_COARSE:
            return coarse;
        case CLOCK_REALTIME_COARSE:
            return coarse + offset + misfit;
        case CLOCK_REALTIME:
            ++wallReads;
            return fine + offset;
        default:
            return fine;
        }
    }
};

Clocks* s_clocks = nullptr; // null: the machine's own

} // namespace

// In place of libc's, in this program.
int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (s_clocks == nullptr)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    const std::uint64_t read = s_clocks->Read(clock);
    time->tv_sec = static_cast<time_t>(read / 1'000'000'000);
    time->tv_nsec = static_cast<long>(read % 1'000'000'000);
    return 0;
}

namespace Metrics::detail {

namespace {

class StampClockTest : public testing::Test {
protected:
    StampClockTest() { s_clocks = &m_clocks; }
    ~StampClockTest() override { s_clocks = nullptr; }

    /// A stamp lies between the reads of both clocks around it.
    Stamp TakeBracketed() {
        const Clocks before = m_clocks;
        const Stamp stamp = m_clock.Take(m_known);
        EXPECT_GE(stamp.ticks, before.now / before.resolution * before.resolution);
        EXPECT_LE(stamp.ticks, m_clocks.now);
        EXPECT_GE(stamp.wall, before.Wall() / before.resolution * before.resolution);
        EXPECT_LE(stamp.wall, m_clocks.Wall());
        return stamp;
    }

    Clocks m_clocks;
    StampClock m_clock;
    WallOffset m_known = 0;
    std::mt19937_64 m_random{1};
};

} // namespace

TEST_F(StampClockTest, NeedsTheWallClockOnlyWhenATickComesBetween) {
    m_clock.Measure();
    m_clocks.step = [this] { return 1 + m_random() % 2'000; }; // a tick may come before any read
    m_clocks.wallReads = 0;
    std::uint64_t last = 0;
    const std::uint64_t start = m_clocks.now;
    for (int i = 0; i < 100'000 && !HasFailure(); ++i) {
        const Stamp stamp = TakeBracketed();
        EXPECT_EQ(stamp.ticket, 0u);
        EXPECT_GT(stamp.ticks, last);
        last = stamp.ticks;
    }
    const std::uint64_t ticks = (m_clocks.now - start) / m_clocks.tick;
    EXPECT_GT(ticks, 20u);
    EXPECT_LE(static_cast<std::uint64_t>(m_clocks.wallReads), ticks + 1);
    EXPECT_GT(m_clocks.wallReads, 1) << "no tick came between the two coarse reads";
}

TEST_F(StampClockTest, ShowsASetWallClockInTheVeryNextEvent) {
    m_clock.Measure();
    for (int i = 0; i < 10'000 && !HasFailure(); ++i) {
        if (m_random() % 3 == 0)
            m_clocks.offset += m_random() % 2'000'000'001 - 1'000'000'000; // a second either way
        TakeBracketed();
    }
    // Set while a stamp is taken: that one shows the old or the new time, the next one the new.
    for (int i = 0; i < 10'000 && !HasFailure(); ++i) {
        const std::uint64_t before = m_clocks.Wall();
        auto reads = static_cast<int>(m_random() % 8);
        m_clocks.step = [this, reads]() mutable {
            if (reads-- == 0)
                m_clocks.offset += 3'600'000'000'000;
            return std::uint64_t{20};
        };
        const std::uint64_t wall = m_clock.Take(m_known).wall;
        const std::uint64_t after = m_clocks.Wall();
        EXPECT_TRUE((wall >= before && wall <= before + 1'000) ||
                    (wall + 1'000 >= after && wall <= after));
        m_clocks.step = [] { return std::uint64_t{20}; };
        TakeBracketed();
    }
}

TEST_F(StampClockTest, ReadsBothClocksWhereTheCoarseOnesDoNotFit) {
    m_clocks.misfit = 5'000'000;
    m_clock.Measure();
    m_clocks.wallReads = 0;
    for (int i = 0; i < 1'000; ++i)
        TakeBracketed();
    EXPECT_EQ(m_clocks.wallReads, 1'000);
}

TEST_F(StampClockTest, DrawsTicketsWhereTheClockMayStandStill) {
    m_clocks.resolution = 1'000;
    m_clock.Measure();
    WallOffset others = 0;
    std::uint64_t last = 0;
    int ties = 0;
    Stamp before = TakeBracketed();
    for (int i = 0; i < 1'000; ++i) {
        EXPECT_EQ(m_clock.Now(), before.ticket) << "the cut is behind what was stamped, no further";
        const Stamp stamp = i % 2 == 0 ? m_clock.Take(others) : TakeBracketed();
        EXPECT_NE(stamp.ticket, 0u);
        EXPECT_GT(stamp.ticket, before.ticket);
        EXPECT_GE(stamp.ticks, last);
        ties += stamp.ticks == before.ticks ? 1 : 0;
        last = stamp.ticks;
        before = stamp;
    }
    EXPECT_GT(ties, 0);
}

TEST_F(StampClockTest, PutsTheCutBehindEveryStampBefore) {
    m_clock.Measure();
    for (int i = 0; i < 100; ++i) {
        const std::uint64_t before = TakeBracketed().ticks;
        const std::uint64_t cut = m_clock.Now();
        EXPECT_LE(before, cut);
        EXPECT_GE(TakeBracketed().ticks, cut);
    }
}

} // namespace Metrics::detail
