#ifndef METRICS_SRC_CONTEXT_STATE_H
#define METRICS_SRC_CONTEXT_STATE_H

#include "Lifecycle.h"
#include "ThreadTable.h"

#include <metrics/MetricsThreadContext.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace Metrics {

class Context;

namespace detail {

/// What a context is to others than its owner. Stacks of threads refer to it and not to the
/// Context, so that nobody comes upon one that is gone, whoever destroys it and on which thread.
///
/// Thread-safety: safe from any thread at any time, but for `name`: that is the owner's until the
/// scope has been opened.
struct ContextState {
    /// An empty label is none. @throws std::bad_alloc for a long one.
    ContextState(std::uint64_t parent, std::uint64_t own, std::string_view label)
        : parentId(parent), id(own), isNamed(!label.empty()), name(isNamed ? label : "cxt") {}

    void AddReference() noexcept {
        // Relaxed: whoever adds one holds one.
        m_references.fetch_add(1, std::memory_order_relaxed);
    }
    void RemoveReference() noexcept {
        // Release: what this holder did comes before the deletion. Acquire: the last one sees it.
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    const std::uint64_t parentId;
    const std::uint64_t id;

    /// Null when the Context is gone. Release and acquire: the Context, for whoever asks for it.
    std::atomic<Context*> context{nullptr};
    bool IsGone() const noexcept { return context.load(std::memory_order_relaxed) == nullptr; }

    /// The context's own scope opens once, on first use, and closes with the context. These two may
    /// meet on two threads at the end of the process.
    enum class OwnScope : std::uint8_t { New, Opening, Muted, Open, Closed };
    std::atomic<OwnScope> ownScope{OwnScope::New};
    std::uint64_t ownScopeContextId = 0; // where it opened; published by Open
    int attributesEmitted = 0;           // how far the opening came; the opener's
    const bool isNamed;                  // from the beginning: the scope opens with the context
    std::string name;                    // the scope's label

    /// Does it once; nothing when it is done or under way.
    void OpenOwnScope() {
        if (ownScope.load(std::memory_order_relaxed) == OwnScope::New) [[unlikely]]
            OpenNewOwnScope();
    }
    void CloseOwnScope();
    bool HasOpenScope() const noexcept {
        // Acquire: ownScopeContextId.
        return ownScope.load(std::memory_order_acquire) == OwnScope::Open;
    }
    /// What names the scope in its events.
    std::uint64_t OwnScopeId() const noexcept {
        return reinterpret_cast<std::uintptr_t>(&ownScope);
    }

private:
    ~ContextState() = default;
    void OpenNewOwnScope();
    OwnScope EmitOpening();
    void EmitOwnScope(MetricsEventType type);

    std::atomic<unsigned int> m_references{1};
};

} // namespace detail

namespace detail {

/// What stands in a stack in place of a context: where a ContextGuard began, or null, attached as
/// such. It is odd, as no address of a context is.
inline ContextState* Placeholder(const void* guard) noexcept {
    return reinterpret_cast<ContextState*>( // NOLINT(performance-no-int-to-ptr)
        reinterpret_cast<std::uintptr_t>(guard) | 1);
}
inline bool IsContext(const ContextState* entry) noexcept {
    return (reinterpret_cast<std::uintptr_t>(entry) & 1) == 0;
}

} // namespace detail

/// The state of the current context of a stack; null for none.
inline detail::ContextState* CurrentStateOf(MetricsThreadContext& stack) noexcept {
    if (stack.m_size == 0)
        return nullptr;
    detail::ContextState* const top = stack.m_entries[stack.m_size - 1];
    return detail::IsContext(top) && !top->IsGone() ? top : stack.FindCurrent();
}

namespace detail {

/// The same for the calling thread.
inline ContextState* CurrentContextState() noexcept {
    MetricsThreadContext* const stack = t_thread.context;
    return stack == nullptr || IsOff() ? nullptr : CurrentStateOf(*stack);
}

} // namespace detail
} // namespace Metrics

#endif // METRICS_SRC_CONTEXT_STATE_H
