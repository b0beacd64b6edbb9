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

/// What one delivery thread is doing with the asynchronous consumers; others may look.
struct DeliveryCalls {
    Section section;                          // it is calling them
    std::atomic<const Consumer*> at{nullptr}; // this one; relaxed, a hint
    std::atomic<std::uint64_t> since{0};      // ticks, not before those of 16 calls ago
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
        explicit Calls(Consumers& consumers) noexcept;
        ~Calls() { Leave(); }
        Calls(const Calls&) = delete;
        Calls& operator=(const Calls&) = delete;

        /// Calls the asynchronous consumers; what they throw is dropped.
        void Call(const MetricsEvent& event, pid_t emitter);
        /// Tells those who gather events that no more come for the time being.
        void EndBatch() noexcept;

        /// Outside of the section, code of the application may run that waits for a removal.
        void Leave() noexcept;
        void Enter() noexcept;

    private:
        void LetRemovalsGoOn() noexcept;
        void CallOne(Consumer& consumer, const MetricsEvent& event);
        void Account() noexcept;

        Consumers& m_consumers;
        DeliveryCalls& m_now;
        bool m_isInside = false;
        std::uint32_t m_removals = 0;

        // The time of short calls is taken a few at once: to read the clock takes longer than they.
        static constexpr std::uint64_t runLength = 16;
        static constexpr std::uint64_t shortCall = 2000; // ns
        Consumer* m_timed = nullptr;                     // who was called last
        std::uint64_t m_run = 0;    // so many calls have not been accounted for
        std::uint64_t m_runEnd = 1; // at so many they are
        std::uint64_t m_usual = 0;  // ns of a usual call
        std::uint64_t m_start = 0;  // ticks
    };

    /// Ends all registrations, waits for the synchronous calls in progress, and lets the consumers
    /// go. Past the deadline those of the synchronous ones are kept.
    void ReleaseAll(Deadline deadline) noexcept;

    /// In a forked child.
    void ResetLocks() noexcept;

private:
    template <class Call>
    static void CallEach(const ConsumerList& list, const MetricsEvent& event, pid_t emitter,
                         Call call);
    template <class Call>
    void CallSynchronousBy(ThreadRecord& record, const MetricsEvent& event, std::uint64_t start,
                           Call call);
    bool WaitForCalls(const ConsumerList& list, Deadline deadline) const noexcept;

    ConsumerList m_synchronous;
    ConsumerList m_asynchronous;
    DeliveryCalls m_delivery;
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
