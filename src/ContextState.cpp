#include "ContextState.h"

#include "Emit.h"

#include <metrics/MetricsScope.h>

#include <array>
#include <memory>
#include <utility>

namespace Metrics::detail {

void ContextState::OpenNewOwnScope() {
    // Another thread may destroy the context meanwhile, and this one pass over it.
    AddReference();
    const std::unique_ptr<ContextState, void (*)(ContextState*)> guard(
        this, [](ContextState* self) { self->RemoveReference(); });
    OwnScope before = OwnScope::New;
    if (!ownScope.compare_exchange_strong(before, OwnScope::Opening, std::memory_order_acquire))
        return;
    OwnScope after = OwnScope::Muted;
    try {
        after = EmitOpening();
    } catch (...) {
        before = OwnScope::Opening;
        ownScope.compare_exchange_strong(before, OwnScope::New); // tried again by the next use
        throw;
    }
    before = OwnScope::Opening;
    // Release: ownScopeContextId.
    if (!ownScope.compare_exchange_strong(before, after, std::memory_order_release) &&
        after == OwnScope::Open)
        EmitOwnScope(MetricsEventType::ScopeClosed); // the context was closed in the meantime
}

ContextState::OwnScope ContextState::EmitOpening() {
    const ThreadRecord* const record = t_thread.record; // there when there is a current context
    const std::array<std::pair<const char*, std::uint64_t>, 3> attributes{{
        {"'pid'", static_cast<std::uint64_t>(s_life.Process())},
        {"'tid'", record == nullptr
                      ? 0
                      : static_cast<std::uint64_t>(record->owner.load(std::memory_order_relaxed))},
        {"'cid'", id},
    }};
    for (; attributesEmitted < 3; ++attributesEmitted) {
        const auto& [key, value] = attributes[static_cast<std::size_t>(attributesEmitted)];
        Attribute(key, value);
    }
    ContextState* const current = TestBitsAndContext(0) ? CurrentContextState() : nullptr;
    if (current == nullptr)
        return OwnScope::Muted;
    ownScopeContextId = current->id;
    current->OpenOwnScope(); // done or under way when it is this one
    EmitOwnScope(MetricsEventType::ScopeOpened);
    return OwnScope::Open;
}

void ContextState::CloseOwnScope() {
    // Acquire: ownScopeContextId.
    if (ownScope.exchange(OwnScope::Closed, std::memory_order_acq_rel) == OwnScope::Open)
        EmitOwnScope(MetricsEventType::ScopeClosed);
}

void ContextState::EmitOwnScope(MetricsEventType type) {
    Emit({type, OwnScopeId(), ownScopeContextId, 0}, Argument(name), Argument());
}

} // namespace Metrics::detail
