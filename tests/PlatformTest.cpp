#include "support/Process.h"

#include <korsys/Mutex.h>
#include <korsys/NoCancellation.h>
#include <korsys/RefCntPtr.h>
#include <korsys/TEvent.h>
#include <korsys/TReadWriteLock.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace korsys;

namespace Metrics::test {

struct Counted : RefCntObject {
    explicit Counted(std::atomic<int>& alive) : m_alive(alive) { ++m_alive; }
    ~Counted() override { --m_alive; }
    std::atomic<int>& m_alive;
};
struct Derived final : Counted {
    using Counted::Counted;
};
struct alignas(128) Wide final : RefCntObject {};

TEST(RefCntPtr, KeepsTheObjectWhileThereIsOne) {
    std::atomic<int> alive{0};
    auto first = MakeRefCnt<Derived>(alive);
    {
        const RefCntPtr<Counted> base = first; // a second one
        EXPECT_TRUE(base == RefCntPtr<Counted>(first) && base != RefCntPtr<Counted>());
        first = nullptr;
        EXPECT_EQ(alive, 1) << "the second one is left";
    }
    EXPECT_EQ(alive, 0);

    RefCntPtr<Counted> one = MakeRefCnt<Counted>(alive), other = MakeRefCnt<Counted>(alive);
    Counted* const object = other.Get();
    one = std::move(other);
    EXPECT_EQ(alive, 1) << "the old one went, the new one came along";
    EXPECT_TRUE(one.Get() == object && !other && &*one == one.operator->());
    one = *&one;
    EXPECT_EQ(alive, 1) << "assigned to itself";
    RefCntPtr<Counted> moved(std::move(one));
    EXPECT_TRUE(alive == 1 && !one);
    object->AddReference();
    moved = RefCntPtr<Counted>();
    EXPECT_EQ(alive, 1) << "one was taken by hand";
    object->RemoveReference();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(MakeRefCnt<Wide>().Get()) % 128, 0u);
}

TEST(RefCntPtr, CountsOnEveryThread) {
    std::atomic<int> alive{0};
    auto shared = MakeRefCnt<Counted>(alive);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([copy = shared] {
            for (int n = 0; n < Repetitions(20'000); ++n)
                RefCntPtr<Counted>(copy)->m_alive.load();
        });
    shared = nullptr;
    for (std::thread& thread : threads)
        thread.join();
    threads.clear();
    EXPECT_EQ(alive, 0);
}

TEST(RefCntPtr, ThrowsWhenNullIsFollowed) {
    const RefCntPtr<Counted> null(nullptr), other(static_cast<Counted*>(nullptr));
    EXPECT_TRUE(null == other && !null && null.Get() == nullptr);
    const auto textOf = [](auto follow) -> std::string {
        try {
            follow();
        } catch (const std::logic_error& error) {
            return error.what();
        }
        return "nothing was thrown";
    };
    EXPECT_EQ(textOf([&] { static_cast<void>(null->m_alive); }), "m_ptr");
    EXPECT_EQ(textOf([&] { static_cast<void>(*null); }), "m_ptr");
    EXPECT_EQ(textOf([] { ThrowLogicException("file", 1, "why"); }), "why");
}

TEST(TEvent, LetsThroughWhileItIsSignalled) {
    TEvent event(false);
    const auto start = Clock::now();
    EXPECT_FALSE(event.Wait(50));
    EXPECT_GE(SecondsSince(start), 0.05) << "gave up early";
    EXPECT_FALSE(event.WaitUntil(Clock::now() - std::chrono::seconds(1)));
    event.Signal();
    EXPECT_TRUE(event.Wait(0) && event.Wait(0)) << "stays until it is reset";
    EXPECT_TRUE(event.WaitUntil(Clock::now() - std::chrono::seconds(1)));
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
    EXPECT_TRUE(TEvent(true).Wait(0));

    std::atomic<int> through{0};
    std::array<std::atomic<pid_t>, 3> ids{};
    std::vector<std::jthread> waiters;
    for (std::atomic<pid_t>& id : ids)
        waiters.emplace_back([&] {
            id = gettid();
            through += event.Wait(60'000) ? 1 : 0;
        });
    for (const std::atomic<pid_t>& id : ids)
        EXPECT_TRUE(Poll([&id] { return id != 0 && IsAsleep(id); }));
    EXPECT_EQ(through, 0);
    event.Signal();
    EXPECT_TRUE(Poll([&through] { return through == 3; })) << "one signal is for all";
    waiters.clear();
}

TEST(TReadWriteLock, LetsReadersInTogetherAndWritersAlone) {
    TReadWriteLock lock(0);
    const auto elsewhere = [&lock](auto use) {
        bool result = false;
        std::thread([&] { result = use(lock); }).join();
        return result;
    };
    const auto canRead = [&] {
        return elsewhere([](TReadWriteLock& l) {
            const bool taken = l.TryLockRead();
            if (taken)
                l.UnlockRead();
            return taken;
        });
    };
    lock.LockRead();
    EXPECT_TRUE(canRead());
    lock.UnlockRead();
    lock.Lock();
    EXPECT_FALSE(canRead());
    lock.Unlock();
    EXPECT_TRUE(canRead());

    // A writer that waits goes before readers that come later.
    lock.LockRead();
    std::atomic<pid_t> id{0};
    std::atomic<bool> hasWritten{false};
    std::thread writer([&] {
        id = gettid();
        lock.Lock();
        hasWritten = true;
        lock.Unlock();
    });
    EXPECT_TRUE(Poll([&] { return id != 0 && IsAsleep(id); }));
    EXPECT_FALSE(canRead() || hasWritten);
    lock.UnlockRead();
    writer.join();
    EXPECT_TRUE(canRead() && hasWritten);
}

TEST(Mutex, IsOneThreadsAtATime) {
    static constinit Mutex mutex;
    int count = 0; // not atomic
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&count] {
            for (int n = 0; n < 10'000; ++n) {
                const MutexLock lock(mutex);
                ++count;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, 40'000);
    if (mutex.TryLock()) {
        std::thread([] {
            if (mutex.TryLock()) {
                ADD_FAILURE() << "it is another thread's";
                mutex.Unlock();
            }
        }).join();
        mutex.Unlock();
    } else {
        ADD_FAILURE() << "it is nobody's";
    }

    std::condition_variable condition;
    MutexLock lock(mutex);
    EXPECT_FALSE(lock.WaitUntil(condition, Clock::now() + std::chrono::milliseconds(1)));
    std::thread other([&] {
        const MutexLock mine(mutex); // which the wait has let go of
        count = 0;
        condition.notify_all();
    });
    while (count != 0)
        static_cast<void>(lock.WaitUntil(condition, Clock::now() + std::chrono::seconds(60)));
    other.join();
}

TEST(NoCancellation, LetsARequestWaitForTheEndOfTheOutermost) {
    std::atomic<bool> isRequested{false}, wasReached{false};
    std::thread thread([&] {
        {
            const NoCancellation outer;
            { const NoCancellation inner; }
            EXPECT_TRUE(Poll([&] { return isRequested.load(); }));
            pthread_testcancel();
            wasReached = true;
        }
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    });
    ASSERT_EQ(pthread_cancel(thread.native_handle()), 0);
    isRequested = true;
    thread.join();
    EXPECT_TRUE(wasReached);
}

} // namespace Metrics::test
