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

Context::Context(std::uint64_t parentId, std::uint64_t id)
    : Context(parentId, id, std::string_view()) {}

Context::Context(std::uint64_t parentId, std::uint64_t id, std::string_view name)
    : Context(nullptr, parentId, id) {
    if (id == 0)
        return;
    // What may fail comes before the event, so that a second try does not announce it again.
    TakeState(*new ContextState(parentId, id, name));
    Open();
}

Context::Context(ContextState& state) : Context(nullptr, state.parentId, state.id) {
    state.AddReference();
    TakeState(state);
    Open();
}

// The others delegate to this one, so that the destructor tidies up when they fail.
Context::Context(ContextState* state, std::uint64_t parentId, std::uint64_t id) noexcept
    : m_id(id), m_parentId(parentId), m_state(state) {}

void Context::Open() {
    if (!detail::IsOff())
        detail::s_threads.CurrentContext().Reserve(1);
    EmitLifeCycleEvent(MetricsEventType::ContextOpened, m_parentId, m_id);
    AttachToThread();
    m_isOpen = true;
    // While nothing is recorded the first use is still to come.
    if (!State()->isNamed || !detail::s_life.Accepts() || !detail::PassesLiveMask(0))
        return;
    try {
        OpenScope();
    } catch (...) {
        // The context is open all the same. Its first use tries again, and throws what is thrown.
    }
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

void Context::TakeState(ContextState& state) noexcept {
    state.context.store(this, std::memory_order_release);
    m_state.store(&state, std::memory_order_release);
}

ContextState& Context::NeedState() {
    ContextState* state = m_state.load(std::memory_order_acquire);
    if (state != nullptr)
        return *state;
    auto* const made = new ContextState(m_parentId, m_id, {});
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

// Guard ----------------------------------------------------------------------------------------

ContextGuard::ContextGuard(Context* context) : m_stack(nullptr) {
    if (context == nullptr || detail::IsOff())
        return;
    MetricsThreadContext& stack = detail::s_threads.CurrentContext();
    // What may fail comes first.
    stack.Reserve(2);
    context->NeedState();
    stack.m_entries[stack.m_size++] = detail::Placeholder(this);
    stack.AttachContext(context);
    detail::t_thread.record->PublishContext();
    m_stack = &stack;
}

ContextGuard::~ContextGuard() {
    // On another thread there is nothing of this guard.
    if (m_stack == nullptr || m_stack != detail::t_thread.context || detail::IsOff())
        return;
    const ContextState* const mine = detail::Placeholder(this);
    for (std::uint32_t i = m_stack->m_size; i != 0; --i) {
        if (m_stack->m_entries[i - 1] == mine) {
            m_stack->ShrinkTo(i - 1);
            break;
        }
    }
    detail::t_thread.record->PublishContext();
}

// Handles --------------------------------------------------------------------------------------

UniqueMetricsContext::UniqueMetricsContext(bool enabled)
    : UniqueMetricsContext(enabled, std::string_view()) {}

UniqueMetricsContext::UniqueMetricsContext(bool enabled, std::string_view name)
    : UniqueMetricsContext() {
    MetricsManager& manager = *MetricsManager::GetInstance();
    const std::uint64_t parentId = enabled ? manager.GetCurrentThreadContextId() : 0;
    const std::uint64_t id = parentId != 0 ? manager.GetNextContextId() : 0;
    if (id == 0)
        return;
    m_pending.store(new ContextState(parentId, id, name), std::memory_order_relaxed);
    EmitCreateContext(parentId, id);
}

// Relaxed, here and below: whoever moves a handle, or ends it, is alone with it.
UniqueMetricsContext::UniqueMetricsContext(UniqueMetricsContext&& other) noexcept
    : m_pending(other.m_pending.exchange(nullptr, std::memory_order_relaxed)) {}

UniqueMetricsContext& UniqueMetricsContext::operator=(UniqueMetricsContext&& other) noexcept {
    // In this order, so that moving onto itself keeps the handle.
    ContextState* const taken = other.m_pending.exchange(nullptr, std::memory_order_relaxed);
    if (ContextState* const own = m_pending.exchange(taken, std::memory_order_relaxed))
        own->RemoveReference();
    return *this;
}

UniqueMetricsContext::~UniqueMetricsContext() {
    if (ContextState* const state = m_pending.load(std::memory_order_relaxed))
        state->RemoveReference();
}

std::unique_ptr<Context> UniqueMetricsContext::Open() const {
    // Acquire: what one who failed has left behind.
    ContextState* const state = m_pending.exchange(nullptr, std::memory_order_acquire);
    if (state == nullptr)
        return nullptr;
    try {
        std::unique_ptr<Context> context(new Context(*state));
        state->RemoveReference();
        return context;
    } catch (...) {
        m_pending.store(state, std::memory_order_release);
        throw;
    }
}

SharedMetricsContext::SharedMetricsContext(bool enabled)
    : SharedMetricsContext(enabled, std::string_view()) {}

SharedMetricsContext::SharedMetricsContext(bool enabled, std::string_view name) {
    const std::uint64_t parentId =
        enabled ? MetricsManager::GetInstance()->GetCurrentThreadContextId() : 0;
    const std::uint64_t id = enabled ? Context::Create(parentId) : 0;
    m_context = std::make_unique<Context>(parentId, id, name);
    m_context->DetachFromThread();
}

std::unique_ptr<Context> SharedMetricsContext::Open() const {
    return Open(std::string_view());
}

std::unique_ptr<Context> SharedMetricsContext::Open(std::string_view name) const {
    if (m_context == nullptr || !m_context->IsEnabled())
        return nullptr;
    const std::uint64_t parentId = m_context->GetContextId();
    return std::make_unique<Context>(parentId, Context::Create(parentId), name);
}

} // namespace Metrics
