#ifndef KORSYS_TEVENT_H
#define KORSYS_TEVENT_H

#include <korsys/Export.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace korsys {

/// Manual-reset event: once signalled it stays so, and lets every waiter through, until reset.
///
/// Thread-safety: safe from any thread at any time.
class KORSYS_EXPORT TEvent {
public:
    /// Starts signalled or not.
    explicit TEvent(bool signalled) noexcept : m_signalled(signalled) {}
    TEvent(const TEvent&) = delete;
    TEvent& operator=(const TEvent&) = delete;

    /// Lets every waiter through. Cost: takes the event's lock for a few instructions.
    void Signal();

    /// Makes later waiters wait again. Cost: one load when the event is not signalled.
    void Reset() noexcept {
        // Acquire: whoever takes a signal away sees what was done before it was given. The common
        // case must not dirty the cache line.
        if (m_signalled.load(std::memory_order_acquire))
            m_signalled.store(false, std::memory_order_relaxed);
    }

    /// Waits for the signal, at most the given number of milliseconds of the steady clock.
    /// @return true when the event was signalled, false after the time-out.
    /// Cost: takes the event's lock; blocks.
    bool Wait(unsigned int milliseconds);

    /// The same, until a point in time.
    /// Cost: as above.
    bool WaitUntil(std::chrono::steady_clock::time_point deadline);

private:
    std::atomic<bool> m_signalled;
    std::mutex m_mutex;
    std::condition_variable m_condition;
};

} // namespace korsys

#endif // KORSYS_TEVENT_H
