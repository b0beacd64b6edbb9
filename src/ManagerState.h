#ifndef METRICS_SRC_MANAGER_STATE_H
#define METRICS_SRC_MANAGER_STATE_H

#include "BatchListener.h"
#include "DeliveryThread.h"
#include "EventBuffer.h"
#include "ThreadTable.h"

#include <metrics/MetricsManager.h>

#include <korsys/TEvent.h>
#include <korsys/TReadWriteLock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

namespace Metrics::detail {

/// What every call reads, beside the mask (s_liveMask). Constant-initialised and never destroyed,
/// so that calls before the first static initialiser and after the last destructor are as good as
/// any other.
struct LiveState {
    // Written at configuration time, m_queue once in a batch; read by every call.
    alignas(64) std::atomic<bool> m_enabled{false};    // relaxed: m_queue says for certain
    std::atomic<bool> m_hasSyncSubscribers{false};     // sequentially consistent when written
    std::atomic<bool> s_metricsManagerDisabled{false}; // final
    std::atomic<bool> m_forkedChild{false};            // final
    std::atomic<EventBuffer*> m_queue{nullptr}; // the filling buffer; null when there is none
    std::atomic<class ManagerState*> m_instance{nullptr}; // null: not made yet, or gone

    // Written by every thread that makes contexts.
    alignas(64) std::atomic<std::uint64_t> m_nextContextId{0};

    // Written when a thread comes for the first time.
    alignas(64) ThreadTable m_threadContexts;
};

static_assert(offsetof(LiveState, m_nextContextId) == 64,
              "what every call reads is one cache line that no emitter writes");

static_assert(std::is_trivially_destructible_v<LiveState>, "it is used until the process ends");

extern constinit LiveState s_live;

/// Whether the library was switched off for good.
inline bool IsOff() noexcept {
    // Relaxed: a call that races with Disable may go either way; what it must not touch any more
    // it finds through m_instance and m_queue.
    return s_live.s_metricsManagerDisabled.load(std::memory_order_relaxed);
}

/// Whether this process is a fork of one that had the library in use.
inline bool InForkedChild() noexcept {
    return s_live.m_forkedChild.load(std::memory_order_relaxed);
}

/// The calling thread's current context; null for none.
inline Context* CurrentContext() noexcept {
    const MetricsThreadContext* const context = t_thread.context;
    return context == nullptr || IsOff() ? nullptr : context->GetCurrentContext();
}

/// Emits an event that the library builds: the road of every context, scope and attribute event.
/// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
void Emit(MetricsEventType type, std::uint64_t sourceId, std::uint64_t contextId,
          std::uint64_t bits, MetricsValue&& param1, MetricsValue&& param2);

/// What is freed when the manager goes: the consumers, the buffers and the delivery thread.
///
/// A thread other than the delivery thread uses it only inside its operation or append section
/// (ThreadTable); it is freed when it is no longer reachable and all sections have been left.
///
/// Locks: s_lifecycleLock and m_flushLock are each taken alone. m_subscriberLock is held for
/// reading while a consumer is called, by the delivery thread from one event to the next, and no
/// lock while one is destroyed.
class ManagerState {
public:
    ManagerState() = default;
    ~ManagerState() = default;
    ManagerState(const ManagerState&) = delete;
    ManagerState& operator=(const ManagerState&) = delete;

    void Enable();
    /// The time that synchronous consumers take for the Shutdown event is added to the deadline.
    bool DisableUntil(std::chrono::steady_clock::time_point& deadline) noexcept;
    void SetThreadInitFunction(std::function<void()>&& function);

    bool AddConsumer(MetricsListenerPtr&& listener, std::uint64_t bits, bool synchronous);
    bool RemoveConsumer(const IMetricsListener* listener);
    void DeliverSynchronously(const MetricsEvent& event);

    /// An event that is signalled when everything queued by now is delivered; null when the
    /// delivery has ended.
    std::shared_ptr<korsys::TEvent> RequestFlush();

    /// Whether no delivery thread exists that could still use this object.
    bool IsIdle() const noexcept {
        // Acquire: pairs with the release of whoever has joined the thread.
        return !m_running.load(std::memory_order_acquire);
    }

private:
    struct Subscriber {
        std::uint64_t bits;
        MetricsListenerPtr listener;
        BatchListener* batch; // the same object, when it is one
    };
    using Subscribers = std::vector<Subscriber>;

    class ReadLock;
    class WriteLock;
    class DeliveryLock;

    void BackgroundThreadProc();
    void RunThreadInitFunction();
    void DeliverShutdown(const MetricsEvent& event,
                         std::chrono::steady_clock::time_point& deadline) noexcept;
    bool DeliverBatch(EventBuffer& filled, bool urgent);
    void ReleaseConsumers();
    void EndFlushes();
    EventBuffer& Other(const EventBuffer& buffer) noexcept;

    template <class Call>
    static void DeliverTo(const Subscribers& subscribers, const MetricsEvent& event, Call call);
    static bool Erase(Subscribers& subscribers, const IMetricsListener* listener,
                      MetricsListenerPtr& released);

    // Guarded by m_subscriberLock.
    Subscribers m_syncSubscribers;
    Subscribers m_asyncSubscribers;
    korsys::TReadWriteLock m_subscriberLock{0};
    std::atomic<int> m_waitingWriters{0}; // not guarded

    // The one that m_queue names is filled by emitters; the delivery thread has the other.
    std::array<EventBuffer, 2> m_buffers;
    std::size_t m_trimmed = 0; // delivery thread: events whose room went back to the allocator

    // Guarded by s_lifecycleLock until the thread runs.
    DeliveryThread m_thread;
    std::function<void()> m_threadInitFunction;
    std::atomic<bool> m_running{false};

    korsys::TEvent m_stopEvent{false};        // signalled by the delivery thread as its last act
    korsys::TEvent m_wakeEvent{false};        // cuts a pause of the delivery thread short
    std::atomic<bool> m_stopRequested{false}; // relaxed: m_wakeEvent publishes it

    // Guarded by m_flushLock. The event is made by the first waiter, and taken by the delivery
    // thread before it looks at the buffer: so whoever holds it sees all that was queued before.
    std::mutex m_flushLock;
    std::shared_ptr<korsys::TEvent> m_flushedEvent;
    bool m_flushEnded = false;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_MANAGER_STATE_H
