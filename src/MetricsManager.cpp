#include "Consumers.h"
#include "ContextState.h"
#include "Delivery.h"
#include "Emit.h"
#include "Faults.h"
#include "Ledger.h"
#include "Lifecycle.h"
#include "QueueLimit.h"

#include <metrics/MetricsContext.h>
#include <metrics/MetricsManager.h>

#include <korsys/NoCancellation.h>

#include <new>
#include <system_error>
#include <utility>

namespace Metrics {

using detail::IsOff;
using detail::s_consumers;
using detail::s_life;
using std::chrono::steady_clock;

namespace {

/// Drawn by every thread that makes contexts, hence alone on its cache line.
struct alignas(64) ContextIds {
    std::atomic<std::uint64_t> last{0};
};

constinit ContextIds s_contextIds;

} // namespace

constinit MetricsManager MetricsManager::s_interface;

// Lifecycle ------------------------------------------------------------------------------------

MetricsManager* MetricsManager::GetInstance() {
    s_life.NeedInstance();
    return &s_interface;
}

void MetricsManager::ShutdownAndFreeInstance() noexcept {
    s_life.ShutDown();
}

void MetricsManager::Enable() {
    s_life.Enable();
}

bool MetricsManager::Enable(std::error_code& error) noexcept try {
    const korsys::NoCancellation guard;
    error.clear();
    Enable();
    return s_life.Accepts();
} catch (const std::system_error& failure) {
    error = failure.code();
    return false;
} catch (const std::bad_alloc&) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return false;
}

bool MetricsManager::Disable() noexcept {
    return s_life.Disable();
}

MetricsShutdownReport MetricsManager::Shutdown(unsigned int milliseconds) noexcept {
    return s_life.Shutdown(milliseconds);
}

void MetricsManager::SetThreadInitFunction(std::function<void()> function) {
    s_life.SetThreadInitFunction(std::move(function));
}

// Filter bits ----------------------------------------------------------------------------------

bool TestBits(std::uint64_t eventBits, std::uint64_t consumerBits) noexcept {
    return detail::PassesMask(eventBits, consumerBits);
}

bool TestBits(std::uint64_t eventBits) noexcept {
    return detail::PassesLiveMask(eventBits);
}

namespace {

/// @return the mask as it was before; 0 when the library is off.
template <class Change>
std::uint64_t ChangeMask(Change change) noexcept {
    if (IsOff())
        return 0;
    std::atomic<std::uint64_t>& mask = detail::s_liveMask.m_bits;
    const std::uint64_t before = change(mask);
    if (IsOff()) // meanwhile: the mask stays empty from then on
        mask.store(0, std::memory_order_relaxed);
    return before;
}

} // namespace

std::uint64_t MetricsManager::SetBits(std::uint64_t bits) noexcept {
    return ChangeMask(
        [bits](auto& mask) { return mask.fetch_or(bits, std::memory_order_relaxed); });
}

void MetricsManager::SetBitsAbsolute(std::uint64_t bits) noexcept {
    ChangeMask([bits](auto& mask) { return mask.exchange(bits, std::memory_order_relaxed); });
}

void MetricsManager::ClearBits(std::uint64_t bits) noexcept {
    ChangeMask([bits](auto& mask) { return mask.fetch_and(~bits, std::memory_order_relaxed); });
}

// Consumers ------------------------------------------------------------------------------------

bool MetricsManager::AddConsumer(MetricsListenerPtr listener, std::uint64_t bits,
                                 bool synchronous) {
    return AddConsumer(std::move(listener), bits, synchronous, {});
}

bool MetricsManager::AddConsumer(MetricsListenerPtr listener, std::uint64_t bits, bool synchronous,
                                 const MetricsConsumerOptions& options) {
    s_life.NoticeFork();
    if (!listener || detail::IsInsideCall() || !s_life.Accepts())
        return false;
    if (!synchronous && options.maxCallMilliseconds != 0)
        s_life.Watch(options.maxCallMilliseconds);
    return s_consumers.Add(std::move(listener), bits, synchronous, options);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as the interface has it
bool MetricsManager::RemoveConsumer(MetricsListenerPtr listener) {
    return detail::RemoveConsumerUntil(listener.Get(), steady_clock::time_point::max()) !=
           detail::Consumers::Removed::No;
}

// Events ---------------------------------------------------------------------------------------

void MetricsManager::EmitEvent(std::shared_ptr<MetricsEvent> event) {
    if (event != nullptr)
        detail::Emit(std::move(event));
}

void MetricsManager::WaitUntilWritesFlushed(unsigned int milliseconds) {
    detail::FlushUntil(steady_clock::now() + std::chrono::milliseconds(milliseconds));
}

// Operation ------------------------------------------------------------------------------------

MetricsStatistics MetricsManager::GetStatistics() {
    s_life.NoticeFork();
    return detail::s_ledger.Read();
}

void MetricsManager::SetQueueLimit(std::uint64_t bytes, MetricsQueuePolicy policy,
                                   unsigned int milliseconds) noexcept {
    s_life.NoticeFork();
    if (IsOff())
        return;
    detail::s_queueLimit.SetThreads(detail::s_threads.Size());
    detail::s_queueLimit.Set(bytes, policy, milliseconds, &detail::MakeRoom);
    detail::Delivery* const delivery = detail::FindDelivery();
    if (delivery == nullptr || !detail::DropsOldest())
        return;
    delivery->Wake();
    if (!detail::IsInsideCall() && !detail::t_thread.isDeliveryThread)
        delivery->WaitForSharing(steady_clock::now() + std::chrono::milliseconds(100));
}

void MetricsManager::SetErrorHandler(std::function<void(const MetricsError&)> handler,
                                     unsigned int lagMilliseconds) {
    s_life.NoticeFork();
    // Also when the library is off: a thread that has not ended in time may still call the old one.
    if (!detail::InForkedChild())
        detail::s_faults.SetHandler(std::move(handler), lagMilliseconds);
}

// Thread contexts ------------------------------------------------------------------------------

std::shared_ptr<MetricsThreadContext> MetricsManager::GetThreadContext() {
    if (IsOff())
        return std::make_shared<MetricsThreadContext>();
    detail::s_threads.CurrentContext(); // makes it
    return detail::t_thread.record->context;
}

Context* MetricsManager::GetCurrentThreadContext() noexcept {
    const MetricsThreadContext* const stack = detail::t_thread.context;
    return stack == nullptr || IsOff() ? nullptr : stack->GetCurrentContext();
}

std::uint64_t MetricsManager::GetCurrentThreadContextId() noexcept {
    const detail::ContextState* const current = detail::CurrentContextState();
    return current == nullptr ? 0 : current->id;
}

std::uint64_t MetricsManager::GetNextContextId() noexcept {
    // Relaxed: the number need only be unique.
    return IsOff() ? 0 : s_contextIds.last.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace Metrics
