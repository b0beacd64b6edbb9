#include "ThreadTable.h"

#include "QueueLimit.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>
#include <sys/syscall.h>
#include <unistd.h>

namespace Metrics::detail {

constinit __thread ThreadState t_thread{nullptr, nullptr, nullptr, 0, false};
constinit ThreadTable s_threads;

namespace {

constexpr std::size_t fewThreads = 16; // so many new ones are always worth a sweep

} // namespace

bool ThreadTable::HasEnded(const ThreadRecord& record, pid_t process) noexcept {
    const pid_t owner = record.owner.load(std::memory_order_relaxed);
    // Signal 0 asks without sending, see tgkill(2). Any other answer counts as alive: then the
    // record is only kept longer.
    return syscall(SYS_tgkill, process, owner, 0) != 0 && errno == ESRCH;
}

void ThreadTable::Sweep() noexcept {
    const std::size_t registered = m_registered.load(std::memory_order_relaxed);
    const std::size_t isNew = registered - m_swept.load(std::memory_order_relaxed);
    if (isNew < std::max(fewThreads, Size() / 4) || !m_freeLock.TryLock())
        return;
    const int error = errno;
    const pid_t process = getpid();
    bool isComplete = true;
    for (ThreadRecord* record = First(); record != nullptr; record = record->next) {
        if (record->owner.load(std::memory_order_relaxed) == 0 || !HasEnded(*record, process))
            continue;
        // Only now that nothing more can come. Where there is no delivery nothing was ever queued.
        if (t_thread.isDeliveryThread ? !record->queue.IsEmpty()
                                      : record->queue.Published() != nullptr) {
            isComplete = false;
            continue;
        }
        // Acquire: pairs with PublishContext. The contexts that were left attached are nobody's.
        static_cast<void>(record->contextVersion.load(std::memory_order_acquire));
        record->context.reset();
        record->calls.TakeOver();
        record->queue.Release();
        record->owner.store(0, std::memory_order_relaxed);
        record->nextFree = std::exchange(m_free, record);
        m_size.fetch_sub(1, std::memory_order_relaxed);
    }
    if (isComplete)
        m_swept.store(registered, std::memory_order_relaxed);
    errno = error;
    m_freeLock.Unlock();
}

ThreadRecord* ThreadTable::TakeFree() noexcept {
    // A new thread does not wait for one that holds the lock: it can do without a used record.
    if (!m_freeLock.TryLock())
        return nullptr;
    ThreadRecord* const record = m_free;
    if (record != nullptr)
        m_free = record->nextFree;
    m_freeLock.Unlock();
    return record;
}

ThreadRecord& ThreadTable::Register() {
    const int error = errno; // the application's
    if (!m_sweptByDelivery.load(std::memory_order_relaxed))
        Sweep();
    ThreadRecord* record = TakeFree();
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    if (record != nullptr) {
        record->owner.store(self, std::memory_order_relaxed);
    } else {
        record = new ThreadRecord;
        record->owner.store(self, std::memory_order_relaxed);
        record->next = m_first.load(std::memory_order_relaxed);
        // Sequentially consistent, see First; it also publishes the record's fields.
        while (!m_first.compare_exchange_weak(record->next, record, std::memory_order_seq_cst)) {}
    }
    // At once: many threads that begin together must not take what is for few.
    s_queueLimit.SetThreads(m_size.fetch_add(1, std::memory_order_relaxed) + 1);
    m_registered.fetch_add(1, std::memory_order_relaxed);
    t_thread.record = record;
    errno = error;
    return *record;
}

MetricsThreadContext& ThreadTable::MakeContext() {
    ThreadRecord& record = Current();
    record.context = std::make_shared<MetricsThreadContext>();
    record.PublishContext();
    t_thread.context = record.context.get();
    return *t_thread.context;
}

bool ThreadTable::WaitForCalls(std::chrono::steady_clock::time_point deadline) const noexcept {
    for (const ThreadRecord* r = First(); r != nullptr; r = r->next) {
        const std::uint32_t seen = r->calls.Read();
        if (!Section::IsInside(seen) || r == t_thread.record)
            continue;
        // A call that began later finds what was changed before. A thread may have ended in one.
        int looks = 0;
        if (!PollUntil(deadline, [r, seen, &looks] {
                return r->calls.Read() != seen || (++looks % 16 == 0 && HasEnded(*r, getpid()));
            }))
            return false;
    }
    return true;
}

void ThreadTable::AdoptInChild() noexcept {
    // Another thread may have held the lock, in the middle of a change.
    ::new (&m_freeLock) korsys::Mutex;
    m_freeLock.Lock();
    m_free = nullptr;
    m_freeLock.Unlock();
    if (ThreadRecord* const record = t_thread.record)
        record->owner.store(static_cast<pid_t>(syscall(SYS_gettid)), std::memory_order_relaxed);
}

void ThreadTable::FreeRecords() noexcept {
    ThreadRecord* record = m_first.exchange(nullptr, std::memory_order_acquire);
    while (record != nullptr) {
        ThreadRecord* const next = record->next;
        const pid_t owner = record->owner.load(std::memory_order_relaxed);
        if (record == t_thread.record || owner == 0 || HasEnded(*record, getpid())) {
            record->queue.Discard(record->queue.Published());
            delete record;
        } else {
            record->next = m_first.load(std::memory_order_relaxed);
            m_first.store(record, std::memory_order_relaxed);
        }
        record = next;
    }
    m_freeLock.Lock();
    m_free = nullptr;
    m_freeLock.Unlock();
    t_thread.record = nullptr;
    t_thread.context = nullptr;
}

} // namespace Metrics::detail
