#ifndef METRICS_SRC_THREAD_TABLE_H
#define METRICS_SRC_THREAD_TABLE_H

#include "EventQueue.h"
#include "Section.h"

#include <metrics/MetricsThreadContext.h>

#include <korsys/Mutex.h>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace Metrics {

class IMetricsListener;

namespace detail {

/// Adds to a number that one thread alone writes; others may read it. Relaxed: a number for itself.
inline void Count(std::atomic<std::uint64_t>& number, std::uint64_t more = 1) noexcept {
    number.store(number.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
}

/// The accepted events of one thread that were not appended, by reason. Written by that thread.
struct Losses {
    std::atomic<std::uint64_t> toLimit{0};
    std::atomic<std::uint64_t> toMemory{0};
    std::atomic<std::uint64_t> toException{0};
    std::atomic<std::uint64_t> toShutdown{0};

    // The first event lost to the limit that the stream has not told of yet.
    std::atomic<std::uint64_t> gapTicks{0};
    std::atomic<std::uint64_t> gapWall{0};
    std::atomic<std::uint64_t> told{0}; // of toLimit; written by the delivery thread

    void CountToLimit(const Stamp& stamp) noexcept {
        const std::uint64_t lost = toLimit.load(std::memory_order_relaxed);
        if (told.load(std::memory_order_acquire) == lost) { // the last gap was read
            gapTicks.store(stamp.ticks, std::memory_order_relaxed);
            gapWall.store(stamp.wall, std::memory_order_relaxed);
        }
        toLimit.store(lost + 1, std::memory_order_release); // where the gap begins
    }
};

/// What a thread has called a synchronous consumer for. Written by that thread.
struct CallCounts {
    static constexpr std::size_t slots = 8;

    std::atomic<std::uint32_t> registration{0}; // whose counts these are
    std::atomic<std::uint64_t> calls{0};
    std::atomic<std::uint64_t> exceptions{0};
    std::atomic<std::uint64_t> total{0};
    std::atomic<std::uint64_t> longest{0};
};

/// What the library keeps of one thread. It stands on the heap and not in the thread's own storage,
/// since it is read when the thread may have ended.
struct alignas(64) ThreadRecord {
    EventQueue queue; // two cache lines: the owner's, and the delivery thread's

    // Written by the owning thread.
    Section calls; // it is calling synchronous consumers
    std::atomic<std::uint32_t> contextVersion{0};
    std::shared_ptr<MetricsThreadContext> context;

    /// Release: the stack of contexts, for whoever takes the record over when the thread has ended.
    void PublishContext() noexcept {
        contextVersion.store(contextVersion.load(std::memory_order_relaxed) + 1,
                             std::memory_order_release);
    }

    // Written when the record changes hands.
    std::atomic<pid_t> owner{0};      // kernel's thread id; 0: nobody's
    ThreadRecord* nextFree = nullptr; // ThreadTable's lock
    ThreadRecord* next = nullptr;     // never changes once the record is in the table

    // Written by the owning thread where something is lost.
    alignas(64) Losses losses;
    std::atomic<CallCounts*> callCounts{nullptr}; // as many as there are slots; made on first use

    ThreadRecord() = default;
    ~ThreadRecord() { delete[] callCounts.load(std::memory_order_relaxed); }
    ThreadRecord(const ThreadRecord&) = delete;
    ThreadRecord& operator=(const ThreadRecord&) = delete;
};

static_assert(sizeof(ThreadRecord) == 256, "no thread writes into another's cache lines");
static_assert(sizeof(ThreadRecord) + Chunk::size <= 4096, "what an idle thread keeps");

/// A consumer call in progress on this thread; they form a chain, innermost first.
struct DeliveryFrame {
    const IMetricsListener* listener;
    pid_t emitter; // who emitted the event at hand
    const DeliveryFrame* outer;
};

/// What a thread finds without a look-up. Trivial: no destructor runs at thread exit, so that
/// nothing of ours is called in a thread that outlives the library.
struct ThreadState {
    ThreadRecord* record;
    MetricsThreadContext* context; // that of the record, once it exists
    const DeliveryFrame* delivery; // null outside of consumer calls
    WallOffset wallOffset;
    bool isDeliveryThread;
};

// Initial-exec: one instruction to reach it, also in a library that was loaded at run time. It
// takes 40 bytes of the loader's reserve for such variables.
extern __thread ThreadState t_thread __attribute__((tls_model("initial-exec")));

static_assert(sizeof(ThreadState) == 40);

/// All threads that have used the library. A record is never freed while its thread may still write
/// to it. Those of threads that have ended are found by Sweep, and given to new threads.
///
/// Which threads have ended is asked of the kernel, by tgkill(2) with signal 0: by the delivery
/// thread, and only after as many new threads have come as makes it four questions for each at the
/// most.
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

    /// All records, newest first. Sequentially consistent: a thread adds its record, marks it and
    /// looks at the consumers; who removes one changes them and looks for records and marks.
    ThreadRecord* First() const noexcept { return m_first.load(std::memory_order_seq_cst); }

    /// Waits until every call of synchronous consumers that was in progress at the call has ended,
    /// at most until the deadline. The calling thread's own is left out.
    /// @return false after the deadline.
    bool WaitForCalls(std::chrono::steady_clock::time_point deadline) const noexcept;

    /// From here on a delivery thread calls Sweep, or none does any more and new threads do it.
    void SetSwept(bool byDelivery) noexcept {
        m_sweptByDelivery.store(byDelivery, std::memory_order_relaxed);
    }

    /// Makes the records of ended threads whose events are delivered free for new ones, when so
    /// many threads have come that it is worth the while.
    void Sweep() noexcept;

    /// An accepted event whose thread has no record, for want of memory.
    void CountLostWithoutRecord() noexcept {
        m_lostWithoutRecord.fetch_add(1, std::memory_order_relaxed);
    }
    std::uint64_t LostWithoutRecord() const noexcept {
        return m_lostWithoutRecord.load(std::memory_order_relaxed);
    }

    /// How many threads have a record.
    std::size_t Size() const noexcept { return m_size.load(std::memory_order_relaxed); }

    /// In a forked child: no other thread lives, and the calling one has another thread id.
    void AdoptInChild() noexcept;

    /// Frees the records of the calling thread and of threads that have ended, at unload. A living
    /// thread may be about to write into its own, so that one stays.
    void FreeRecords() noexcept;

private:
    ThreadRecord& Register();
    MetricsThreadContext& MakeContext();
    ThreadRecord* TakeFree() noexcept;
    static bool HasEnded(const ThreadRecord& record, pid_t process) noexcept;

    std::atomic<ThreadRecord*> m_first{nullptr}; // records are only ever added
    std::atomic<std::size_t> m_size{0};          // records in use
    std::atomic<std::size_t> m_registered{0};    // threads that came, ever
    std::atomic<std::size_t> m_swept{0};         // m_registered at the last sweep
    std::atomic<bool> m_sweptByDelivery{false};
    std::atomic<std::uint64_t> m_lostWithoutRecord{0};

    korsys::Mutex m_freeLock;
    ThreadRecord* m_free KORSYS_GUARDED_BY(m_freeLock) = nullptr;
};

extern constinit ThreadTable s_threads;

} // namespace detail
} // namespace Metrics

#endif // METRICS_SRC_THREAD_TABLE_H
