#include "ContextState.h"
#include "Emit.h"

#include <metrics/MetricsScope.h>

#include <new>
#include <utility>

namespace Metrics {

using detail::Argument;
using detail::ContextState;

bool TestBitsAndContext(std::uint64_t bits) noexcept {
    if (!detail::PassesLiveMask(bits))
        return false;
    const ContextState* const current = detail::CurrentContextState();
    return current != nullptr && current->id != 0;
}

void detail::EmitAttribute(const Argument& name, const Argument& value, std::uint64_t bits) {
    const ContextState* const current = CurrentContextState();
    if (current != nullptr && current->id != 0)
        Emit({MetricsEventType::Attribute, 0, current->id, bits}, name, value);
}

void AttributeImpl(MetricsValue&& name, MetricsValue&& value, std::uint64_t bits) {
    const ContextState* const current = detail::CurrentContextState();
    detail::Emit({MetricsEventType::Attribute, 0, current == nullptr ? 0 : current->id, bits},
                 Argument(std::move(name)), Argument(std::move(value)));
}

void Scope::OpenImpl(MetricsValue&& label, std::uint64_t /*bits*/) {
    // None: the library was switched off since the gate.
    if (ContextState* const current = detail::CurrentContextState())
        OpenIn(*current, Argument(std::move(label)));
}

void Scope::OpenArgument(const Argument& label) {
    ContextState* const current = detail::CurrentContextState();
    if (current != nullptr && current->id != 0)
        OpenIn(*current, label);
}

void Scope::OpenIn(ContextState& context, const Argument& label) {
    const std::uint64_t contextId = context.id; // the context may go in any of the calls below
    context.OpenOwnScope();

    // The label is kept when the event has been taken: until then the scope is as it was.
    const detail::EventHead head{MetricsEventType::ScopeOpened,
                                 reinterpret_cast<std::uintptr_t>(this), contextId, m_bits};
    if (label.form == Argument::Form::Characters && label.length <= keptCharacters) {
        detail::Emit(head, label, Argument());
        ReleaseLabel();
        m_labelForm = Label::Characters;
        m_labelSize = static_cast<unsigned char>(label.length);
        detail::CopyCharacters(m_characters, label.characters, label.length);
    } else {
        MetricsValue kept = detail::ToValue(label);
        detail::Emit(head, Argument(MetricsValue(kept)), Argument());
        ReleaseLabel();
        ::new (&m_label) MetricsValue(std::move(kept));
        m_labelForm = Label::Value;
    }
    m_contextId = contextId;
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
