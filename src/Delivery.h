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
    /// Has a second thread stand by, that goes on when a consumer exceeds its limit.
    /// @throws std::system_error, std::bad_alloc
    void Watch(std::uint32_t milliseconds) KORSYS_EXCLUDES(m_watchLock);
    bool IsStarted() const noexcept { return m_first.thread.IsStarted(); }
    /// Any thread: whether there has ever been a thread.
    bool IsEverStarted() const noexcept { return m_isEverStarted.load(std::memory_order_relaxed); }

    // Any thread -------------------------------------------------------------------------------

    /// Nothing that is stamped from now on is delivered; the thread ends when the rest was.
    void EndHere() noexcept;
    /// Has the thread look at once.
    void Wake() noexcept;
    /// Waits for the end of the thread. @return false after the deadline.
    bool JoinUntil(Deadline deadline) noexcept;
    /// Leaves the thread to itself.
    void Detach() noexcept;
    /// Behind the end: whether no deposed thread is left inside of a consumer. Those that are, are
    /// left to themselves.
    bool JoinDeposed() noexcept;

    /// Whether what was stamped then is behind the end.
    bool EndsBefore(std::uint64_t order) const noexcept {
        return m_end.load(std::memory_order_relaxed) < order;
    }

    Flushes& GetFlushes() noexcept { return m_flushes; }

    /// Has the thread look, if nobody else has since it looked last.
    void WakeOnce() noexcept;

    /// Drops the oldest events of all queues until so many bytes are taken from the queue limit.
    /// What they held is destroyed on the calling thread.
    /// @return false, having taken nothing, when another thread is at it, or the delivery thread
    ///         has not yet made way for it.
    bool DropOldest(std::size_t bytes) noexcept;
    bool SharesReading() const noexcept { return m_isShared.load(std::memory_order_relaxed); }
    /// Waits until the delivery thread makes way for DropOldest, or until the deadline.
    void WaitForSharing(Deadline deadline) const noexcept;

    // Figures; relaxed numbers for themselves.
    std::uint64_t DroppedOldest() const noexcept {
        return m_droppedOldest.load(std::memory_order_relaxed);
    }
    std::uint64_t LostAtEnd() const noexcept { return m_lostAtEnd.load(std::memory_order_relaxed); }
    /// Not before this was the oldest event emitted that is not delivered, in ticks.
    std::uint64_t OldestTicks() const noexcept { return m_oldest.load(std::memory_order_relaxed); }
    /// The thread has ended, and what is queued is never delivered. Acquire: its figures.
    bool HasEnded() const noexcept { return m_hasEnded.load(std::memory_order_acquire); }

private:
    /// Held by the delivery thread while it reads queues that DropOldest may read too.
    class Reading;

    /// One delivery thread. There is one at a time; another one waits to depose it where a consumer
    /// has a time limit.
    struct Turn {
        Delivery& delivery;
        DeliveryCalls& calls;
        TimedThread thread;
        Merge merge;
        DeliveredEvent event;
        MetricsEvent gapEvent;            // here, since another thread may go on with it
        std::atomic<bool> hasLeft{false}; // nothing of ours is touched any more
        std::atomic<Turn*> next{nullptr}; // in the order of their starts
    };
    /// Another one, with what the consumers know of it.
    struct FurtherTurn;

    /// The events that the stream does not tell of yet: they are lost to the limit.
    struct Gap {
        std::uint64_t ticks = std::numeric_limits<std::uint64_t>::max(); // of the first one
        std::uint64_t wall = 0;
        std::uint64_t lost = 0;

        void Add(std::uint64_t count, std::uint64_t firstTicks, std::uint64_t firstWall) noexcept;
    };

    static void RunFirst(void* turn);
    static void RunStandby(void* turn);
    void Init();
    void Run(Turn& turn);
    static void FreeTurn(Turn& turn);
    void LeaveDeposed(Turn& turn);
    void StartStandby() KORSYS_REQUIRES(m_watchLock);
    void TakeOver(Turn& turn, DeliveryCalls& other);
    bool DeliverUpTo(Turn& turn, std::uint64_t cut);
    bool LookAtQueues(Turn& turn, std::uint64_t cut);
    bool DeliverMerged(Turn& turn);
    bool GoOnBehind(Turn& turn, DeliveryCalls& other);
    static void WaitForEvent(const Turn& turn);
    void ShareReading();
    bool IsGapDue(const Record* next) const noexcept;
    void MakeGapEvent(MetricsEvent& event);
    void NoteFaults();
    void LookAtMemory() noexcept;
    void BalanceMemory() noexcept;
    void End();

    Turn m_first{*this, s_consumers.FirstTurn(), {}, {}, {}, {}};
    korsys::Mutex m_watchLock;
    std::atomic<Turn*> m_standby{nullptr};     // written under that lock
    std::atomic<unsigned int> m_watchPause{0}; // ms
    std::atomic<int> m_threads{0};             // of ours
    std::function<void()> m_init;              // until the thread runs

    std::atomic<std::uint64_t> m_end{std::numeric_limits<std::uint64_t>::max()};
    korsys::TEvent m_wake{false};    // cuts a pause short
    korsys::TEvent m_stopped{false}; // signalled as the thread's last act
    korsys::TEvent m_ends{false};    // for the one that stands by
    Flushes m_flushes;

    // Reading of the queues, where DropOldest may do it too.
    korsys::Mutex m_reading;
    std::atomic<bool> m_isShared{false}; // the thread reads under that lock
    std::uint64_t m_drops = 0;           // that lock: how often the others have read
    Gap m_dropGap;                       // that lock

    // Figures.
    std::atomic<std::uint64_t> m_droppedOldest{0};
    std::atomic<std::uint64_t> m_lostAtEnd{0};
    std::atomic<std::uint64_t> m_oldest{0};
    std::atomic<bool> m_isEverStarted{false};
    std::atomic<bool> m_hasEnded{false};
    std::atomic<bool> m_isWoken{false};

    // The thread's own.
    std::uint64_t m_seenDrops = 0; // m_drops when the queues were looked at
    Gap m_gap;
    std::uint64_t m_gapsUntil = 0; // ticks; those that began later wait for the next batch
    std::uint64_t m_lastTicks = 0; // of the last event delivered, or gap
    std::uint64_t m_lastWall = 0;
    bool m_isBehindRecord = true; // it was not a gap
    std::size_t m_delivered = 0;  // in this batch
    std::size_t m_peak = 0;       // chunks that bursts have lately needed
    Deadline m_peakAt{};
    Deadline m_trimAt{};         // when memory may be given back again
    std::size_t m_untrimmed = 0; // free chunks that could not be given back last time
};

/// The object, made on first use in static storage. Under the lifecycle's lock.
Delivery& MakeDelivery() noexcept;

/// Null before the first Enable. Acquire: the object.
Delivery* FindDelivery() noexcept;

/// See QueueLimit::MakeRoom.
bool MakeRoom(std::size_t bytes) noexcept;
/// Whether the queue limit's policy is this.
bool DropsOldest() noexcept;

/// Waits until everything that was queued at the call has been delivered.
/// @return false after the deadline, and when there is no delivery that it could wait for.
bool FlushUntil(Deadline deadline);

} // namespace Metrics::detail

#endif // METRICS_SRC_DELIVERY_H
