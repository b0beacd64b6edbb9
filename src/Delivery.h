#ifndef METRICS_SRC_DELIVERY_H
#define METRICS_SRC_DELIVERY_H

#include "Consumers.h"
#include "DeliveredEvent.h"
#include "Merge.h"
#include "TimedThread.h"

#include <korsys/Mutex.h>
#include <korsys/TEvent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>

namespace Metrics::detail {

/// Those who wait until what was queued before is delivered. A request takes a number; the delivery
/// thread takes the highest one before it looks at the clock and the queues, and answers it, and
/// all before it, when it has delivered what it found.
///
/// Thread-safety: safe from any thread at any time.
class Flushes {
public:
    /// @return 0 when nothing is delivered any more.
    std::uint64_t Request() KORSYS_EXCLUDES(m_lock);
    bool WaitUntil(std::uint64_t request, Deadline deadline) KORSYS_EXCLUDES(m_lock);

    // Delivery thread.
    std::uint64_t Take() KORSYS_EXCLUDES(m_lock);
    void Answer(std::uint64_t request) KORSYS_EXCLUDES(m_lock);
    /// Nothing is delivered any more: lets everybody go.
    void End() KORSYS_EXCLUDES(m_lock);

private:
    korsys::Mutex m_lock;
    std::condition_variable m_answer;
    std::uint64_t m_requested KORSYS_GUARDED_BY(m_lock) = 0;
    std::uint64_t m_answered KORSYS_GUARDED_BY(m_lock) = 0;
    bool m_hasEnded KORSYS_GUARDED_BY(m_lock) = false;
};

/// The delivery thread. It looks at its clock (the cut), then at every thread's queue, and hands
/// what was stamped up to the cut to the asynchronous consumers, in the order of the stamps, each
/// thread's own order kept.
///
/// Invariants:
/// 1. What was emitted after another emit had returned is delivered after it. For the earlier event
///    was published before the later one was stamped. If the later one is delivered, its stamp is
///    not behind the cut, so the earlier one was published before the cut was taken, and was found;
///    and its stamp is lower, so the merge takes it first. Equal stamps can't be, see StampClock.
/// 2. Within a thread the order of its queue counts. An event emitted from inside of a synchronous
///    consumer stands before the one that caused it, with a later stamp: the latter is then
///    delivered with it. That is no harm to 1, since its emit has not returned before the former's
///    stamp.
/// 3. No emitter is waited for. What one has stamped and not published yet is delivered later; its
///    emit had not returned, so that nothing was promised of it.
/// 4. The end is a stamp: nothing behind it is delivered, and all that 1 puts before it is.
///
/// Made by the first Enable in static storage, and never destroyed.
///
/// Thread-safety: safe from any thread at any time.
class Delivery {
public:
    Delivery() = default;
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    // Under the lifecycle's lock ---------------------------------------------------------------

    /// Before Start: what the thread calls first. `function` becomes what was set before.
    void SetInitFunction(std::function<void()>& function) noexcept { m_init.swap(function); }
    /// @throws std::system_error
    void Start();
    bool IsStarted() const noexcept { return m_thread.IsStarted(); }

    // Any thread -------------------------------------------------------------------------------

    /// Nothing that is stamped from now on is delivered; the thread ends when the rest was.
    void EndHere() noexcept;
    /// Has the thread look at once.
    void Wake() noexcept;
    /// Waits for the end of the thread. @return false after the deadline.
    bool JoinUntil(Deadline deadline) noexcept;
    /// Leaves the thread to itself.
    void Detach() noexcept { m_thread.Detach(); }

    /// Whether what was stamped then is behind the end.
    bool EndsBefore(std::uint64_t order) const noexcept {
        return m_end.load(std::memory_order_relaxed) < order;
    }

    Flushes& GetFlushes() noexcept { return m_flushes; }

private:
    void Run();
    bool DeliverUpTo(std::uint64_t cut);
    void DeliverMerged();
    void LookAtMemory() noexcept;
    void BalanceMemory() noexcept;
    void End();

    TimedThread m_thread;
    std::function<void()> m_init; // until the thread runs

    std::atomic<std::uint64_t> m_end{std::numeric_limits<std::uint64_t>::max()};
    korsys::TEvent m_wake{false};    // cuts a pause short
    korsys::TEvent m_stopped{false}; // signalled as the thread's last act
    Flushes m_flushes;

    // The thread's own.
    Merge m_merge;
    DeliveredEvent m_event;
    std::size_t m_delivered = 0; // in this batch
    std::size_t m_peak = 0;      // chunks that bursts have lately needed
    Deadline m_peakAt{};
    Deadline m_trimAt{};         // when memory may be given back again
    std::size_t m_untrimmed = 0; // free chunks that could not be given back last time
};

/// The object, made on first use in static storage. Under the lifecycle's lock.
Delivery& MakeDelivery() noexcept;

/// Null before the first Enable. Acquire: the object.
Delivery* FindDelivery() noexcept;

/// Waits until everything that was queued at the call has been delivered.
/// @return false after the deadline, and when there is no delivery that it could wait for.
bool FlushUntil(Deadline deadline);

} // namespace Metrics::detail

#endif // METRICS_SRC_DELIVERY_H
