#include "ThreadTable.h"

#include <metrics/MetricsContext.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Metrics::detail {

constinit __thread ThreadState t_thread{nullptr, nullptr, nullptr};

namespace {

pid_t ThreadId(std::uint64_t owner) noexcept {
    return static_cast<pid_t>(owner & 0xFFFFFFFF);
}

std::uint64_t NextOwner(std::uint64_t last, pid_t self) noexcept {
    return (((last >> 32) + 1) << 32) | static_cast<std::uint32_t>(self);
}

} // namespace

bool ThreadTable::HasEnded(const ThreadRecord& record) noexcept {
    const pid_t owner = ThreadId(record.owner.load(std::memory_order_relaxed));
    // Signal 0 asks without sending, see tgkill(2). Any other answer counts as alive: then the
    // record is only kept longer.
    return syscall(SYS_tgkill, getpid(), owner, 0) != 0 && errno == ESRCH;
}

ThreadRecord* ThreadTable::TakeOver(pid_t self) noexcept {
    // A few looks for each new thread keep the table near the number of living threads, and a new
    // thread cheap: records are found again long before their number has doubled.
    constexpr int looks = 16;
    // Acquire and release: whoever follows the pointer reads what the maker of the record wrote.
    ThreadRecord* record = m_candidate.load(std::memory_order_acquire);
    for (int i = 0; i < looks; ++i) {
        if (record == nullptr && (record = m_first.load(std::memory_order_acquire)) == nullptr)
            return nullptr;
        std::uint64_t last = record->owner.load(std::memory_order_relaxed);
        // Two living threads have different ids, so the caller's own id means an ended owner too.
        if ((ThreadId(last) == self || HasEnded(*record)) &&
            record->owner.compare_exchange_strong(last, NextOwner(last, self),
                                                  std::memory_order_relaxed)) {
            m_candidate.store(record->next, std::memory_order_release);
            return record;
        }
        record = record->next;
    }
    m_candidate.store(record, std::memory_order_release);
    return nullptr;
}

ThreadRecord& ThreadTable::Register() {
    const int error = errno; // the application's
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    ThreadRecord* record = TakeOver(self);
    if (record != nullptr) {
        record->append.TakeOver();
        record->operation.TakeOver();
        record->context.reset(); // the contexts that it left attached are not ours
    } else {
        record = new ThreadRecord;
        record->owner.store(NextOwner(0, self), std::memory_order_relaxed);
        record->next = m_first.load(std::memory_order_relaxed);
        // Sequentially consistent, see First; it also publishes the record's fields.
        while (!m_first.compare_exchange_weak(record->next, record, std::memory_order_seq_cst)) {}
    }
    t_thread.record = record;
    errno = error;
    return *record;
}

void ThreadTable::AdoptInChild() noexcept {
    if (ThreadRecord* const record = t_thread.record)
        record->owner.store(NextOwner(record->owner.load(std::memory_order_relaxed),
                                      static_cast<pid_t>(syscall(SYS_gettid))),
                            std::memory_order_relaxed);
}

MetricsThreadContext& ThreadTable::MakeContext() {
    ThreadRecord& record = Current();
    const SectionGuard guard(record.operation); // publishes the stack to whoever takes it over
    record.context = std::make_shared<MetricsThreadContext>();
    t_thread.context = record.context.get();
    return *t_thread.context;
}

bool ThreadTable::WaitForOperations(std::chrono::steady_clock::time_point deadline) const {
    for (const ThreadRecord* r = First(); r != nullptr; r = r->next) {
        for (const Section* section : {&r->operation, &r->append}) {
            const std::uint32_t seen = section->Read();
            if (!Section::IsInside(seen))
                continue;
            // An operation that began later finds the library switched off and touches nothing.
            while (section->Read() == seen) {
                if (r == t_thread.record || std::chrono::steady_clock::now() >= deadline)
                    return false;
                if (HasEnded(*r))
                    break;
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        }
    }
    return true;
}

void ThreadTable::FreeRecords() noexcept {
    ThreadRecord* record = m_first.exchange(nullptr, std::memory_order_acquire);
    m_candidate.store(nullptr, std::memory_order_relaxed);
    while (record != nullptr) {
        ThreadRecord* const next = record->next;
        if (record == t_thread.record || HasEnded(*record)) {
            delete record;
        } else {
            record->next = m_first.load(std::memory_order_relaxed);
            m_first.store(record, std::memory_order_relaxed);
        }
        record = next;
    }
    t_thread.record = nullptr;
    t_thread.context = nullptr;
}

} // namespace Metrics::detail

namespace Metrics {

MetricsThreadContext::MetricsThreadContext() noexcept = default;
MetricsThreadContext::~MetricsThreadContext() = default;

void MetricsThreadContext::ReserveOne() {
    if (m_contexts.size() == m_contexts.capacity())
        m_contexts.reserve(std::max<std::size_t>(4, m_contexts.size() * 2));
}

void MetricsThreadContext::AttachContext(Context* context) {
    m_contexts.push_back(context);
}

void MetricsThreadContext::DetachContext(Context* context) noexcept {
    m_contexts.erase(std::remove(m_contexts.begin(), m_contexts.end(), context), m_contexts.end());
}

std::uint64_t MetricsThreadContext::GetMetricsContextId() const noexcept {
    const Context* const current = GetCurrentContext();
    return current == nullptr ? 0 : current->GetContextId();
}

std::uint64_t MetricsThreadContext::GetParentMetricsContextId() const noexcept {
    const Context* const current = GetCurrentContext();
    return current == nullptr ? 0 : current->GetParentContextId();
}

} // namespace Metrics
