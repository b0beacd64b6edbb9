#ifndef METRICS_SRC_QUEUE_LIMIT_H
#define METRICS_SRC_QUEUE_LIMIT_H

#include <metrics/MetricsOptions.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace Metrics::detail {

/// How much memory all queues together may take. Without a limit nothing is counted here.
///
/// A queue is charged for what it writes into a chunk before it writes there, in grants: large
/// ones, so that many records are written between two of them, and small ones where many threads
/// share little: a twentieth of the limit divided by the number of threads. What was charged is
/// given back when it has been read. What waits already when the limit is set is not counted, nor
/// what comes into a chunk that was begun before.
///
/// Thread-safety: safe from any thread at any time.
class QueueLimit {
public:
    constexpr QueueLimit() noexcept = default;

    /// Does what the policy says when so many bytes are not free, and takes them. Code of the
    /// application may run. @return false, having taken nothing, when the event is to be dropped.
    using MakeRoom = bool (*)(std::size_t bytes) noexcept;

    void Set(std::uint64_t bytes, MetricsQueuePolicy policy, unsigned int milliseconds,
             MakeRoom makeRoom) noexcept {
        m_makeRoom.store(makeRoom, std::memory_order_relaxed);
        m_policy.store(policy, std::memory_order_relaxed);
        m_milliseconds.store(milliseconds, std::memory_order_relaxed);
        m_bytes.store(bytes, std::memory_order_relaxed);
    }
    /// Among how many threads it is to be shared.
    void SetThreads(std::size_t threads) noexcept {
        m_threads.store(std::max<std::size_t>(threads, 1), std::memory_order_relaxed);
    }

    // Relaxed, all of it: numbers for themselves.
    bool IsSet() const noexcept { return m_bytes.load(std::memory_order_relaxed) != 0; }
    std::uint64_t Bytes() const noexcept { return m_bytes.load(std::memory_order_relaxed); }
    MetricsQueuePolicy Policy() const noexcept { return m_policy.load(std::memory_order_relaxed); }
    unsigned int Milliseconds() const noexcept {
        return m_milliseconds.load(std::memory_order_relaxed);
    }

    /// How many bytes one grant should have.
    std::size_t Grant() const noexcept {
        return static_cast<std::size_t>(Bytes() / 20 / m_threads.load(std::memory_order_relaxed));
    }

    /// @return false, charging nothing, when so many bytes are not free.
    bool Take(std::size_t bytes) noexcept {
        const std::uint64_t limit = Bytes(); // 0: there was one a moment ago
        return TakeUpTo(limit != 0 ? limit : std::numeric_limits<std::uint64_t>::max(), bytes);
    }
    bool TakeUpTo(std::uint64_t limit, std::size_t bytes) noexcept;
    /// The same, but first does what the policy says.
    bool TakeOrMakeRoom(std::size_t bytes) noexcept {
        const MakeRoom makeRoom = m_makeRoom.load(std::memory_order_relaxed);
        return Take(bytes) || (makeRoom != nullptr && makeRoom(bytes));
    }
    void Give(std::size_t bytes) noexcept {
        if (bytes != 0)
            m_taken.fetch_sub(bytes, std::memory_order_relaxed);
    }

private:
    // Read by every emitter that needs a chunk.
    alignas(64) std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<MakeRoom> m_makeRoom{nullptr};
    std::atomic<std::size_t> m_threads{1};
    std::atomic<unsigned int> m_milliseconds{0};
    std::atomic<MetricsQueuePolicy> m_policy{MetricsQueuePolicy::DropNewest};
    // Written by all of them, while there is a limit.
    alignas(64) std::atomic<std::uint64_t> m_taken{0};
};

extern constinit QueueLimit s_queueLimit;

} // namespace Metrics::detail

#endif // METRICS_SRC_QUEUE_LIMIT_H
