#ifndef METRICS_SRC_CONSUMERS_H
#define METRICS_SRC_CONSUMERS_H

#include "BatchListener.h"
#include "ThreadTable.h"

#include <metrics/MetricsEvent.h>
#include <metrics/MetricsFilter.h>
#include <metrics/MetricsOptions.h>
#include <metrics/MetricsStatistics.h>

#include <korsys/Mutex.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

namespace Metrics::detail {

using Deadline = std::chrono::steady_clock::time_point;

/// One registration. Whoever walks the list reads it without a lock.
struct Consumer {
    const std::uint64_t bits;
    const MetricsListenerPtr listener;
    BatchListener* const batch;           // the same object, when it is one
    const MetricsConsumerOptions options; // its name is never empty
    std::atomic<Consumer*> next{nullptr};
    std::uint32_t removal = 0;      // the number of its removal, once it was taken out
    Consumer* nextKept = nullptr;   // ConsumerList's lock
    std::uint32_t registration = 0; // its number among those of its kind, from 1
    std::uint32_t slot = 0;         // in each thread's CallCounts

    // Written by the delivery thread. Of a synchronous one: what no thread has a slot for.
    std::atomic<std::uint64_t> calls{0};
    std::atomic<std::uint64_t> exceptions{0};
    std::atomic<std::uint64_t> total{0};
    std::atomic<std::uint64_t> longest{0};
    // Written by whoever calls it, where something goes wrong.
    std::atomic<std::uint32_t> exceptionsInRow{0};
    std::atomic<bool> isSetAside{false};
    std::atomic<bool> isHeld{false}; // a deposed delivery thread is inside of it

    /// @throws std::bad_alloc
    Consumer(std::uint64_t b, MetricsListenerPtr&& l, const MetricsConsumerOptions& o);

    /// Behind each call: whether it is to be called on.
    void Judge(bool hasThrown, std::uint64_t nanoseconds) noexcept;
    /// @return false when it was set aside before.
    bool SetAside() noexcept;
};

/// The consumers of one kind, in the order of their registration.
///
/// Invariants:
/// 1. The list is changed under the lock only, and walked without it: a registration that was
///    taken out keeps its link, so that whoever stands on it finds the way on.
/// 2. A list is walked only inside a section: the emitting thread's `calls`, or the delivery
///    thread's. Whoever takes a registration out waits, outside of the lock, until every section
///    that was entered before has been left or entered anew. From then on nobody stands on it.
/// 3. A registration that could not be waited for is freed by the next one that could.
///
/// Thread-safety: safe from any thread at any time.
class ConsumerList {
public:
    constexpr ConsumerList() noexcept = default;

    /// Sequentially consistent, as the change in Remove: one who removes sees the section, or the
    /// section sees the removal.
    Consumer* First() const noexcept { return m_first.load(std::memory_order_seq_cst); }
    /// The same as a hint, for whoever need not be exact.
    bool IsEmpty() const noexcept { return m_first.load(std::memory_order_relaxed) == nullptr; }
    /// Changes with every removal. Sequentially consistent, as First.
    std::uint32_t Removals() const noexcept { return m_removals.load(std::memory_order_seq_cst); }

    /// @return false when the list was closed. @throws std::bad_alloc
    bool Add(MetricsListenerPtr&& listener, std::uint64_t bits,
             const MetricsConsumerOptions& options) KORSYS_EXCLUDES(m_lock);

    /// Adds the figures of all registrations. @throws std::bad_alloc
    void Describe(bool synchronous, std::vector<MetricsConsumerStatistics>& to) const
        KORSYS_EXCLUDES(m_lock);

    /// The name of a consumer that may have gone meanwhile; empty then. @throws std::bad_alloc
    std::string NameOf(const Consumer* consumer) const KORSYS_EXCLUDES(m_lock);

    /// Takes out the first registration of the listener, or of any when it is null. It may still be
    /// walked on: what is returned goes to Keep. @return null when there is none.
    Consumer* Remove(const IMetricsListener* listener) KORSYS_EXCLUDES(m_lock);

    /// Nobody is registered from here on.
    void Close() KORSYS_EXCLUDES(m_lock);

    /// Somebody may still stand on it.
    void Keep(Consumer* removed) KORSYS_EXCLUDES(m_lock);
    /// Nobody stands any more on what was taken out up to this removal: frees those that were kept.
    void FreeKept(std::uint32_t removal) KORSYS_EXCLUDES(m_lock);
    /// Frees this one if it is kept; it may be gone.
    void FreeKept(const Consumer* consumer, std::uint32_t registration) KORSYS_EXCLUDES(m_lock);

    /// In a forked child.
    void ResetLock() noexcept;

private:
    std::atomic<Consumer*> m_first{nullptr};
    std::atomic<std::uint32_t> m_removals{0};
    mutable korsys::Mutex m_lock;
    bool m_isClosed KORSYS_GUARDED_BY(m_lock) = false;
    std::uint32_t m_registrations KORSYS_GUARDED_BY(m_lock) = 0;
    Consumer* m_kept KORSYS_GUARDED_BY(m_lock) = nullptr;
};

/// What one delivery thread is doing with the asynchronous consumers. Usually there is one thread.
/// When it does not come back from a call of a consumer with a time limit, a second one deposes it,
/// and goes on behind that call: with the consumers that follow, and then with the next event. The
/// deposed one comes back some day, finds itself deposed, and touches nothing any more.
struct DeliveryCalls {
    Section section;                          // it is calling them
    std::atomic<const Consumer*> at{nullptr}; // this one; relaxed, a hint
    std::atomic<std::uint64_t> since{0};      // ticks, not before those of 16 calls ago

    // A call that another thread watches: its number, or one of the two below.
    static constexpr std::uint64_t notWatched = 0;
    static constexpr std::uint64_t deposed = ~std::uint64_t{0};
    std::atomic<std::uint64_t> watched{notWatched};
    std::atomic<std::uint64_t> limit{0}; // ns that it may take; relaxed, a hint

    // Of the watched call; read by the one who has deposed its thread.
    std::uint64_t number = 0;
    Consumer* consumer = nullptr;
    const MetricsEvent* event = nullptr;
    pid_t emitter = 0;

    std::atomic<bool> isEventFree{false}; // deposed: the other one has done with the event
    std::atomic<DeliveryCalls*> next{nullptr};

    bool IsDeposed() const noexcept { return watched.load(std::memory_order_acquire) == deposed; }
};

/// Who is called, and by whom. Emitters share nothing here: no emitter waits for a registration,
/// and none writes where another one reads. A registration waits for nobody; the end of one waits
/// for calls of its own kind.
///
/// Locks: those of the lists, each taken alone and held for a few instructions. No consumer is
/// called or destroyed under one.
///
/// Thread-safety: safe from any thread at any time, but for the delivery thread's operations.
class Consumers {
public:
    constexpr Consumers() noexcept = default;

    bool Add(MetricsListenerPtr&& listener, std::uint64_t bits, bool synchronous,
             const MetricsConsumerOptions& options) {
        return (synchronous ? m_synchronous : m_asynchronous)
            .Add(std::move(listener), bits, options);
    }

    /// The figures of all registrations. @throws std::bad_alloc
    void Describe(std::vector<MetricsConsumerStatistics>& to) const;
    /// Who is being called by the delivery thread, and for how many nanoseconds; empty and 0 for
    /// nobody. @throws std::bad_alloc
    std::string NowCalled(std::uint64_t& nanoseconds) const;

    /// Ends one registration of the listener, a synchronous one first, and waits until no call of
    /// it is in progress.
    enum class Removed { No, Yes, StillCalled };
    Removed RemoveUntil(const IMetricsListener* listener, Deadline deadline);

    /// Whether an emitter has anybody to call. A consumer whose registration has returned is not
    /// missed: the emitter learnt of it after that. Acquire: the registration.
    bool HasSynchronous() const noexcept { return m_synchronous.First() != nullptr; }
    bool HasAsynchronous() const noexcept { return m_asynchronous.First() != nullptr; }

    /// Calls the synchronous consumers. `start` is the steady clock's present time.
    /// @throws what the first one throws that does.
    void CallSynchronous(ThreadRecord& record, const MetricsEvent& event, std::uint64_t start);
    /// The same for an event that nobody can be told about; what they throw is dropped.
    void CallSynchronousQuietly(ThreadRecord& record, const MetricsEvent& event,
                                std::uint64_t start) noexcept;

    // Delivery thread --------------------------------------------------------------------------

    /// The delivery thread's calls: it stays inside its section from event to event, which saves a
    /// locked instruction for each, and leaves it for a moment when a registration has ended.
    class Calls {
    public:
        Calls(Consumers& consumers, DeliveryCalls& turn) noexcept;
        ~Calls() { Leave(); }
        Calls(const Calls&) = delete;
        Calls& operator=(const Calls&) = delete;

        /// Calls the asynchronous consumers; what they throw is dropped.
        /// @return false when this thread was deposed in one of them.
        bool Call(const MetricsEvent& event, pid_t emitter);
        /// The same for the consumers behind the one in which another thread was deposed.
        bool CallBehind(const DeliveryCalls& other);
        /// Tells those who gather events that no more come for the time being.
        void EndBatch() noexcept;

        /// Outside of the section, code of the application may run that waits for a removal.
        void Leave() noexcept;
        void Enter() noexcept;

    private:
        void LetRemovalsGoOn() noexcept;
        void Pause() noexcept;
        bool CallFrom(Consumer* first, const MetricsEvent& event, pid_t emitter);
        bool CallOne(Consumer& consumer, const MetricsEvent& event, pid_t emitter);
        void Account() noexcept;

        Consumers& m_consumers;
        DeliveryCalls& m_now;
        bool m_isInside = false;
        std::uint32_t m_removals = 0;
        BatchListener* m_open = nullptr; // to be told of a pause

        // The time of short calls is taken a few at once: to read the clock takes longer than they.
        static constexpr std::uint64_t runLength = 16;
        static constexpr std::uint64_t shortCall = 2000; // ns
        Consumer* m_timed = nullptr;                     // who was called last
        std::uint64_t m_run = 0;    // so many calls have not been accounted for
        std::uint64_t m_runEnd = 1; // at so many they are
        std::uint64_t m_usual = 0;  // ns of a usual call
        std::uint64_t m_start = 0;  // ticks
    };

    /// The first delivery thread's, and those that follow.
    DeliveryCalls& FirstTurn() noexcept { return m_firstTurn; }
    void AddTurn(DeliveryCalls& turn) noexcept;
    DeliveryCalls& PresentTurn() noexcept { return *m_turn.load(std::memory_order_acquire); }
    /// Deposes a delivery thread whose watched call takes too long; the caller goes on in its turn.
    bool Depose(DeliveryCalls& other, DeliveryCalls& own) noexcept;
    /// The deposed thread has come back: lets the consumer go in which it was.
    void LeaveDeposed(DeliveryCalls& turn) noexcept;

    /// Ends all registrations, waits for the synchronous calls in progress, and lets the consumers
    /// go. Past the deadline those of the synchronous ones are kept.
    void ReleaseAll(Deadline deadline) noexcept;

    /// In a forked child.
    void ResetLocks() noexcept;

private:
    /// Calls `call` with each consumer from this one on that the event is for, until one says no.
    template <class Call>
    static bool CallEach(Consumer* first, const MetricsEvent& event, pid_t emitter, Call call);
    template <class Call>
    void CallSynchronousBy(ThreadRecord& record, const MetricsEvent& event, std::uint64_t start,
                           Call call);
    bool WaitForCalls(const ConsumerList& list, const Consumer* removed,
                      Deadline deadline) const noexcept;

    ConsumerList m_synchronous;
    ConsumerList m_asynchronous;
    DeliveryCalls m_firstTurn;                        // oldest first
    std::atomic<DeliveryCalls*> m_turn{&m_firstTurn}; // the present one
};

extern constinit Consumers s_consumers;

/// Whether the thread is inside of a consumer call.
inline bool IsInsideCall() noexcept {
    return t_thread.delivery != nullptr;
}

/// Ends one registration of the listener, as MetricsManager::RemoveConsumer does.
Consumers::Removed RemoveConsumerUntil(const IMetricsListener* listener, Deadline deadline);

} // namespace Metrics::detail

#endif // METRICS_SRC_CONSUMERS_H
