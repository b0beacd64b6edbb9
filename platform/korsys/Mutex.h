#ifndef KORSYS_MUTEX_H
#define KORSYS_MUTEX_H

#include <korsys/ThreadAnnotations.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <type_traits>

namespace korsys {

class MutexLock;

/// A std::mutex that clang++ checks the use of. Constant-initialised and without a destructor that
/// does anything, so that it may guard what is used before the first constructor and after the
/// last destructor. Not installed.
///
/// Thread-safety: safe from any thread at any time.
class KORSYS_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() noexcept = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits until it is this thread's. Prefer MutexLock.
    void Lock() KORSYS_ACQUIRE() { m_mutex.lock(); }
    /// Lets the next one in.
    void Unlock() KORSYS_RELEASE() { m_mutex.unlock(); }
    /// Does not wait. @return false when it was another's.
    bool TryLock() KORSYS_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    friend class MutexLock;

    std::mutex m_mutex;
};

static_assert(std::is_trivially_destructible_v<Mutex>,
              "guards what outlives every static object's destructor");

/// Holds a Mutex until the end of the block.
///
/// Thread-safety: one thread at a time for each object.
class KORSYS_SCOPED_CAPABILITY MutexLock {
public:
    /// Waits until the mutex is this thread's.
    explicit MutexLock(Mutex& mutex) KORSYS_ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    ~MutexLock() KORSYS_RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Lets go of the mutex until the condition is notified or time is up, whichever is first; it
    /// may also return without either. @return false when time was up.
    bool WaitUntil(std::condition_variable& condition,
                   std::chrono::steady_clock::time_point deadline) {
        return condition.wait_until(m_lock, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> m_lock;
};

} // namespace korsys

#endif // KORSYS_MUTEX_H
