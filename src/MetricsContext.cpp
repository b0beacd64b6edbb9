#include "ManagerState.h"

#include <metrics/MetricsContext.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <utility>

using Metrics::MetricsEventType;
using Metrics::MetricsValue;

namespace {

/// The three life-cycle events: they appear in the parent's context and carry the id.
void EmitLifeCycleEvent(MetricsEventType type, std::uint64_t parentId, std::uint64_t id) {
    Metrics::detail::Emit(type, id, parentId, 0, MetricsValue(), MetricsValue(id));
}

} // namespace

void EmitCreateContext(std::uint64_t parentId, std::uint64_t id) {
    if (id != 0)
        EmitLifeCycleEvent(MetricsEventType::ContextCreated, parentId, id);
}

namespace Metrics {

using detail::s_live;

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
    : m_id(id), m_parentId(parentId), m_name("cxt") {
    if (id == 0)
        return;
    // What may fail comes before the event, so that a second try does not announce it again.
    if (!detail::IsOff()) {
        const detail::SectionGuard guard(s_live.m_threadContexts.Current().operation);
        s_live.m_threadContexts.CurrentContext().ReserveOne();
    }
    EmitLifeCycleEvent(MetricsEventType::ContextOpened, parentId, id);
    AttachToThread();
    m_isOpen = true;
}

Context::~Context() {
    try {
        Close();
    } catch (...) {
        // A destructor has nobody to tell; the event is lost.
    }
}

void Context::SetName(char const* name) {
    if (name != nullptr)
        m_name = name;
}

void Context::AttachToThread() {
    if (detail::IsOff())
        return;
    MetricsThreadContext& stack = s_live.m_threadContexts.CurrentContext();
    // The section's end publishes the stack to whoever takes it over when this thread has ended.
    const detail::SectionGuard guard(detail::t_thread.record->operation);
    stack.AttachContext(this);
}

void Context::DetachFromThread() noexcept {
    if (detail::t_thread.context == nullptr || detail::IsOff())
        return;
    const detail::SectionGuard guard(detail::t_thread.record->operation);
    detail::t_thread.context->DetachContext(this);
}

void Context::AddAttribute(std::string const& name, std::string const& value) {
    Attribute(name, value);
}

void Context::OpenScope() {
    if (m_scopeOpened || !m_isOpen)
        return;
    m_scopeOpened = true;
    try {
        OpenOwnScope();
    } catch (...) {
        m_scopeOpened = false; // tried again by the next use
        throw;
    }
}

void Context::OpenOwnScope() {
    auto tid = static_cast<int>(syscall(SYS_gettid));
    if (tid < 0)
        tid = static_cast<int>(syscall(SYS_getpid));
    const std::array<std::pair<const char*, std::uint64_t>, 3> attributes{{
        {"'pid'", static_cast<std::uint64_t>(getpid())},
        {"'tid'", static_cast<std::uint64_t>(tid)},
        {"'cid'", m_id},
    }};
    while (m_attributesEmitted < 3) {
        const auto& [name, value] = attributes[static_cast<std::size_t>(m_attributesEmitted)];
        Attribute(name, value);
        ++m_attributesEmitted;
    }
    auto scope = std::make_unique<Scope>();
    if (TestBitsAndContext(0))
        scope->OpenImpl(MetricsValue(m_name), 0);
    m_scope = std::move(scope);
}

void Context::Emit(MetricsValue&& first, MetricsValue&& second) {
    if (!m_scopeOpened) [[unlikely]]
        OpenScope();
    if (m_scope != nullptr && m_scope->IsOpen())
        m_scope->EmitImpl(MetricsEventType::Custom, std::move(first), std::move(second));
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
    if (const std::unique_ptr<Scope> scope = std::move(m_scope))
        attempt([&scope] { scope->Close(); });
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
