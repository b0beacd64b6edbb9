#ifndef METRICS_CONTEXT_H
#define METRICS_CONTEXT_H

#include <metrics/MetricsArgument.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFilter.h>
#include <metrics/MetricsManager.h>
#include <metrics/MetricsScope.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

/// Emits ContextCreated for a new id, unless it is 0. Context::Create does this for you.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: that of MetricsManager::EmitEvent.
/// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
METRICS_EXPORT void EmitCreateContext(std::uint64_t parentId, std::uint64_t id);

namespace Metrics {

namespace detail {

inline std::string_view NameOf(char const* name) noexcept {
    return name == nullptr ? std::string_view() : std::string_view(name);
}

} // namespace detail

/// A unit of work. Contexts form a tree by their ids. While one is the current context of a thread,
/// the scopes and attributes of that thread belong to it. On first use it opens a scope of its own,
/// labelled with its name, and records the attributes 'pid', 'tid' and 'cid'.
///
///     Context request(0, Context::Create(true), "request"); // a root
///     request.Emit("bytes", 4096);
///
/// A context with id 0 is disabled: it accepts every call and emits nothing.
///
/// One that is given a name when it is made, as above or by a handle, is used by that: its own
/// scope opens when it opens. While nothing is recorded at that moment, it opens on first use.
///
/// The first use counts: a context that is used for the first time while the mask is 0, or on a
/// thread without an enabled current context, stays mute for good, its scope closed, and its Emit
/// does nothing. So does one that is closed before its first use. To pause the recording of
/// contexts that live on, open their scopes (OpenScope) before the mask is cleared.
///
/// The constructor attaches the context to the calling thread, Close and the destructor detach it
/// from the calling thread. Wherever else it is attached, it is current until it is destroyed, by
/// whichever thread.
///
/// Thread-safety: one thread at a time for each object; IsEnabled, GetContextId,
/// GetParentContextId, AttachToThread, DetachFromThread and AddAttribute are safe from any thread
/// at any time, before it is destroyed.
class METRICS_EXPORT Context {
public:
    /// Draws and announces an id: a root's when `root`, else that of a child of the calling
    /// thread's current context. @return 0, with nothing drawn or announced, for a child when there
    /// is no current context, and when the library is off.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one atomic operation more than MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    static std::uint64_t Create(bool root);

    /// Draws and announces the id of a child of `parentId`. @return 0, with nothing drawn or
    /// announced, for parent 0 and when the library is off.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one atomic operation more than MetricsManager::EmitEvent.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    static std::uint64_t Create(std::uint64_t parentId);

    /// The same from an integer of any other type, which would fit both of the above equally well.
    template <class Id,
              class = std::enable_if_t<std::is_integral_v<Id> && !std::is_same_v<Id, bool>>>
    static std::uint64_t Create(Id parentId) {
        return Create(static_cast<std::uint64_t>(parentId));
    }

    /// Opens the context with an id from Create: announces it and makes it the calling thread's
    /// current context. With id 0 it is disabled.
    ///
    /// Cost: that of MetricsManager::EmitEvent; allocates on a thread's first context. With id 0 a
    /// few stores and no allocation.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    Context(std::uint64_t parentId, std::uint64_t id);

    /// The same with a name, which is copied; the context's own scope opens at once. Should that
    /// fail, the context is open all the same, and its first use tries again. An empty name is
    /// none.
    ///
    /// Cost: that of four events with a text more; one more allocation for a name of more than 15
    /// bytes. While nothing is recorded only the copy is made, and with id 0 none.
    /// @throws std::bad_alloc, and what a synchronous consumer throws of the opening.
    Context(std::uint64_t parentId, std::uint64_t id, std::string_view name);
    /// The same. Null is no name.
    Context(std::uint64_t parentId, std::uint64_t id, char const* name)
        : Context(parentId, id, detail::NameOf(name)) {}

    /// Closes the context. What a synchronous consumer throws is dropped here.
    /// Cost: that of Close; nothing when it is closed already.
    ~Context();

    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    /// Whether the id is not 0.
    bool IsEnabled() const noexcept { return m_id != 0; }
    /// The id; 0 for a disabled context.
    std::uint64_t GetContextId() const noexcept { return m_id; }
    /// The parent's id; 0 for a root.
    std::uint64_t GetParentContextId() const noexcept { return m_parentId; }

    /// Names the context, "cxt" otherwise. The name is the label of the context's own scope, so it
    /// takes effect before the first scope or Emit. Null keeps the name.
    ///
    /// Cost: copies the name, which allocates when it is long; takes no lock.
    /// @throws std::bad_alloc
    void SetName(char const* name);

    /// Makes this the calling thread's current context, on top of the others.
    ///
    /// Cost: a few stores; takes no lock; allocates when the stack grows deeper than ever before.
    /// @throws std::bad_alloc
    void AttachToThread();

    /// Takes every occurrence of this context off the calling thread's stack.
    /// Cost: a pass over the stack; takes no lock and allocates nothing.
    void DetachFromThread() noexcept;

    /// Records an attribute against the calling thread's current context, whichever that is. It has
    /// no category, so it passes any mask but 0.
    ///
    /// Cost: that of MetricsManager::EmitEvent; allocates both texts. A few loads while the gate is
    /// shut.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    void AddAttribute(std::string const& name, std::string const& value);

    /// Does the one-time work of the first use: the three attributes and the context's own scope.
    /// When it fails, the next call goes on where this one stopped.
    ///
    /// Cost: the first call that of four events with a text; later ones a load.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    void OpenScope();

    /// Emits a Custom event with two values through the context's own scope. They are anything that
    /// a MetricsValue can be made of; nothing is made of them while the mask is 0 or the scope is
    /// not open.
    ///
    /// Cost: that of MetricsManager::EmitEvent; a load and a test while the mask is 0.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    template <class First, class Second>
    void Emit(const First& first, const Second& second) {
        if (detail::PassesLiveMask(0))
            EmitGated(detail::WithLength(first), detail::WithLength(second));
        else if (!m_isUsed)
            OpenScope();
    }
    /// The same, of values that may be taken over.
    template <class First, class Second,
              class = std::enable_if_t<detail::isGivenAway<First> || detail::isGivenAway<Second>>>
    void Emit(First&& first, Second&& second) {
        if (detail::PassesLiveMask(0))
            EmitGated(std::forward<First>(first), std::forward<Second>(second));
        else if (!m_isUsed)
            OpenScope();
    }
    /// The same, of two values that are there already.
    void Emit(MetricsValue&& first, MetricsValue&& second) {
        EmitArguments(detail::Argument(std::move(first)), detail::Argument(std::move(second)));
    }

    /// Emits a Custom event with one value; the second is empty.
    ///
    /// Cost: as above.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
    template <class First>
    void Emit(const First& first) {
        Emit(first, 0);
    }
    /// The same, of a value that may be taken over.
    template <class First, class = std::enable_if_t<detail::isGivenAway<First>>>
    void Emit(First&& first) {
        Emit(std::forward<First>(first), 0);
    }

    /// Closes the context's own scope, detaches the context from the calling thread and announces
    /// its end, once. All three are done whatever happens.
    ///
    /// Cost: that of two events; nothing when it is closed or disabled.
    /// @throws the first of what synchronous consumers throw, and std::bad_alloc.
    void Close();

private:
    friend class MetricsThreadContext;
    friend class Scope;
    friend class ContextGuard;
    friend class UniqueMetricsContext;

    explicit Context(detail::ContextState& state);
    Context(detail::ContextState* state, std::uint64_t parentId, std::uint64_t id) noexcept;

    // Kept out of Emit, which is inlined wherever it is called.
    template <class First, class Second>
    [[gnu::noinline]] void EmitGated(First&& first, Second&& second) {
        // What must be made into values first is not, unless they are emitted.
        constexpr bool isPlain = detail::isPlainArgument<detail::Bare<First>> &&
                                 detail::isPlainArgument<detail::Bare<Second>>;
        if (isPlain || PrepareEmit())
            EmitArguments(detail::Argument(detail::AsArgument(std::forward<First>(first))),
                          detail::Argument(detail::AsArgument(std::forward<Second>(second))));
    }
    bool PrepareEmit();
    void EmitArguments(const detail::Argument& first, const detail::Argument& second);
    void Open();
    void TakeState(detail::ContextState& state) noexcept;
    detail::ContextState& NeedState();
    detail::ContextState* State() const noexcept;

    std::uint64_t m_id;
    std::uint64_t m_parentId;
    // Null for a disabled context that nobody has attached; any thread may, hence atomic.
    std::atomic<detail::ContextState*> m_state{nullptr};
    bool m_isOpen = false;
    bool m_isUsed = false; // OpenScope need not be called
};

/// Makes a context the calling thread's current one for a block, and puts back exactly what was
/// before at its end: for tasks of a scheduler, which run wherever a thread is free, also inside of
/// another task that waits.
///
///     tbb::parallel_for(0, parts, [&request](int part) {
///         const ContextGuard guard(request);
///         Work(part); // its scopes belong to the request, on whichever thread
///     });
///
/// Any number of threads may have guards of one context at once, nested as well, whether or not it
/// stands in their stacks already. Contexts that were attached within the block and not detached
/// leave the thread's stack with it. One that is destroyed in the meantime is not current any
/// more: then what was before is, already within the block.
///
/// A guard lives in a block, and ends on the thread where it began, after the guards that began
/// after it. So a coroutine must not suspend within its block: one that ended on another thread
/// would put nothing back.
///
/// Thread-safety: one thread at a time for each object.
class METRICS_EXPORT ContextGuard {
public:
    /// Makes the context current, which must not be destroyed before the constructor returns. With
    /// a disabled one nothing is recorded in the block.
    ///
    /// Cost: an atomic addition and a few stores; takes no lock; allocates when the stack grows
    /// deeper than ever before, and on a thread's first context.
    /// @throws std::bad_alloc
    explicit ContextGuard(Context& context) : ContextGuard(&context) {}
    /// The same. Null, as an inert handle opens it, changes nothing.
    explicit ContextGuard(Context* context);

    /// Puts back what was before.
    /// Cost: a pass over what is on top of it; takes no lock and allocates nothing.
    ~ContextGuard();

    ContextGuard(const ContextGuard&) = delete;
    ContextGuard& operator=(const ContextGuard&) = delete;

private:
    MetricsThreadContext* m_stack; // null when there is nothing to put back
};

/// One pending child of the context that is current where the handle is made. It is announced
/// there, and opened by whichever thread calls Open:
///
///     pool.Post([child = UniqueMetricsContext(true, "job")] {
///         const auto context = child.Open(); // current on this thread, until it goes
///         Work();
///     });
///
/// Not copied, since its id opens one context. Moved from, it is inert.
///
/// Thread-safety: one thread at a time for each object; Open is safe from any thread at any time.
class METRICS_EXPORT UniqueMetricsContext {
public:
    /// With false, or without a current context, the handle is inert.
    ///
    /// Cost: that of Context::Create and an allocation, which Open need not make then; a few loads
    /// when it is inert.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    explicit UniqueMetricsContext(bool enabled);

    /// The same with a name for the context. It is copied, unless the handle is inert. An empty
    /// name is none.
    ///
    /// Cost: the same, and one more allocation for a name of more than 15 bytes.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    UniqueMetricsContext(bool enabled, std::string_view name);
    /// The same. Null is no name.
    UniqueMetricsContext(bool enabled, char const* name)
        : UniqueMetricsContext(enabled, detail::NameOf(name)) {}

    /// Takes the child over; `other` becomes inert.
    /// Cost: an atomic exchange or two, as for the assignment; takes no lock and allocates nothing.
    UniqueMetricsContext(UniqueMetricsContext&& other) noexcept;
    /// Takes the child over, and lets its own go unopened; `other` becomes inert.
    UniqueMetricsContext& operator=(UniqueMetricsContext&& other) noexcept;
    UniqueMetricsContext(const UniqueMetricsContext&) = delete;
    UniqueMetricsContext& operator=(const UniqueMetricsContext&) = delete;
    /// A child that nobody has opened goes unopened.
    ~UniqueMetricsContext();

    /// Opens the child and makes it the calling thread's current context; destroy it there. Of
    /// several threads that call it one gets the child. So it may be called as const, as
    /// schedulers call what they are given.
    /// @return null for an inert handle and after the first Open.
    ///
    /// Cost: that of a Context, which is allocated; with a name that of its own scope.
    /// @throws std::bad_alloc, and what a synchronous consumer throws; Open may be tried again.
    std::unique_ptr<Context> Open() const;

private:
    UniqueMetricsContext() noexcept = default;

    mutable std::atomic<detail::ContextState*> m_pending{nullptr}; // null: inert, or opened
};

/// One open context, shared by all copies of the handle, that is no thread's current context: it
/// serves as the parent of the children that Open makes, any number of them on any threads. It is
/// closed when the last copy goes. Moved from, a handle is inert.
///
///     const SharedMetricsContext parts(true, "parts");
///     for (Part& part : allParts)
///         pool.Post([parts, &part] {
///             const auto context = parts.Open("part");
///             Work(part);
///         });
///
/// Thread-safety: one thread at a time for each handle; Open is safe from any thread at any time.
class METRICS_EXPORT SharedMetricsContext {
public:
    /// With false, or without a current context, the handle is inert.
    ///
    /// Cost: that of Context::Create and of a Context, which is allocated. A copy of the handle is
    /// one atomic operation.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    explicit SharedMetricsContext(bool enabled);

    /// The same with a name: the shared context's own scope opens here, and closes with it. An
    /// empty name is none.
    ///
    /// Cost: the same, and that of a named Context.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    SharedMetricsContext(bool enabled, std::string_view name);
    /// The same. Null is no name.
    SharedMetricsContext(bool enabled, char const* name)
        : SharedMetricsContext(enabled, detail::NameOf(name)) {}

    /// Creates and opens a child and makes it the calling thread's current context; destroy it
    /// there. @return null for an inert handle; a disabled context when the library is off.
    ///
    /// Cost: that of Context::Create and of a Context, which is allocated.
    /// @throws std::bad_alloc, and what a synchronous consumer throws.
    std::unique_ptr<Context> Open() const;

    /// The same with a name for the child; an empty one is none.
    std::unique_ptr<Context> Open(std::string_view name) const;
    /// The same. Null is no name.
    std::unique_ptr<Context> Open(char const* name) const { return Open(detail::NameOf(name)); }

private:
    std::shared_ptr<Context> m_context;
};

} // namespace Metrics

#endif // METRICS_CONTEXT_H
