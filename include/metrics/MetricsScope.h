#ifndef METRICS_SCOPE_H
#define METRICS_SCOPE_H

#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFilter.h>

#include <cstdint>
#include <type_traits>
#include <utility>

namespace Metrics {

class Context;

/// The gate of every scope and attribute: the bits pass the manager's mask, and the calling thread
/// has an enabled current context.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one relaxed load when the bits are off, a few loads more when they are on; takes no lock
/// and allocates nothing.
METRICS_EXPORT bool TestBitsAndContext(std::uint64_t bits) noexcept;

/// A stretch of work inside a context. It emits ScopeOpened when it opens and ScopeClosed when it
/// closes, both with its label. It belongs to the context that is current on its thread when it
/// opens, and is closed before that context is.
///
///     Scope scope("read", MetricsBits::act);
///     scope.Emit("bytes", size);
///
/// Neither copied nor moved: its address is its identity.
///
/// Thread-safety: one thread at a time for each object, the one that opened it.
class METRICS_EXPORT Scope {
public:
    /// A closed scope without label, context or bits.
    Scope() noexcept {}

    /// Opens a scope when the gate lets `bits` through; otherwise it stays closed and emits
    /// nothing. The label is anything that a MetricsValue can be made of.
    ///
    /// Cost: one load when the bits are off, one call when there is no context; no allocation.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; no scope was opened then.
    template <class Label, class = std::enable_if_t<std::is_constructible_v<MetricsValue, Label&&>>>
    explicit Scope(Label&& label, std::uint64_t bits = 0) : m_bits(bits) {
        if (detail::PassesLiveMask(bits))
            OpenGated(std::forward<Label>(label), bits);
    }

    /// Closes the scope. What a synchronous consumer throws is dropped here.
    /// Cost: one test when it is closed, else that of Close.
    ~Scope() {
        if (detail::Unlikely(m_state != State::New))
            Finish();
    }

    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    /// Emits a Custom event with one value, while the scope is open and its bits pass.
    ///
    /// Cost: two tests when it is closed or its bits are off, else that of
    /// MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    template <class First>
    void Emit(First&& first) const {
        if (IsOpen() && detail::PassesLiveMask(m_bits))
            EmitImpl(MetricsEventType::Custom, MetricsValue(std::forward<First>(first)),
                     MetricsValue());
    }

    /// Emits a Custom event with two values, while the scope is open and its bits pass.
    ///
    /// Cost: as above.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    template <class First, class Second>
    void Emit(First&& first, Second&& second) const {
        if (IsOpen() && detail::PassesLiveMask(m_bits))
            EmitImpl(MetricsEventType::Custom, MetricsValue(std::forward<First>(first)),
                     MetricsValue(std::forward<Second>(second)));
    }

    /// Whether the scope has opened and not closed yet.
    bool IsOpen() const noexcept { return m_state == State::Open; }

    /// Emits ScopeClosed, once. The scope is closed afterwards, whatever happens.
    ///
    /// Cost: that of MetricsManager::EmitEvent; nothing when it is closed.
    /// @throws what a synchronous consumer throws, and std::bad_alloc.
    void Close();

    /// Opens the scope in the calling thread's current context, which must exist and be enabled:
    /// call it only after TestBitsAndContext(bits). The bits are those given when the scope was
    /// made.
    ///
    /// Cost: that of MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; it stays closed then.
    void OpenImpl(MetricsValue&& label, std::uint64_t bits);

    /// Emits one event of this scope; it must have opened before.
    ///
    /// Cost: that of MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    void EmitImpl(MetricsEventType type, MetricsValue&& first, MetricsValue&& second) const;

private:
    // Kept out of the constructor, which is inlined wherever a scope is made.
    template <class Label>
    [[gnu::noinline]] void OpenGated(Label&& label, std::uint64_t bits) {
        if (TestBitsAndContext(bits))
            OpenImpl(MetricsValue(std::forward<Label>(label)), bits);
    }

    void Finish() noexcept;

    // A scope that stays closed costs a few stores and one test, hence no std::optional.
    enum class State : unsigned char { New, Open, Closed };
    State m_state = State::New;
    union {
        MetricsValue m_label; // not while it is New
    };
    std::uint64_t m_bits = 0;
    Context* m_context = nullptr; // not owned
};

/// Emits an Attribute event against the calling thread's current context, without testing the
/// gate: call it only after TestBitsAndContext(bits).
///
/// Thread-safety: safe from any thread at any time.
/// Cost: that of MetricsManager::EmitEvent.
/// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
METRICS_EXPORT void AttributeImpl(MetricsValue&& name, MetricsValue&& value, std::uint64_t bits);

namespace detail {

// Kept out of Attribute, which is inlined wherever it is called.
template <class Name, class Value>
[[gnu::noinline]] void AttributeGated(Name&& name, Value&& value, std::uint64_t bits) {
    if (TestBitsAndContext(bits))
        AttributeImpl(MetricsValue(std::forward<Name>(name)),
                      MetricsValue(std::forward<Value>(value)), bits);
}

} // namespace detail

/// Records a name and a value against the calling thread's current context, when the gate lets
/// `bits` through. Both are anything that a MetricsValue can be made of.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one load when the bits are off, one call when there is no context, and no allocation; else
/// that of EmitEvent.
/// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
template <class Name, class Value>
void Attribute(Name&& name, Value&& value, std::uint64_t bits = 0) {
    if (detail::PassesLiveMask(bits))
        detail::AttributeGated(std::forward<Name>(name), std::forward<Value>(value), bits);
}

} // namespace Metrics

#endif // METRICS_SCOPE_H
