// The door of a file, closed at any moment of a write.

#include "WriterDoor.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/time.h>

#include <csignal>
#include <memory>
#include <thread>

namespace Metrics::detail {

using std::chrono::steady_clock;

TEST(WriterDoor, IsTidiedByWhoeverIsLast) {
    int tidied = 0;
    const auto tidy = [&tidied] { ++tidied; };
    WriterDoor held;
    EXPECT_TRUE(held.Enter());
    EXPECT_FALSE(held.CloseUntil(steady_clock::now(), tidy)) << "somebody is inside";
    EXPECT_FALSE(held.CloseUntil(steady_clock::now(), tidy)) << "still";
    EXPECT_EQ(tidied, 0);
    held.Leave(tidy);
    EXPECT_EQ(tidied, 1);
    EXPECT_FALSE(held.Enter());
    EXPECT_TRUE(held.CloseUntil(steady_clock::now(), tidy));
    EXPECT_EQ(tidied, 1);

    WriterDoor open;
    EXPECT_TRUE(open.Enter());
    open.Leave(tidy);
    EXPECT_TRUE(open.CloseUntil(steady_clock::now(), tidy));
    EXPECT_EQ(tidied, 2);
    EXPECT_FALSE(open.Enter());
    EXPECT_TRUE(open.CloseUntil(steady_clock::now(), tidy));
    EXPECT_EQ(tidied, 2);
}

/// One thread enters and leaves without a pause, another one closes, and is interrupted anywhere in
/// that until the first one has been in or out once more.
TEST(WriterDoor, IsClosedAtAnyMomentOfAWrite) {
    static std::atomic<unsigned int> passes{0};
    static std::atomic<int> interrupts{0};
    constexpr int most = 20'000 * METRICS_TEST_SCALE / 100;
    std::signal(SIGALRM, [](int) {
        const unsigned int before = passes;
        for (int looks = 1; passes == before && looks < 1000; ++looks)
            if (looks % 250 == 0)
                sched_yield();
        if (++interrupts >= most) { // lest they leave no time for anything else
            const itimerval none{};
            setitimer(ITIMER_REAL, &none, nullptr);
        }
    });
    std::unique_ptr<WriterDoor> door;
    std::atomic<bool> isInside{false}, isClosed{false}, isOver{false};
    std::atomic<int> met{0}, tidied{0}, failed{0};
    const auto meet = [&met](int times) {
        ++met;
        for (int looks = 0; met < 2 * times; ++looks)
            if (looks > 500)
                std::this_thread::yield();
    };
    const auto tidy = [&] {
        ++tidied;
        failed += isInside ? 1 : 0;
    };
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr); // the writer's as well
    std::jthread writer([&] {
        for (int round = 0;; ++round) {
            meet(2 * round + 1);
            if (isOver)
                return;
            while (failed == 0 && door->Enter()) {
                failed += isClosed ? 1 : 0;
                isInside = true;
                isInside = false;
                door->Leave(tidy);
                passes.store(passes + 1);
            }
            meet(2 * round + 2);
        }
    });
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    itimerval timer{{0, 20}, {0, 20}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    const auto start = steady_clock::now();
    int round = 0;
    for (;
         failed == 0 && interrupts < most && steady_clock::now() < start + std::chrono::seconds(1);
         ++round) {
        door = std::make_unique<WriterDoor>();
        isClosed = false;
        tidied = 0;
        meet(2 * round + 1);
        for (volatile int pause = round % 150; pause > 0;)
            pause = pause - 1;
        const bool ends = door->CloseUntil(steady_clock::now() + std::chrono::seconds(5), tidy);
        failed += ends && tidied == 1 ? 0 : 1;
        isClosed = true;
        meet(2 * round + 2);
    }
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    isOver = true;
    meet(2 * round + 1);
    EXPECT_EQ(failed, 0) << "in round " << round;
}

} // namespace Metrics::detail
