#ifndef METRICS_THREAD_CONTEXT_H
#define METRICS_THREAD_CONTEXT_H

#include <metrics/MetricsExport.h>

#include <cstdint>

namespace Metrics {

class Context;

namespace detail {
struct ContextState;
}

/// The contexts attached to one thread, oldest first; the last is the thread's current context. It
/// does not own them: one that is destroyed while it stands here, on whichever thread, is passed
/// over from then on.
///
/// Thread-safety: one thread at a time for each object; the library touches only the stack of the
/// calling thread.
class METRICS_EXPORT MetricsThreadContext {
public:
    /// An empty stack; allocates nothing.
    MetricsThreadContext() noexcept;
    /// The contexts stay as they are.
    ~MetricsThreadContext();
    MetricsThreadContext(const MetricsThreadContext&) = delete;
    MetricsThreadContext& operator=(const MetricsThreadContext&) = delete;

    /// Puts the context on top, however often it stands there already.
    ///
    /// Cost: takes no lock; allocates when the stack grows deeper than ever before.
    /// @throws std::bad_alloc
    void AttachContext(Context* context);

    /// Removes every occurrence of the context; the others keep their order. Does nothing when it
    /// is not there.
    ///
    /// Cost: a pass over the stack; takes no lock and allocates nothing.
    void DetachContext(Context* context) noexcept;

    /// The id of the top context; 0 for none.
    /// Cost: a few loads; takes no lock and allocates nothing.
    std::uint64_t GetMetricsContextId() const noexcept;

    /// The parent id of the top context; 0 for none.
    /// Cost: a few loads; takes no lock and allocates nothing.
    std::uint64_t GetParentMetricsContextId() const noexcept;

    /// The top context; null for none. Another thread may destroy it at any time.
    /// Cost: a few loads; takes no lock and allocates nothing.
    Context* GetCurrentContext() const noexcept;

private:
    friend class Context;
    friend class ContextGuard;
    friend detail::ContextState* CurrentStateOf(MetricsThreadContext& stack) noexcept;
    void Reserve(std::uint32_t more);
    void ShrinkTo(std::uint32_t size) noexcept;
    detail::ContextState* FindCurrent() noexcept;

    // No container, whose layout depends on how the application is compiled.
    detail::ContextState** m_entries = nullptr; // contexts, each with a reference; or placeholders
    std::uint32_t m_size = 0;
    std::uint32_t m_capacity = 0;
};

} // namespace Metrics

#endif // METRICS_THREAD_CONTEXT_H
