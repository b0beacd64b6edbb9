#ifndef METRICS_SRC_CONSUMERS_H
#define METRICS_SRC_CONSUMERS_H

#include "BatchListener.h"
#include "ThreadTable.h"

#include <metrics/MetricsEvent.h>
#include <metrics/MetricsFilter.h>

#include <korsys/Mutex.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace Metrics::detail {

using Deadline = std::chrono::steady_clock::time_point;

/// One registration. Whoever walks the list reads it without a lock.
struct Consumer {
    const std::uint64_t bits;
    const MetricsListenerPtr listener;
    BatchListener* const batch; // the same object, when it is one
    std::atomic<Consumer*> next{nullptr};
    std::uint32_t removal = 0;    // the number of its removal, once it was taken out
    Consumer* nextKept = nullptr; // ConsumerList's lock

    Consumer(std::uint64_t b, MetricsListenerPtr&& l) noexcept
        : bits(b), listener(std::move(l)), batch(dynamic_cast<BatchListener*>(listener.Get())) {}
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
    const Consumer* First() const noexcept { return m_first.load(std::memory_order_seq_cst); }
    /// The same as a hint, for whoever need not be exact.
    bool IsEmpty() const noexcept { return m_first.load(std::memory_order_relaxed) == nullptr; }
    /// Changes with every removal. Sequentially consistent, as First.
    std::uint32_t Removals() const noexcept { return m_removals.load(std::memory_order_seq_cst); }

    /// @return false when the list was closed. @throws std::bad_alloc
    bool Add(MetricsListenerPtr&& listener, std::uint64_t bits) KORSYS_EXCLUDES(m_lock);

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
    korsys::Mutex m_lock;
    bool m_isClosed KORSYS_GUARDED_BY(m_lock) = false;
    Consumer* m_kept KORSYS_GUARDED_BY(m_lock) = nullptr;
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

    bool Add(MetricsListenerPtr&& listener, std::uint64_t bits, bool synchronous) {
        return (synchronous ? m_synchronous : m_asynchronous).Add(std::move(listener), bits);
    }

    /// Ends one registration of the listener, a synchronous one first, and waits until no call of
    /// it is in progress.
    enum class Removed { No, Yes, StillCalled };
    Removed RemoveUntil(const IMetricsListener* listener, Deadline deadline);

    /// Whether an emitter has anybody to call. A consumer whose registration has returned is not
    /// missed: the emitter learnt of it after that. Acquire: the registration.
    bool HasSynchronous() const noexcept { return m_synchronous.First() != nullptr; }
    bool HasAsynchronous() const noexcept { return m_asynchronous.First() != nullptr; }

    /// Calls the synchronous consumers. @throws what the first one throws that does.
    void CallSynchronous(ThreadRecord& record, const MetricsEvent& event);
    /// The same for an event that nobody can be told about; what they throw is dropped.
    void CallSynchronousQuietly(ThreadRecord& record, const MetricsEvent& event) noexcept;

    // Delivery thread --------------------------------------------------------------------------

    /// The delivery thread's calls: it stays inside its section from event to event, which saves a
    /// locked instruction for each, and leaves it for a moment when a registration has ended.
    class Calls {
    public:
        explicit Calls(Consumers& consumers) noexcept : m_consumers(consumers) { Enter(); }
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
        Consumers& m_consumers;
        bool m_isInside = false;
        std::uint32_t m_removals = 0;
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
    bool WaitForCalls(const ConsumerList& list, Deadline deadline) const noexcept;

    ConsumerList m_synchronous;
    ConsumerList m_asynchronous;
    Section m_delivery; // the delivery thread is calling asynchronous consumers
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
