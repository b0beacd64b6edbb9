// Two threads that pass each other: one enters and looks, the other changes what is looked at and
// looks who is inside.

#include "Section.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace Metrics::detail {

TEST(Section, IsSeenOrHasSeenTheChange) {
    struct alignas(64) Line {
        std::atomic<int> value{0};
    };
    alignas(64) Section section;
    Line removed, met;
    std::atomic<bool> isOver{false};
    const auto meet = [&met](int times) {
        met.value.fetch_add(1);
        for (int looks = 0; met.value.load() < 2 * times; ++looks)
            if (looks > 500)
                std::this_thread::yield();
    };
    bool hasSeenRemoval = false;
    std::jthread walker([&] {
        for (int round = 0;; ++round) {
            meet(3 * round + 1);
            if (isOver)
                return;
            section.Enter();
            hasSeenRemoval = removed.value.load(std::memory_order_seq_cst) != 0;
            meet(3 * round + 2);
            section.Leave();
            meet(3 * round + 3);
        }
    });
    // A store that is held back was missed once in 50 to 1400 rounds.
    int missed = 0;
    int round = 0;
    const auto start = std::chrono::steady_clock::now();
    for (; round < 200'000 * METRICS_TEST_SCALE / 100 &&
           std::chrono::steady_clock::now() < start + std::chrono::seconds(1);
         ++round) {
        meet(3 * round + 1);
        for (volatile int pause = round % 16; pause > 0;)
            pause = pause - 1;
        removed.value.store(1, std::memory_order_seq_cst);
        const bool isSeen = Section::IsInside(section.Read());
        meet(3 * round + 2);
        missed += !isSeen && !hasSeenRemoval ? 1 : 0;
        removed.value.store(0);
        meet(3 * round + 3);
    }
    isOver = true;
    meet(3 * round + 1);
    EXPECT_EQ(missed, 0) << "of " << round;
}

} // namespace Metrics::detail
