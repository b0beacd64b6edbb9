#include "ManagerState.h"

#include <metrics/MetricsContext.h>
#include <metrics/MetricsManager.h>
#include <metrics/MetricsTimer.h>

#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>
#include <mutex>
#include <new>

namespace Metrics {

using detail::IsOff;
using detail::ManagerState;
using detail::s_live;
using detail::SectionGuard;
using detail::t_thread;
using std::chrono::steady_clock;

namespace detail {

constinit LiveState s_live;
constinit LiveMask s_liveMask;

} // namespace detail

constinit MetricsManager MetricsManager::s_interface;

namespace {

constexpr std::chrono::milliseconds stopWait{1000};

/// Guards the making and the claiming of the instance and the start of the delivery thread.
constinit std::mutex s_lifecycleLock;

constinit std::atomic<bool> s_disabling{false}; // somebody has begun to switch the library off
constinit std::atomic<bool> s_freeing{false};   // somebody has claimed the instance, to free it
constinit std::atomic<ManagerState*> s_abandoned{nullptr}; // kept for a thread that never ended
constinit std::atomic<bool> s_started{false};   // a delivery thread was started, or was to be
constinit bool s_forkHandlerRegistered = false; // written at load, then under s_lifecycleLock
// Written and read by the thread that ends the process or unloads the library.
constinit std::atomic<bool> s_unloading{false};
constinit std::atomic<bool> s_exiting{false};

void RegisterForkHandler() noexcept;

/// Runs when the process exits or the library is unloaded.
struct MetricsManagerHolder {
    MetricsManagerHolder() noexcept { RegisterForkHandler(); }
    ~MetricsManagerHolder() {
        MetricsManager::ShutdownAndFreeInstance();
        // At exit other threads may still come by, and the memory goes with the process.
        if (!s_exiting && !detail::InForkedChild() &&
            s_abandoned.load(std::memory_order_relaxed) == nullptr)
            s_live.m_threadContexts.FreeRecords();
    }
};

// The library's static initialisers: the manager's first, the clock's second.
[[gnu::init_priority(200)]] MetricsManagerHolder s_metricsManager;

/// At unload the loader runs this first, before the destructors of static objects. At exit it may
/// run before or after them, but always after what was registered once main had begun.
[[gnu::destructor]] void MarkUnloading() {
    s_unloading = true;
}

/// All relaxed: the child's threads but the one that forked are gone. When the library was started,
/// so is the delivery: everything is off, and what they may have held is left as it is. Otherwise
/// the child may start it.
void ContinueInChild() {
    if (!s_started.load(std::memory_order_relaxed)) {
        s_live.m_threadContexts.AdoptInChild();
        ::new (&s_lifecycleLock) std::mutex; // another thread may have held it
        return;
    }
    s_live.m_forkedChild.store(true, std::memory_order_relaxed);
    s_live.s_metricsManagerDisabled.store(true, std::memory_order_relaxed);
    s_live.m_enabled.store(false, std::memory_order_relaxed);
    detail::s_liveMask.m_bits.store(0, std::memory_order_relaxed);
    s_live.m_hasSyncSubscribers.store(false, std::memory_order_relaxed);
    s_live.m_queue.store(nullptr, std::memory_order_relaxed);
    s_abandoned.store(s_live.m_instance.exchange(nullptr, std::memory_order_relaxed),
                      std::memory_order_relaxed);
}

/// At load, and again at the start of the delivery if there was no memory then.
void RegisterForkHandler() noexcept {
    if (!s_forkHandlerRegistered)
        s_forkHandlerRegistered = pthread_atfork(nullptr, nullptr, ContinueInChild) == 0;
}

/// A delivery thread that did not end in time will go on in this code, so it must stay. While the
/// library is being unloaded it is too late for that.
void KeepLibraryLoaded() noexcept {
    if (s_unloading)
        return;
    Dl_info info;
    void* handle = nullptr;
    if (dladdr(&s_live, &info) != 0 && info.dli_fname != nullptr)
        handle = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    if (handle == nullptr) // the path was relative, and the working directory has changed
        handle = dlopen(METRICS_SONAME, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    if (handle != nullptr)
        dlclose(handle); // the flag stays
}

void CreateInstance() {
    if (IsOff())
        return;
    const std::lock_guard lock(s_lifecycleLock);
    if (s_live.m_instance.load(std::memory_order_relaxed) != nullptr ||
        s_freeing.load(std::memory_order_relaxed))
        return;
    auto instance = std::make_unique<ManagerState>();
    if (std::atexit([] { s_exiting = !s_unloading; }) != 0)
        throw std::bad_alloc(); // the only reason for it to fail
    // Release: the new instance. Sequentially consistent, see Instance.
    s_live.m_instance.store(instance.release(), std::memory_order_seq_cst);
}

/// The instance, for use inside an operation section only. Sequentially consistent: whoever frees
/// it clears the pointer, then looks at the sections.
ManagerState* Instance() noexcept {
    return s_live.m_instance.load(std::memory_order_seq_cst);
}

/// Runs `operation` on the instance, or returns `otherwise` when the library is off or has none.
template <class Result, class Operation>
Result WithInstance(Result otherwise, Operation operation) {
    if (IsOff())
        return otherwise;
    const SectionGuard guard(s_live.m_threadContexts.Current().operation);
    ManagerState* const instance = Instance();
    return instance == nullptr ? otherwise : operation(*instance);
}

struct Stamp {
    std::uint64_t timestamp = AppUpTime();
    std::uint64_t unixSeconds;
    std::uint32_t unixMicroseconds;
    Stamp() noexcept { CurrentUnixTime(&unixSeconds, &unixMicroseconds); }
};

bool Accepts(std::uint64_t bits) noexcept {
    return s_live.m_enabled.load(std::memory_order_relaxed) && !IsOff() &&
           detail::PassesLiveMask(bits);
}

void DeliverSynchronously(detail::ThreadRecord& record, const MetricsEvent& event) {
    const SectionGuard guard(record.operation);
    if (ManagerState* const instance = Instance(); instance != nullptr)
        instance->DeliverSynchronously(event);
}

/// The general road: an event that stands somewhere already. `append` puts it into the buffer.
template <class Append>
void EmitStamped(detail::ThreadRecord& record, const MetricsEvent& event, Append append) {
    // Sequentially consistent: a consumer whose registration has returned is not missed.
    if (s_live.m_hasSyncSubscribers.load(std::memory_order_seq_cst))
        DeliverSynchronously(record, event);
    const SectionGuard guard(record.append);
    // Sequentially consistent, see Section::Enter: the delivery thread changes the pointer, then
    // looks at the sections. It also acquires the emptied buffer.
    if (detail::EventBuffer* const queue = s_live.m_queue.load(std::memory_order_seq_cst))
        append(*queue);
}

[[gnu::noinline]] void EmitToSynchronousConsumers(detail::ThreadRecord& record,
                                                  MetricsEvent&& event) {
    EmitStamped(record, event, [&event](detail::EventBuffer& queue) {
        queue.Append(event.eventType, event.sourceId, event.contextId, event.bits, event.timestamp,
                     event.unixSeconds, event.unixMicroseconds, std::move(event.param1),
                     std::move(event.param2));
    });
}

} // namespace

namespace detail {

void Emit(MetricsEventType type, std::uint64_t sourceId, std::uint64_t contextId,
          std::uint64_t bits, MetricsValue&& param1, MetricsValue&& param2) {
    if (!Accepts(bits))
        return;
    ThreadRecord& record = s_live.m_threadContexts.Current();
    const Stamp stamp;
    if (s_live.m_hasSyncSubscribers.load(std::memory_order_seq_cst)) [[unlikely]] {
        EmitToSynchronousConsumers(record,
                                   MetricsEvent{type, sourceId, contextId, bits, stamp.timestamp,
                                                stamp.unixSeconds, stamp.unixMicroseconds,
                                                std::move(param1), std::move(param2)});
        return;
    }
    const SectionGuard guard(record.append);
    // As in EmitStamped.
    if (EventBuffer* const queue = s_live.m_queue.load(std::memory_order_seq_cst)) [[likely]]
        queue->Append(type, sourceId, contextId, bits, stamp.timestamp, stamp.unixSeconds,
                      stamp.unixMicroseconds, std::move(param1), std::move(param2));
}

void ManagerState::Enable() {
    const std::lock_guard lock(s_lifecycleLock);
    if (s_disabling.load(std::memory_order_relaxed) || m_thread.IsStarted())
        return;
    RegisterForkHandler();
    if (!s_forkHandlerRegistered)
        throw std::bad_alloc();                       // the only reason for it to fail
    s_started.store(true, std::memory_order_relaxed); // a fork copies what this thread has written
    // Accepting from here on: what is emitted before the thread has run is delivered too.
    s_live.m_queue.store(m_buffers.data(), std::memory_order_seq_cst);
    s_live.m_enabled.store(true, std::memory_order_relaxed);
    m_running.store(true, std::memory_order_relaxed);
    try {
        m_thread.Start([](void* self) { static_cast<ManagerState*>(self)->BackgroundThreadProc(); },
                       this);
    } catch (...) {
        m_running.store(false, std::memory_order_relaxed);
        throw;
    }
}

bool ManagerState::DisableUntil(steady_clock::time_point& deadline) noexcept {
    if (s_disabling.exchange(true)) // one caller gets through; the lock below orders the rest
        return false;
    // Waits for an Enable in progress; a later one does nothing.
    bool isStarted = false;
    {
        const std::lock_guard lock(s_lifecycleLock);
        isStarted = m_thread.IsStarted();
    }
    if (isStarted) {
        MetricsEvent event;
        const Stamp stamp;
        event.eventType = MetricsEventType::Shutdown;
        event.timestamp = stamp.timestamp;
        event.unixSeconds = stamp.unixSeconds;
        event.unixMicroseconds = stamp.unixMicroseconds;
        DeliverShutdown(event, deadline);
        if (InForkedChild()) // a consumer has forked, and this is the child
            return false;
        const SectionGuard guard(s_live.m_threadContexts.ShutdownAppend());
        if (EventBuffer* const queue = s_live.m_queue.load(std::memory_order_seq_cst))
            queue->AppendShutdown();
    }
    // Behind the Shutdown: an event that is refused for it was emitted after that.
    s_live.s_metricsManagerDisabled.store(true, std::memory_order_seq_cst);
    if (!isStarted) {
        s_live.m_enabled.store(false, std::memory_order_relaxed);
        detail::s_liveMask.m_bits.store(0, std::memory_order_relaxed);
        s_live.m_queue.store(nullptr, std::memory_order_seq_cst);
        return false;
    }
    m_stopRequested.store(true, std::memory_order_relaxed);
    m_wakeEvent.Signal();
    if (m_stopEvent.WaitUntil(deadline) && m_thread.JoinUntil(deadline)) {
        // Release: whoever sees this may free what the thread has used.
        m_running.store(false, std::memory_order_release);
        return true;
    }
    m_thread.Detach();
    KeepLibraryLoaded();
    return false;
}

void ManagerState::SetThreadInitFunction(std::function<void()>&& function) {
    const std::lock_guard lock(s_lifecycleLock);
    if (!s_disabling.load(std::memory_order_relaxed) && !m_thread.IsStarted())
        m_threadInitFunction.swap(function); // the old one is released by the caller
}

} // namespace detail

// Lifecycle ------------------------------------------------------------------------------------

MetricsManager* MetricsManager::GetInstance() {
    // Acquire: pairs with the release in CreateInstance.
    if (s_live.m_instance.load(std::memory_order_acquire) == nullptr) [[unlikely]]
        CreateInstance();
    return &s_interface;
}

void MetricsManager::ShutdownAndFreeInstance() noexcept {
    if (detail::InForkedChild())
        return;
    ManagerState* instance = nullptr;
    {
        const std::lock_guard lock(s_lifecycleLock);
        instance = s_live.m_instance.load(std::memory_order_relaxed);
        if (instance == nullptr || s_freeing.exchange(true))
            return;
    }
    // From here on only this thread frees the instance. It clears the pointer before it looks at
    // the sections, sequentially consistent: see Instance.
    steady_clock::time_point deadline = steady_clock::now() + stopWait;
    instance->DisableUntil(deadline);
    s_live.m_instance.store(nullptr, std::memory_order_seq_cst);
    if (s_live.m_threadContexts.WaitForOperations(deadline) && instance->IsIdle())
        delete instance;
    else
        s_abandoned.store(instance, std::memory_order_relaxed);
}

void MetricsManager::Enable() {
    GetInstance();
    WithInstance(false, [](ManagerState& instance) {
        instance.Enable();
        return true;
    });
}

bool MetricsManager::Disable() noexcept {
    try {
        GetInstance();
        return WithInstance(false, [](ManagerState& instance) {
            steady_clock::time_point deadline = steady_clock::now() + stopWait;
            return instance.DisableUntil(deadline);
        });
    } catch (const std::bad_alloc&) {
        // No memory for what this thread needs to reach the instance: off, but not confirmed.
        s_live.s_metricsManagerDisabled.store(true, std::memory_order_seq_cst);
        return false;
    }
}

void MetricsManager::SetThreadInitFunction(std::function<void()> function) {
    GetInstance();
    WithInstance(false, [&function](ManagerState& instance) {
        instance.SetThreadInitFunction(std::move(function));
        return true;
    });
}

// Filter bits ----------------------------------------------------------------------------------

bool TestBits(std::uint64_t eventBits, std::uint64_t consumerBits) noexcept {
    return detail::PassesMask(eventBits, consumerBits);
}

bool TestBits(std::uint64_t eventBits) noexcept {
    return detail::PassesLiveMask(eventBits);
}

std::uint64_t MetricsManager::SetBits(std::uint64_t bits) noexcept {
    return IsOff() ? 0 : detail::s_liveMask.m_bits.fetch_or(bits, std::memory_order_relaxed);
}

void MetricsManager::SetBitsAbsolute(std::uint64_t bits) noexcept {
    if (!IsOff())
        detail::s_liveMask.m_bits.store(bits, std::memory_order_relaxed);
}

void MetricsManager::ClearBits(std::uint64_t bits) noexcept {
    if (!IsOff())
        detail::s_liveMask.m_bits.fetch_and(~bits, std::memory_order_relaxed);
}

// Consumers ------------------------------------------------------------------------------------

bool MetricsManager::AddConsumer(MetricsListenerPtr listener, std::uint64_t bits,
                                 bool synchronous) {
    // From inside a consumer call this would wait for that very call.
    if (!listener || t_thread.delivery != nullptr ||
        !s_live.m_enabled.load(std::memory_order_relaxed))
        return false;
    return WithInstance(false, [&](ManagerState& instance) {
        return instance.AddConsumer(std::move(listener), bits, synchronous);
    });
}

bool MetricsManager::RemoveConsumer(MetricsListenerPtr listener) {
    if (t_thread.delivery != nullptr || !s_live.m_enabled.load(std::memory_order_relaxed))
        return false;
    return WithInstance(
        false, [&](ManagerState& instance) { return instance.RemoveConsumer(listener.Get()); });
}

// Events ---------------------------------------------------------------------------------------

void MetricsManager::EmitEvent(std::shared_ptr<MetricsEvent> event) {
    if (event == nullptr || IsOff() || !s_live.m_enabled.load(std::memory_order_relaxed))
        return;
    const bool isShutdown = event->eventType == MetricsEventType::Shutdown;
    if (!isShutdown && !detail::PassesLiveMask(event->bits))
        return;
    detail::ThreadRecord& record = s_live.m_threadContexts.Current();
    const Stamp stamp;
    event->timestamp = stamp.timestamp;
    event->unixSeconds = stamp.unixSeconds;
    event->unixMicroseconds = stamp.unixMicroseconds;
    EmitStamped(record, *event, [&event, isShutdown](detail::EventBuffer& queue) {
        if (isShutdown)
            queue.AppendShutdown();
        else
            queue.Append(std::move(event));
    });
}

void MetricsManager::WaitUntilWritesFlushed(unsigned int milliseconds) {
    if (t_thread.delivery != nullptr || !s_live.m_enabled.load(std::memory_order_relaxed))
        return;
    // The wait itself is outside of the operation, so that nobody waits for it.
    const auto flushed =
        WithInstance(std::shared_ptr<korsys::TEvent>(),
                     [](ManagerState& instance) { return instance.RequestFlush(); });
    if (flushed != nullptr)
        flushed->Wait(milliseconds);
}

// Thread contexts ------------------------------------------------------------------------------

std::shared_ptr<MetricsThreadContext> MetricsManager::GetThreadContext() {
    if (IsOff())
        return std::make_shared<MetricsThreadContext>();
    s_live.m_threadContexts.CurrentContext(); // makes it
    return t_thread.record->context;
}

Context* MetricsManager::GetCurrentThreadContext() noexcept {
    return detail::CurrentContext();
}

std::uint64_t MetricsManager::GetCurrentThreadContextId() noexcept {
    const Context* const current = detail::CurrentContext();
    return current == nullptr ? 0 : current->GetContextId();
}

std::uint64_t MetricsManager::GetNextContextId() noexcept {
    // Relaxed: the number need only be unique.
    return IsOff() ? 0 : s_live.m_nextContextId.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace Metrics
