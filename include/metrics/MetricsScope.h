#ifndef METRICS_SCOPE_H
#define METRICS_SCOPE_H

#include <metrics/MetricsArgument.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFilter.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace Metrics {

namespace detail {
struct ContextState;
}

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
    /// Cost: one load when the bits are off, one call when there is no context; no allocation, but
    /// for a label of more than 100 characters.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; no scope was opened then.
    template <class Label,
              class = std::enable_if_t<std::is_constructible_v<MetricsValue, const Label&>>>
    explicit Scope(const Label& label, std::uint64_t bits = 0) : m_bits(bits) {
        if (detail::PassesLiveMask(bits))
            OpenGated(detail::WithLength(label));
    }
    /// The same, of a label that may be taken over.
    template <class Label, class = std::enable_if_t<detail::isGivenAway<Label>>, class = void>
    explicit Scope(Label&& label, std::uint64_t bits = 0) : m_bits(bits) {
        if (detail::PassesLiveMask(bits))
            OpenGated(std::forward<Label>(label));
    }

    /// Closes the scope. What a synchronous consumer throws is dropped here.
    /// Cost: one test when it is closed, else that of Close.
    ~Scope() {
        if (detail::Unlikely(m_state != State::New))
            Finish();
    }

    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    /// Emits a Custom event with one or two values, while the scope is open and its bits pass.
    ///
    /// Cost: two tests when it is closed or its bits are off, else that of
    /// MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    template <class First, class Second = int>
    void Emit(const First& first, const Second& second = 0) const {
        if (IsOpen() && detail::PassesLiveMask(m_bits))
            EmitGated(detail::WithLength(first), detail::WithLength(second));
    }
    /// The same, of values that may be taken over.
    template <class First, class Second = int,
              class = std::enable_if_t<detail::isGivenAway<First> || detail::isGivenAway<Second>>>
    void Emit(First&& first, Second&& second = 0) const {
        if (IsOpen() && detail::PassesLiveMask(m_bits))
            EmitGated(std::forward<First>(first), std::forward<Second>(second));
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
    /// made. A scope that is open is opened anew, with another label.
    ///
    /// Cost: that of MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; it stays as it was then.
    void OpenImpl(MetricsValue&& label, std::uint64_t bits);

    /// Emits one event of this scope; it must have opened before.
    ///
    /// Cost: that of MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    void EmitImpl(MetricsEventType type, MetricsValue&& first, MetricsValue&& second) const;

private:
    // Kept out of the constructor, which is inlined wherever a scope is made.
    template <class Label>
    [[gnu::noinline]] void OpenGated(Label&& label) {
        // What must be made into a value first is not, while the gate is shut.
        if (detail::isPlainArgument<detail::Bare<Label>> || TestBitsAndContext(m_bits))
            OpenArgument(detail::Argument(detail::AsArgument(std::forward<Label>(label))));
    }
    template <class First, class Second>
    [[gnu::noinline]] void EmitGated(First&& first, Second&& second) const {
        EmitArguments(MetricsEventType::Custom,
                      detail::Argument(detail::AsArgument(std::forward<First>(first))),
                      detail::Argument(detail::AsArgument(std::forward<Second>(second))));
    }
    void OpenArgument(const detail::Argument& label);
    void OpenIn(detail::ContextState& context, const detail::Argument& label);
    void EmitArguments(MetricsEventType type, const detail::Argument& first,
                       const detail::Argument& second) const;
    void ReleaseLabel() noexcept;
    void Finish() noexcept;

    // A scope that stays closed costs a few stores and one test: the label is not touched then.
    enum class State : unsigned char { New, Open, Closed };
    enum class Label : unsigned char { None, Characters, Value };
    State m_state = State::New;
    Label m_labelForm = Label::None;
    unsigned char m_labelSize = 0; // of Characters
    std::uint64_t m_bits = 0;
    std::uint64_t m_contextId = 0; // where it opened
    static constexpr std::size_t keptCharacters = 104;
    union {
        MetricsValue m_label;
        char m_characters[keptCharacters];
    };
};

/// Emits an Attribute event against the calling thread's current context, without testing the
/// gate: call it only after TestBitsAndContext(bits).
///
/// Thread-safety: safe from any thread at any time.
/// Cost: that of MetricsManager::EmitEvent.
/// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
METRICS_EXPORT void AttributeImpl(MetricsValue&& name, MetricsValue&& value, std::uint64_t bits);

namespace detail {

/// The attribute's event, when the thread has an enabled current context.
METRICS_EXPORT void EmitAttribute(const Argument& name, const Argument& value, std::uint64_t bits);

// Kept out of Attribute, which is inlined wherever it is called.
template <class Name, class Value>
[[gnu::noinline]] void AttributeGated(Name&& name, Value&& value, std::uint64_t bits) {
    // What must be made into a value first is not, while the gate is shut.
    constexpr bool isPlain = isPlainArgument<Bare<Name>> && isPlainArgument<Bare<Value>>;
    if (isPlain || TestBitsAndContext(bits))
        EmitAttribute(Argument(AsArgument(std::forward<Name>(name))),
                      Argument(AsArgument(std::forward<Value>(value))), bits);
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
void Attribute(const Name& name, const Value& value, std::uint64_t bits = 0) {
    if (detail::PassesLiveMask(bits))
        detail::AttributeGated(detail::WithLength(name), detail::WithLength(value), bits);
}
/// The same, of values that may be taken over.
template <class Name, class Value,
          class = std::enable_if_t<detail::isGivenAway<Name> || detail::isGivenAway<Value>>>
void Attribute(Name&& name, Value&& value, std::uint64_t bits = 0) {
    if (detail::PassesLiveMask(bits))
        detail::AttributeGated(std::forward<Name>(name), std::forward<Value>(value), bits);
}

} // namespace Metrics

#endif // METRICS_SCOPE_H
