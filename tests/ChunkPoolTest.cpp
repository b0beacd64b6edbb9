// The pool of chunks by itself: each has one owner at a time, and pages go back to the system while
// others take and put.

#include "ChunkPool.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

std::function<void(std::uintptr_t begin, std::size_t size)> s_beforePagesGo;
std::function<void(void* begin)> s_beforeSlabIsUsed; // once

} // namespace

// In place of libc's, in this program.
extern "C" int madvise(void* begin, std::size_t size, int advice) noexcept {
    if (advice == MADV_DONTNEED && s_beforePagesGo != nullptr)
        s_beforePagesGo(reinterpret_cast<std::uintptr_t>(begin), size);
    if (advice == MADV_NOHUGEPAGE)
        if (const auto before = std::exchange(s_beforeSlabIsUsed, nullptr))
            before(begin);
    return static_cast<int>(syscall(SYS_madvise, begin, size, advice));
}

namespace Metrics::detail {

namespace {

constexpr std::size_t room = Chunk::size - sizeof(Chunk);

class ChunkPoolTest : public testing::Test {
protected:
    ~ChunkPoolTest() override {
        s_beforePagesGo = nullptr;
        s_pool.Unmap();
    }

    static Chunk& TakeFilled(int content) {
        Chunk& chunk = s_pool.Take();
        std::memset(chunk.Begin(), content, room);
        return chunk;
    }
    static bool IsFilled(Chunk& chunk, int content) {
        return std::all_of(chunk.Begin(), chunk.Begin() + room,
                           [content](std::byte b) { return b == std::byte(content); });
    }

    static constinit ChunkPool s_pool;
};

constinit ChunkPool ChunkPoolTest::s_pool;

} // namespace

/// The thread is interrupted anywhere in Take and Put. Meanwhile two chunks are taken and the first
/// one is put back: on top is the same one as before, on another.
TEST_F(ChunkPoolTest, SeesThatOthersCameByThoughTheSameChunkIsOnTop) {
    static volatile std::sig_atomic_t interrupts = 0;
    constexpr int most = 10'000 * METRICS_TEST_SCALE / 100;
    static std::atomic<Chunk*> kept{nullptr};
    s_pool.KeepWarm(16);
    std::signal(SIGALRM, [](int) {
        interrupts = interrupts + 1;
        if (interrupts >= most) { // lest they leave no time for anything else
            const itimerval none{};
            setitimer(ITIMER_REAL, &none, nullptr);
        }
        if (kept.load() != nullptr)
            return;
        Chunk& first = s_pool.Take();
        kept = &s_pool.Take();
        s_pool.Put(first);
    });
    itimerval timer{{0, 20}, {0, 20}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; interrupts < most && !HasFailure(); ++i) {
        if (i % 1000 == 0 && std::chrono::steady_clock::now() > start + std::chrono::seconds(1))
            break;
        Chunk& first = s_pool.Take();
        Chunk& second = s_pool.Take();
        const Chunk* const others = kept.load();
        EXPECT_TRUE(&first != &second && &first != others && &second != others);
        s_pool.Put(first);
        s_pool.Put(second);
        if (Chunk* const chunk = kept.load()) {
            s_pool.Put(*chunk);
            kept = nullptr;
        }
    }
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    EXPECT_EQ(s_pool.InUse(), kept.load() == nullptr ? 0u : 1u);
}

TEST_F(ChunkPoolTest, CountsWhatIsFreeAndWhatIsInUse) {
    s_pool.KeepWarm(64);
    EXPECT_EQ(s_pool.Free(), 64u);
    EXPECT_EQ(s_pool.InUse(), 0u);
    std::vector<Chunk*> taken;
    for (int i = 0; i < 10; ++i)
        taken.push_back(&s_pool.Take());
    EXPECT_EQ(s_pool.Free(), 54u);
    s_pool.KeepWarm(64);
    EXPECT_EQ(s_pool.Free(), 64u);
    EXPECT_EQ(s_pool.InUse(), 10u);
    for (std::size_t i = 0; i + 1 < taken.size(); ++i)
        taken[i]->next = taken[i + 1];
    s_pool.Put(*taken.front(), 10);
    EXPECT_EQ(s_pool.Free(), 74u);
    EXPECT_EQ(s_pool.InUse(), 0u);
    for (Chunk* const chunk : taken)
        EXPECT_EQ(&s_pool.Take(), chunk);
    EXPECT_EQ(s_pool.Free(), 64u) << "below what was put at once";
}

/// Threads take and put in any order, while memory goes back and is made warm: what one has written
/// into its chunks stays there.
TEST_F(ChunkPoolTest, HasOneOwnerForEachChunk) {
    std::atomic<int> overwritten{0};
    {
        const std::jthread keeper([](const std::stop_token& isOver) {
            for (std::size_t i = 0; !isOver.stop_requested(); ++i)
                i % 8 == 0 ? s_pool.KeepWarm(60) : s_pool.Trim(i % 8);
        });
        std::vector<std::jthread> threads;
        for (int owner = 1; owner <= 3; ++owner)
            threads.emplace_back([owner, &overwritten] {
                std::mt19937 random(static_cast<unsigned int>(owner));
                std::vector<Chunk*> own;
                for (int i = 0; i < 20'000 * METRICS_TEST_SCALE / 100; ++i) {
                    if (own.size() < 40 && random() % 2 == 0) {
                        own.push_back(&TakeFilled(owner));
                    } else if (!own.empty()) {
                        std::swap(own[random() % own.size()], own.back());
                        overwritten += IsFilled(*own.back(), owner) ? 0 : 1;
                        s_pool.Put(*own.back());
                        own.pop_back();
                    }
                }
                while (!own.empty()) { // all that are left, a few at once
                    Chunk& first = *own.back();
                    std::uint32_t count = 1;
                    for (Chunk* last = &first; own.pop_back(), count != 5 && !own.empty(); ++count)
                        last = last->next = own.back();
                    s_pool.Put(first, count);
                }
            });
    }
    EXPECT_EQ(overwritten, 0);
    EXPECT_EQ(s_pool.InUse(), 0u) << "chunks were lost";
}

/// Two threads find no chunk, and both map new ones: one of the mappings goes again.
TEST_F(ChunkPoolTest, KeepsOneOfTwoSlabsThatAreMappedAtOnce) {
    void* first = nullptr;
    const Chunk* others = nullptr;
    s_beforeSlabIsUsed = [&](void* begin) {
        first = begin;
        others = &s_pool.Take();
    };
    const Chunk* const own = &s_pool.Take();
    ASSERT_NE(others, nullptr);
    EXPECT_NE(own, others);
    unsigned char pages[1];
    EXPECT_EQ(mincore(first, 1, pages), -1) << "it is mapped still";
    EXPECT_EQ(s_pool.InUse(), 2u);
}

/// Whoever takes chunks while pages are on their way back gets none of these.
TEST_F(ChunkPoolTest, GivesPagesBackBeforeTheirChunksCanBeTakenAgain) {
    constexpr std::size_t chunks = 1000;
    constexpr std::size_t warm = 100;
    std::vector<Chunk*> all;
    for (std::size_t i = 0; i < chunks; ++i)
        all.push_back(&TakeFilled(1));
    std::shuffle(all.begin(), all.end(), std::mt19937(1));
    for (Chunk* const chunk : all)
        s_pool.Put(*chunk);
    EXPECT_EQ(s_pool.Free(), chunks);

    std::vector<Chunk*> taken;
    std::size_t given = 0;
    s_beforePagesGo = [&](std::uintptr_t begin, std::size_t size) {
        EXPECT_EQ(begin % 4096, 0u);
        EXPECT_EQ(size % 4096, 0u);
        given += size / Chunk::size;
        for (int i = 0; i < 4 || s_pool.Free() != 0; ++i)
            taken.push_back(&TakeFilled(2));
    };
    s_pool.Trim(warm);
    s_beforePagesGo = nullptr;
    EXPECT_GT(given, chunks * 7 / 10)
        << "all but the warm ones and the other halves of their pages";
    for (Chunk* const chunk : taken)
        EXPECT_TRUE(IsFilled(*chunk, 2)) << "its page went back when it was in use again";
    EXPECT_EQ(s_pool.InUse(), taken.size());

    // What is cold is used again before there is more, and is empty.
    std::size_t empty = 0;
    while (taken.size() < chunks) {
        taken.push_back(&s_pool.Take());
        empty += IsFilled(*taken.back(), 0) ? 1 : 0;
    }
    EXPECT_GT(empty, chunks / 3);
    std::sort(taken.begin(), taken.end());
    EXPECT_EQ(std::adjacent_find(taken.begin(), taken.end()), taken.end()) << "taken twice";
    EXPECT_EQ(s_pool.InUse(), chunks);

    // All of them, a slab's middle in one piece.
    for (Chunk* const chunk : taken)
        s_pool.Put(*chunk);
    s_pool.Trim(0);
    EXPECT_LE(s_pool.Free(), 4u) << "but what shares a page with a slab's own";
    EXPECT_EQ(s_pool.InUse(), 0u);
}

} // namespace Metrics::detail
