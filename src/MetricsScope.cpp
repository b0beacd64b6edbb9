#include "ContextState.h"
#include "Emit.h"

#include <metrics/MetricsScope.h>

#include <cstring>
#include <new>
#include <utility>

namespace Metrics {

using detail::Argument;
using detail::ContextState;

std::uint64_t detail::PassGate(std::uint64_t bits) noexcept {
    if (!PassesLiveMask(bits))
        return 0;
    const ContextState* const current = CurrentContextState();
    return current == nullptr ? 0 : current->id;
}

bool TestBitsAndContext(std::uint64_t bits) noexcept {
    return detail::PassGate(bits) != 0;
}

void detail::EmitAttribute(std::uint64_t contextId, const Argument& name, const Argument& value,
                           std::uint64_t bits) {
    Emit({MetricsEventType::Attribute, 0, contextId, bits}, name, value);
}

void AttributeImpl(MetricsValue&& name, MetricsValue&& value, std::uint64_t bits) {
    const ContextState* const current = detail::CurrentContextState();
    detail::EmitAttribute(current == nullptr ? 0 : current->id, Argument(std::move(name)),
                          Argument(std::move(value)), bits);
}

void Scope::OpenImpl(MetricsValue&& label, std::uint64_t /*bits*/) {
    OpenArgument(Argument(std::move(label)));
}

void Scope::OpenArgument(const Argument& label) {
    ContextState* const current = detail::CurrentContextState();
    if (current == nullptr) // the library was switched off since the gate
        return;
    current->OpenOwnScope();

    // The label is kept when the event has been taken: until then the scope is as it was.
    const detail::EventHead head{MetricsEventType::ScopeOpened,
                                 reinterpret_cast<std::uintptr_t>(this), current->id, m_bits};
    if (label.form == Argument::Form::Characters && label.length <= keptCharacters) {
        detail::Emit(head, label, Argument());
        ReleaseLabel();
        m_labelForm = Label::Characters;
        m_labelSize = static_cast<unsigned char>(label.length);
        if (label.length != 0)
            std::memcpy(m_characters, label.characters, label.length);
    } else {
        MetricsValue kept = detail::ToValue(label);
        detail::Emit(head, Argument(MetricsValue(kept)), Argument());
        ReleaseLabel();
        ::new (&m_label) MetricsValue(std::move(kept));
        m_labelForm = Label::Value;
    }
    m_contextId = current->id;
    m_state = State::Open;
}

void Scope::EmitImpl(MetricsEventType type, MetricsValue&& first, MetricsValue&& second) const {
    EmitArguments(type, Argument(std::move(first)), Argument(std::move(second)));
}

void Scope::EmitArguments(MetricsEventType type, const Argument& first,
                          const Argument& second) const {
    if (m_state != State::New)
        detail::Emit({type, reinterpret_cast<std::uintptr_t>(this), m_contextId, m_bits}, first,
                     second);
}

void Scope::Close() {
    if (!IsOpen())
        return;
    m_state = State::Closed;
    if (m_labelForm == Label::Characters)
        EmitArguments(MetricsEventType::ScopeClosed,
                      Argument(std::string_view(m_characters, m_labelSize)), Argument());
    else
        EmitArguments(MetricsEventType::ScopeClosed, Argument(MetricsValue(m_label)), Argument());
}

void Scope::ReleaseLabel() noexcept {
    if (std::exchange(m_labelForm, Label::None) == Label::Value)
        m_label.~MetricsValue();
}

void Scope::Finish() noexcept {
    try {
        Close();
    } catch (...) {
        // A destructor has nobody to tell; the event is lost.
    }
    ReleaseLabel();
}

} // namespace Metrics
