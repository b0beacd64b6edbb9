#ifndef METRICS_THREAD_CONTEXT_H
#define METRICS_THREAD_CONTEXT_H

#include <metrics/MetricsExport.h>

#include <cstdint>
#include <vector>

namespace Metrics {

class Context;

/// The contexts attached to one thread, oldest first; the last is the thread's current context.
/// The pointers do not own: a context is detached before it is destroyed.
///
/// Thread-safety: one thread at a time for each object; the library touches only the stack of the
/// calling thread.
class METRICS_EXPORT MetricsThreadContext {
public:
    /// An empty stack; allocates nothing.
    MetricsThreadContext() noexcept;
    /// Lets the contexts be: it does not own them.
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

    /// The top context; null for none.
    Context* GetCurrentContext() const noexcept {
        return m_contexts.empty() ? nullptr : m_contexts.back();
    }

private:
    friend class Context;
    void ReserveOne();

    std::vector<Context*> m_contexts;
};

} // namespace Metrics

#endif // METRICS_THREAD_CONTEXT_H
