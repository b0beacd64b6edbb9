#include "ManagerState.h"

#include <metrics/MetricsContext.h>
#include <metrics/MetricsScope.h>

#include <new>

namespace Metrics {

bool TestBitsAndContext(std::uint64_t bits) noexcept {
    if (!detail::PassesLiveMask(bits))
        return false;
    const Context* const current = detail::CurrentContext();
    return current != nullptr && current->IsEnabled();
}

void AttributeImpl(MetricsValue&& name, MetricsValue&& value, std::uint64_t bits) {
    const Context* const current = detail::CurrentContext();
    const std::uint64_t contextId = current == nullptr ? 0 : current->GetContextId();
    detail::Emit(MetricsEventType::Attribute, 0, contextId, bits, std::move(name),
                 std::move(value));
}

void Scope::OpenImpl(MetricsValue&& label, std::uint64_t /*bits*/) {
    Context* const current = detail::CurrentContext();
    if (current == nullptr) // the library was switched off since the gate
        return;
    if (m_state == State::New)
        ::new (&m_label) MetricsValue(std::move(label));
    else
        m_label = std::move(label);
    m_state = State::Open;
    m_context = current;
    try {
        current->OpenScope();
        if (IsOpen())
            EmitImpl(MetricsEventType::ScopeOpened, MetricsValue(m_label), MetricsValue());
    } catch (...) {
        m_label.~MetricsValue(); // no destructor follows when a constructor fails
        m_state = State::New;
        throw;
    }
}

void Scope::EmitImpl(MetricsEventType type, MetricsValue&& first, MetricsValue&& second) const {
    if (m_context == nullptr)
        return;
    detail::Emit(type, reinterpret_cast<std::uintptr_t>(this), m_context->GetContextId(), m_bits,
                 std::move(first), std::move(second));
}

void Scope::Close() {
    if (!IsOpen())
        return;
    m_state = State::Closed;
    EmitImpl(MetricsEventType::ScopeClosed, MetricsValue(m_label), MetricsValue());
}

void Scope::Finish() noexcept {
    try {
        Close();
    } catch (...) {
        // A destructor has nobody to tell; the event is lost.
    }
    m_label.~MetricsValue();
}

} // namespace Metrics
