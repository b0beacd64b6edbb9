#include "ContextState.h"
#include "Emit.h"

#include <metrics/MetricsContext.h>

#include <exception>
#include <utility>

using Metrics::MetricsEventType;
using Metrics::detail::Argument;

namespace {

/// The three life-cycle events: they appear in the parent's context and carry the id.
void EmitLifeCycleEvent(MetricsEventType type, std::uint64_t parentId, std::uint64_t id) {
    Metrics::detail::Emit({type, id, parentId, 0}, Argument(), Argument(id));
}

} // namespace

void EmitCreateContext(std::uint64_t parentId, std::uint64_t id) {
    if (id != 0)
        EmitLifeCycleEvent(MetricsEventType::ContextCreated, parentId, id);
}

namespace Metrics {

using detail::ContextState;

namespace {

std::uint64_t CreateAnnounced(std::uint64_t parentId) {
    const std::uint64_t id = MetricsManager::GetInstance()->GetNextContextId();
    EmitCreateContext(parentId, id);
    return id;
}

} // namespace

std::uint64_t Context::Create(bool root) {
    return root ? CreateAnnounced(0)
                : Create(MetricsManager::GetInstance()->GetCurrentThreadContextId());
}

std::uint64_t Context::Create(std::uint64_t parentId) {
    return parentId == 0 ? 0 : CreateAnnounced(parentId);
}

Context::Context(std::uint64_t parentId, std::uint64_t id) : m_id(id), m_parentId(parentId) {
    if (id == 0)
        return;
    // What may fail comes before the event, so that a second try does not announce it again.
    NeedState();
    try {
        if (!detail::IsOff())
            detail::s_threads.CurrentContext().ReserveOne();
        EmitLifeCycleEvent(MetricsEventType::ContextOpened, parentId, id);
        AttachToThread();
    } catch (...) {
        State()->RemoveReference();
        throw;
    }
    m_isOpen = true;
}

Context::~Context() {
    try {
        Close();
    } catch (...) {
        // A destructor has nobody to tell; the event is lost.
    }
    if (State() == nullptr)
        return;
    // Release: whoever has seen the context has done so before.
    State()->context.store(nullptr, std::memory_order_release);
    State()->RemoveReference();
}

ContextState& Context::NeedState() {
    ContextState* state = m_state.load(std::memory_order_acquire);
    if (state != nullptr)
        return *state;
    auto* const made = new ContextState(m_parentId, m_id);
    made->context.store(this, std::memory_order_release);
    // Of two threads that attach a disabled context one makes its state.
    if (m_state.compare_exchange_strong(state, made, std::memory_order_acq_rel))
        return *made;
    made->RemoveReference();
    return *state;
}

ContextState* Context::State() const noexcept {
    return m_state.load(std::memory_order_acquire);
}

void Context::SetName(char const* name) {
    // Once the scope has been opened the name is its label, which others may read.
    if (name != nullptr && State() != nullptr &&
        State()->ownScope.load(std::memory_order_relaxed) == ContextState::OwnScope::New)
        State()->name = name;
}

void Context::AttachToThread() {
    if (detail::IsOff())
        return;
    detail::s_threads.CurrentContext().AttachContext(this);
    detail::t_thread.record->PublishContext();
}

void Context::DetachFromThread() noexcept {
    if (detail::t_thread.context == nullptr || detail::IsOff())
        return;
    detail::t_thread.context->DetachContext(this);
    detail::t_thread.record->PublishContext();
}

void Context::AddAttribute(std::string const& name, std::string const& value) {
    Attribute(name, value);
}

void Context::OpenScope() {
    if (m_isOpen)
        State()->OpenOwnScope();
    m_isUsed = true;
}

bool Context::PrepareEmit() {
    if (!m_isUsed) [[unlikely]]
        OpenScope();
    return m_isOpen && State()->HasOpenScope();
}

void Context::EmitArguments(const Argument& first, const Argument& second) {
    if (PrepareEmit())
        detail::Emit(
            {MetricsEventType::Custom, State()->OwnScopeId(), State()->ownScopeContextId, 0}, first,
            second);
}

void Context::Close() {
    if (!m_isOpen)
        return;
    m_isOpen = false;
    std::exception_ptr failure;
    const auto attempt = [&failure](auto step) {
        try {
            step();
        } catch (...) {
            if (failure == nullptr)
                failure = std::current_exception();
        }
    };
    attempt([this] { State()->CloseOwnScope(); });
    DetachFromThread();
    attempt([this] { EmitLifeCycleEvent(MetricsEventType::ContextClosed, m_parentId, m_id); });
    if (failure != nullptr)
        std::rethrow_exception(failure);
}

// Handles --------------------------------------------------------------------------------------

UniqueMetricsContext::UniqueMetricsContext(bool enabled) {
    if (!enabled)
        return;
    m_parentId = MetricsManager::GetInstance()->GetCurrentThreadContextId();
    m_id = Context::Create(m_parentId);
}

UniqueMetricsContext::UniqueMetricsContext(UniqueMetricsContext&& other) noexcept
    : m_parentId(std::exchange(other.m_parentId, 0)), m_id(std::exchange(other.m_id, 0)) {}

UniqueMetricsContext& UniqueMetricsContext::operator=(UniqueMetricsContext&& other) noexcept {
    // In two steps, so that moving onto itself keeps the handle.
    const UniqueMetricsContext taken(std::move(other));
    m_parentId = taken.m_parentId;
    m_id = taken.m_id;
    return *this;
}

std::unique_ptr<Context> UniqueMetricsContext::Open() {
    if (m_id == 0)
        return nullptr;
    auto context = std::make_unique<Context>(m_parentId, m_id);
    m_parentId = 0;
    m_id = 0;
    return context;
}

SharedMetricsContext::SharedMetricsContext(bool enabled) {
    const std::uint64_t parentId =
        enabled ? MetricsManager::GetInstance()->GetCurrentThreadContextId() : 0;
    const std::uint64_t id = enabled ? Context::Create(parentId) : 0;
    m_context = std::make_unique<Context>(parentId, id);
    m_context->DetachFromThread();
}

std::unique_ptr<Context> SharedMetricsContext::Open() const {
    if (m_context == nullptr || !m_context->IsEnabled())
        return nullptr;
    const std::uint64_t parentId = m_context->GetContextId();
    return std::make_unique<Context>(parentId, Context::Create(parentId));
}

} // namespace Metrics
