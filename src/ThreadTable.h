#ifndef METRICS_SRC_THREAD_TABLE_H
#define METRICS_SRC_THREAD_TABLE_H

#include "Section.h"

#include <metrics/MetricsThreadContext.h>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace Metrics {

class IMetricsListener;

namespace detail {

/// What the library keeps of one thread. The marks stand on the heap and not in the thread's own
/// storage, since they are read when the thread may have ended.
struct alignas(64) ThreadRecord {
    // Written by the owning thread only.
    Section append;    // it may be appending to the current event buffer
    Section operation; // it may be using the manager's state
    std::shared_ptr<MetricsThreadContext> context;

    // Written when the record finds a new owner: its thread id, and in the upper half how many
    // there were before, so that no two threads take over the same record from the same owner.
    std::atomic<std::uint64_t> owner{0};
    ThreadRecord* next = nullptr; // never changes once the record is in the table
};

static_assert(sizeof(ThreadRecord) == 64, "one cache line each: no thread writes into another's");

/// A consumer call in progress on this thread; they form a chain, innermost first.
struct DeliveryFrame {
    const IMetricsListener* listener;
    const DeliveryFrame* outer;
};

/// What a thread finds without a look-up. Trivial: no destructor runs at thread exit, so that
/// nothing of ours is called in a thread that outlives the library.
struct ThreadState {
    ThreadRecord* record;
    MetricsThreadContext* context; // that of the record, once it exists
    const DeliveryFrame* delivery; // null outside of consumer calls
};

// Initial-exec: one instruction to reach it, also in a library that was loaded at run time. It
// takes 24 bytes of the loader's reserve for such variables.
extern __thread ThreadState t_thread __attribute__((tls_model("initial-exec")));

/// All threads that have used the library. A record is never freed while a thread may still write
/// its marks; a new thread takes over the record of one that has ended.
///
/// Thread-safety: safe from any thread at any time, but for FreeRecords: one thread at a time.
class ThreadTable {
public:
    constexpr ThreadTable() noexcept = default;

    /// The calling thread's record. @throws std::bad_alloc on a thread's first call.
    ThreadRecord& Current() {
        ThreadRecord* const record = t_thread.record;
        return record != nullptr ? *record : Register();
    }

    /// The calling thread's stack of contexts. @throws std::bad_alloc on a thread's first call.
    MetricsThreadContext& CurrentContext() {
        MetricsThreadContext* const context = t_thread.context;
        return context != nullptr ? *context : MakeContext();
    }

    /// Waits until no append that began before the call is in progress. `pause` is called between
    /// looks.
    template <class Pause>
    void WaitForAppends(Pause pause) const {
        for (const ThreadRecord* r = First(); r != nullptr; r = r->next)
            WaitFor(
                r->append, [r] { return HasEnded(*r); }, pause);
        WaitFor(
            m_shutdownAppend, [] { return false; }, pause);
    }

    /// Waits until every thread was seen outside of all operations, at most until the deadline.
    /// @return false after it, and when the calling thread itself is inside one.
    bool WaitForOperations(std::chrono::steady_clock::time_point deadline) const;

    /// The section of whoever switches the library off: that must not fail for want of memory.
    Section& ShutdownAppend() noexcept { return m_shutdownAppend; }

    /// In a forked child: the calling thread is alive, under another thread id.
    void AdoptInChild() noexcept;

    /// Frees the records of the calling thread and of threads that have ended, at exit or unload. A
    /// living thread may be about to write into its own, so that one stays.
    void FreeRecords() noexcept;

private:
    ThreadRecord& Register();
    MetricsThreadContext& MakeContext();
    ThreadRecord* TakeOver(pid_t self) noexcept;
    static bool HasEnded(const ThreadRecord& record) noexcept;

    // Sequentially consistent: a thread adds its record, marks it and looks at the buffer; the
    // waiter changes the buffer and looks for records and marks. One must see the other.
    const ThreadRecord* First() const noexcept { return m_first.load(std::memory_order_seq_cst); }

    template <class Ended, class Pause>
    static void WaitFor(const Section& section, Ended hasEnded, Pause& pause) {
        const std::uint32_t seen = section.Read();
        if (!Section::IsInside(seen))
            return;
        while (section.Read() == seen && !hasEnded())
            pause();
    }

    std::atomic<ThreadRecord*> m_first{nullptr}; // newest first; records are only ever added
    std::atomic<ThreadRecord*> m_candidate{
        nullptr}; // where the next search for an ended owner goes on
    Section m_shutdownAppend;
};

} // namespace detail
} // namespace Metrics

#endif // METRICS_SRC_THREAD_TABLE_H
