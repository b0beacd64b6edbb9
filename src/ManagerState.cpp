#include "ManagerState.h"

#include <cxxabi.h>

#include <algorithm>
#include <thread>
#include <utility>

namespace Metrics::detail {

namespace {

constexpr unsigned int idlePause = 100; // ms between looks at an empty buffer
constexpr unsigned int drainStep = 5;   // ms from a swap to the walk; batches what comes meanwhile
constexpr std::chrono::microseconds pollStep{50}; // between looks at what ends in a moment
constexpr std::size_t restingCapacity = 16 * EventBuffer::slotsPerChunk;

class FrameGuard {
public:
    explicit FrameGuard(const IMetricsListener* listener) noexcept
        : m_frame{listener, t_thread.delivery} {
        t_thread.delivery = &m_frame;
    }
    ~FrameGuard() { t_thread.delivery = m_frame.outer; }
    FrameGuard(const FrameGuard&) = delete;
    FrameGuard& operator=(const FrameGuard&) = delete;

private:
    DeliveryFrame m_frame;
};

bool IsBeingCalled(const IMetricsListener* listener) noexcept {
    for (const DeliveryFrame* frame = t_thread.delivery; frame != nullptr; frame = frame->outer)
        if (frame->listener == listener)
            return true;
    return false;
}

/// Calls a consumer and drops what it throws, but for the exception by which glibc ends a thread:
/// that one must pass.
template <class Call>
void CallQuietly(Call&& call) {
    try {
        call();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {}
}

} // namespace

/// Holds the consumer lock for reading. Inside a consumer call the thread holds it already, and
/// must not stand behind a waiting writer, which waits for that very call.
class ManagerState::ReadLock {
public:
    explicit ReadLock(korsys::TReadWriteLock& lock) noexcept
        : m_lock(t_thread.delivery == nullptr ? &lock : nullptr) {
        if (m_lock != nullptr)
            m_lock->LockRead();
    }
    /// Gives up at the deadline; IsHeld tells.
    ReadLock(korsys::TReadWriteLock& lock,
             std::chrono::steady_clock::time_point deadline) noexcept {
        if (t_thread.delivery != nullptr)
            return;
        while (!lock.TryLockRead()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                m_held = false;
                return;
            }
            std::this_thread::sleep_for(pollStep);
        }
        m_lock = &lock;
    }
    ~ReadLock() {
        // A consumer may have forked: the lock in the child is in nobody's hands.
        if (m_lock != nullptr && !InForkedChild())
            m_lock->UnlockRead();
    }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

    bool IsHeld() const noexcept { return m_held; }

private:
    korsys::TReadWriteLock* m_lock = nullptr; // null when it was held before, or not to be had
    bool m_held = true;
};

/// Holds the consumer lock for writing. What is released is declared before it, so that it goes
/// after the lock.
class ManagerState::WriteLock {
public:
    explicit WriteLock(ManagerState& state) noexcept : m_lock(state.m_subscriberLock) {
        // Relaxed: whether the delivery thread sees it one event sooner or later is all the same.
        state.m_waitingWriters.fetch_add(1, std::memory_order_relaxed);
        m_lock.Lock();
        state.m_waitingWriters.fetch_sub(1, std::memory_order_relaxed);
    }
    ~WriteLock() { m_lock.Unlock(); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

private:
    korsys::TReadWriteLock& m_lock;
};

/// The delivery thread's hold for reading: kept from one event to the next, which saves two locked
/// instructions and two calls for each. A registration waits no longer for it than for a hold that
/// ends with each event: for the consumer calls of the event that is being delivered. Nothing is
/// freed under it.
class ManagerState::DeliveryLock {
public:
    explicit DeliveryLock(ManagerState& state) noexcept : m_state(state) {}
    ~DeliveryLock() { Release(); }
    DeliveryLock(const DeliveryLock&) = delete;
    DeliveryLock& operator=(const DeliveryLock&) = delete;

    /// Sees to it that the lock is held; whoever waits to write goes first.
    void Take() noexcept {
        if (m_held && m_state.m_waitingWriters.load(std::memory_order_relaxed) == 0) [[likely]]
            return;
        Release();
        m_state.m_subscriberLock.LockRead();
        m_held = true;
    }
    void Release() noexcept {
        if (std::exchange(m_held, false) && !InForkedChild()) // see ReadLock
            m_state.m_subscriberLock.UnlockRead();
    }

private:
    ManagerState& m_state;
    bool m_held = false;
};

// Consumers ------------------------------------------------------------------------------------

template <class Call>
void ManagerState::DeliverTo(const Subscribers& subscribers, const MetricsEvent& event, Call call) {
    for (const Subscriber& subscriber : subscribers) {
        IMetricsListener* const listener = subscriber.listener.Get(); // the lock keeps it alive
        if (!PassesMask(event.bits, subscriber.bits) || IsBeingCalled(listener))
            continue;
        const FrameGuard frame(listener);
        call(*listener);
        if (InForkedChild())
            return;
    }
}

void ManagerState::DeliverSynchronously(const MetricsEvent& event) {
    const ReadLock lock(m_subscriberLock);
    DeliverTo(m_syncSubscribers, event,
              [&event](IMetricsListener& listener) { listener.OnMetricsEvent(event); });
}

void ManagerState::DeliverShutdown(const MetricsEvent& event,
                                   std::chrono::steady_clock::time_point& deadline) noexcept {
    if (!s_live.m_hasSyncSubscribers.load(std::memory_order_seq_cst))
        return;
    // A consumer may be stuck, and a registration may wait for it: that must not stop the end.
    const ReadLock lock(m_subscriberLock, deadline);
    if (!lock.IsHeld())
        return;
    const auto start = std::chrono::steady_clock::now();
    DeliverTo(m_syncSubscribers, event, [&event](IMetricsListener& listener) {
        CallQuietly([&] { listener.OnMetricsEvent(event); });
    });
    // What the consumers take is not taken from the delivery.
    deadline += std::chrono::steady_clock::now() - start;
}

bool ManagerState::AddConsumer(MetricsListenerPtr&& listener, std::uint64_t bits,
                               bool synchronous) {
    const WriteLock lock(*this);
    if (!s_live.m_enabled.load(std::memory_order_relaxed)) // the delivery thread has ended
        return false;
    // In two steps: when the first fails, the listener is released after the lock.
    Subscribers& subscribers = synchronous ? m_syncSubscribers : m_asyncSubscribers;
    subscribers.push_back(Subscriber{bits, nullptr, dynamic_cast<BatchListener*>(listener.Get())});
    subscribers.back().listener = std::move(listener);
    if (synchronous)
        s_live.m_hasSyncSubscribers.store(true, std::memory_order_seq_cst);
    return true;
}

bool ManagerState::Erase(Subscribers& subscribers, const IMetricsListener* listener,
                         MetricsListenerPtr& released) {
    const auto found =
        std::find_if(subscribers.begin(), subscribers.end(),
                     [listener](const Subscriber& s) { return s.listener.Get() == listener; });
    if (found == subscribers.end())
        return false;
    released = std::move(found->listener);
    subscribers.erase(found);
    return true;
}

bool ManagerState::RemoveConsumer(const IMetricsListener* listener) {
    MetricsListenerPtr released; // let go after the lock
    const WriteLock lock(*this);
    const bool found = Erase(m_syncSubscribers, listener, released) ||
                       Erase(m_asyncSubscribers, listener, released);
    if (m_syncSubscribers.empty())
        s_live.m_hasSyncSubscribers.store(false, std::memory_order_seq_cst);
    return found;
}

void ManagerState::ReleaseConsumers() {
    Subscribers syncSubscribers;
    Subscribers asyncSubscribers;
    const WriteLock lock(*this);
    syncSubscribers.swap(m_syncSubscribers);
    asyncSubscribers.swap(m_asyncSubscribers);
    // Under the lock, so that no consumer is registered behind this.
    s_live.m_enabled.store(false, std::memory_order_relaxed);
    // Released after the lock: a consumer's destructor may call the manager.
}

// Delivery thread ------------------------------------------------------------------------------

EventBuffer& ManagerState::Other(const EventBuffer& buffer) noexcept {
    return m_buffers[&buffer == m_buffers.data() ? 1 : 0];
}

void ManagerState::RunThreadInitFunction() {
    std::function<void()> function;
    function.swap(m_threadInitFunction); // released here: its code may be gone later
    if (function)
        CallQuietly(function);
}

bool ManagerState::DeliverBatch(EventBuffer& filled, bool urgent) {
    // Sequentially consistent: see Section::Enter. It also hands the emptied buffer over.
    s_live.m_queue.store(&Other(filled), std::memory_order_seq_cst);
    if (!urgent)
        m_wakeEvent.Wait(drainStep);
    s_live.m_threadContexts.WaitForAppends([] { std::this_thread::sleep_for(pollStep); });

    const std::size_t before = filled.Capacity();
    const std::size_t events = filled.Size();
    DeliveryLock lock(*this);
    const bool shutdown = filled.Walk(
        [this, &lock](const MetricsEvent& event) {
            lock.Take();
            DeliverTo(m_asyncSubscribers, event, [&event](IMetricsListener& listener) {
                CallQuietly([&] { listener.OnMetricsEvent(event); });
            });
            return !InForkedChild(); // whose parent owns the buffer
        },
        [&lock] { lock.Release(); });
    if (InForkedChild())
        return false;
    lock.Take();
    for (const Subscriber& subscriber : m_asyncSubscribers) {
        if (subscriber.batch != nullptr) {
            const FrameGuard frame(subscriber.batch);
            subscriber.batch->OnBatchEnd();
        }
    }
    lock.Release();
    // A buffer that has grown shrinks by and by, so that an uneven load does not allocate each
    // time; an empty one was swapped out to be shrunk.
    m_trimmed += filled.Trim(
        events == 0 ? restingCapacity : std::max({events, before - before / 8, restingCapacity}));
    return shutdown;
}

void ManagerState::BackgroundThreadProc() {
    RunThreadInitFunction();
    if (InForkedChild())
        return;
    bool wasIdle = false;
    for (bool shutdown = false; !shutdown;) {
        m_wakeEvent.Reset();
        std::shared_ptr<korsys::TEvent> flushed;
        {
            const std::lock_guard lock(m_flushLock);
            flushed.swap(m_flushedEvent);
        }
        EventBuffer& filling = *s_live.m_queue.load(std::memory_order_relaxed);
        const bool isEmpty = filling.IsEmpty();
        const bool isOversized = wasIdle && filling.Capacity() > restingCapacity;
        if (!isEmpty || isOversized)
            shutdown = DeliverBatch(filling, flushed != nullptr ||
                                                 m_stopRequested.load(std::memory_order_relaxed));
        if (InForkedChild())
            return; // a consumer has forked, and this is the child
        if (flushed != nullptr)
            flushed->Signal();
        const bool isQuiet = isEmpty && wasIdle;
        wasIdle = isEmpty;
        if (!isEmpty || isOversized)
            continue;
        // In a quiet moment only: the allocator keeps what it is given for the next burst.
        if (isQuiet)
            m_trimmed += Other(filling).Trim(restingCapacity);
        if (isQuiet && std::exchange(m_trimmed, 0) > restingCapacity)
            EventBuffer::ReturnMemory();
        m_wakeEvent.Wait(idlePause);
    }

    ReleaseConsumers();
    if (InForkedChild())
        return;
    s_liveMask.m_bits.store(0, std::memory_order_relaxed);
    s_live.m_queue.store(nullptr, std::memory_order_seq_cst);
    EndFlushes();
    m_stopEvent.Signal();
}

// Flush ----------------------------------------------------------------------------------------

std::shared_ptr<korsys::TEvent> ManagerState::RequestFlush() {
    std::shared_ptr<korsys::TEvent> flushed;
    {
        const std::lock_guard lock(m_flushLock);
        if (m_flushEnded)
            return nullptr;
        if (m_flushedEvent == nullptr)
            m_flushedEvent = std::make_shared<korsys::TEvent>(false);
        flushed = m_flushedEvent;
    }
    m_wakeEvent.Signal();
    return flushed;
}

void ManagerState::EndFlushes() {
    std::shared_ptr<korsys::TEvent> flushed;
    {
        const std::lock_guard lock(m_flushLock);
        m_flushEnded = true;
        flushed.swap(m_flushedEvent);
    }
    if (flushed != nullptr)
        flushed->Signal();
}

} // namespace Metrics::detail
