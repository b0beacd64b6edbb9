#include "Consumers.h"

#include "Lifecycle.h"

#include <korsys/NoCancellation.h>

#include <cxxabi.h>

#include <memory>
#include <new>
#include <utility>

namespace Metrics::detail {

constinit Consumers s_consumers;

namespace {

class FrameGuard {
public:
    FrameGuard(const IMetricsListener* listener, pid_t emitter) noexcept
        : m_frame{listener, emitter, t_thread.delivery} {
        t_thread.delivery = &m_frame;
    }
    ~FrameGuard() { t_thread.delivery = m_frame.outer; }
    FrameGuard(const FrameGuard&) = delete;
    FrameGuard& operator=(const FrameGuard&) = delete;

private:
    DeliveryFrame m_frame;
};

bool IsBeingCalled(const IMetricsListener* listener) noexcept {
    for (const DeliveryFrame* frame = t_thread.delivery; frame != nullptr; frame = frame->outer)
        if (frame->listener == listener)
            return true;
    return false;
}

} // namespace

// One list -------------------------------------------------------------------------------------

bool ConsumerList::Add(MetricsListenerPtr&& listener, std::uint64_t bits) {
    // Made before the lock is taken; freed after it when the list is closed.
    auto made = std::make_unique<Consumer>(bits, std::move(listener));
    const korsys::MutexLock lock(m_lock);
    if (m_isClosed)
        return false;
    std::atomic<Consumer*>* last = &m_first;
    while (Consumer* const consumer = last->load(std::memory_order_relaxed))
        last = &consumer->next;
    // Release: the registration. Sequentially consistent, see First.
    last->store(made.release(), std::memory_order_seq_cst);
    return true;
}

Consumer* ConsumerList::Remove(const IMetricsListener* listener) {
    const korsys::MutexLock lock(m_lock);
    for (std::atomic<Consumer*>* place = &m_first;;) {
        Consumer* const consumer = place->load(std::memory_order_relaxed);
        if (consumer == nullptr)
            return nullptr;
        if (listener == nullptr || consumer->listener.Get() == listener) {
            place->store(consumer->next.load(std::memory_order_relaxed), std::memory_order_seq_cst);
            consumer->removal = m_removals.fetch_add(1, std::memory_order_seq_cst) + 1;
            return consumer;
        }
        place = &consumer->next;
    }
}

void ConsumerList::Close() {
    const korsys::MutexLock lock(m_lock);
    m_isClosed = true;
}

void ConsumerList::Keep(Consumer* removed) {
    const korsys::MutexLock lock(m_lock);
    removed->nextKept = std::exchange(m_kept, removed);
}

void ConsumerList::FreeKept(std::uint32_t removal) {
    Consumer* freed = nullptr;
    {
        const korsys::MutexLock lock(m_lock);
        for (Consumer** place = &m_kept; *place != nullptr;) {
            Consumer* const kept = *place;
            if (static_cast<std::int32_t>(kept->removal - removal) > 0) {
                place = &kept->nextKept;
                continue;
            }
            *place = kept->nextKept;
            kept->nextKept = std::exchange(freed, kept);
        }
    }
    // Outside of the lock: the consumer may go with it, and its destructor may call the manager.
    while (freed != nullptr)
        delete std::exchange(freed, freed->nextKept);
}

void ConsumerList::ResetLock() noexcept {
    ::new (&m_lock) korsys::Mutex;
}

// Registrations --------------------------------------------------------------------------------

bool Consumers::WaitForCalls(const ConsumerList& list, Deadline deadline) const noexcept {
    if (&list == &m_synchronous)
        return s_threads.WaitForCalls(deadline);
    if (t_thread.isDeliveryThread) // which is between two calls, or it would be refused
        return true;
    const std::uint32_t seen = m_delivery.Read();
    return !Section::IsInside(seen) ||
           PollUntil(deadline, [this, seen] { return m_delivery.Read() != seen; });
}

Consumers::Removed Consumers::RemoveUntil(const IMetricsListener* listener, Deadline deadline) {
    for (ConsumerList* const list : {&m_synchronous, &m_asynchronous}) {
        Consumer* const removed = list->Remove(listener);
        if (removed == nullptr)
            continue;
        const std::uint32_t removal = removed->removal;
        list->Keep(removed);
        if (!WaitForCalls(*list, deadline))
            return Removed::StillCalled;
        list->FreeKept(removal);
        return Removed::Yes;
    }
    return Removed::No;
}

Consumers::Removed RemoveConsumerUntil(const IMetricsListener* listener, Deadline deadline) {
    const korsys::NoCancellation noCancellation; // it waits, and destroys
    s_life.NoticeFork();
    if (listener == nullptr || IsInsideCall() || !s_life.Accepts())
        return Consumers::Removed::No;
    return s_consumers.RemoveUntil(listener, deadline);
}

void Consumers::ReleaseAll(Deadline deadline) noexcept {
    for (ConsumerList* const list : {&m_asynchronous, &m_synchronous}) {
        list->Close();
        while (Consumer* const removed = list->Remove(nullptr))
            list->Keep(removed);
        const std::uint32_t removal = list->Removals();
        if (WaitForCalls(*list, deadline))
            list->FreeKept(removal);
    }
}

void Consumers::ResetLocks() noexcept {
    m_synchronous.ResetLock();
    m_asynchronous.ResetLock();
}

// Calls ----------------------------------------------------------------------------------------

template <class Call>
void Consumers::CallEach(const ConsumerList& list, const MetricsEvent& event, pid_t emitter,
                         Call call) {
    for (const Consumer* consumer = list.First(); consumer != nullptr;
         // Sequentially consistent, as First.
         consumer = consumer->next.load(std::memory_order_seq_cst)) {
        IMetricsListener* const listener = consumer->listener.Get(); // the section keeps it alive
        if (!PassesMask(event.bits, consumer->bits) || IsBeingCalled(listener))
            continue;
        const FrameGuard frame(listener, emitter);
        call(*listener);
        if (InForkedChild())
            return;
    }
}

namespace {

/// Calls a consumer and drops what it throws.
void CallQuietly(IMetricsListener& listener, const MetricsEvent& event) {
    try {
        listener.OnMetricsEvent(event);
    } catch (abi::__forced_unwind&) {
        throw; // glibc ends the thread by it, and it must pass
    } catch (...) {}
}

} // namespace

void Consumers::CallSynchronous(ThreadRecord& record, const MetricsEvent& event) {
    const korsys::NoCancellation noCancellation; // scopes emit from their destructors
    const SectionGuard guard(record.calls);
    CallEach(m_synchronous, event, record.owner.load(std::memory_order_relaxed),
             [&event](IMetricsListener& listener) { listener.OnMetricsEvent(event); });
}

void Consumers::CallSynchronousQuietly(ThreadRecord& record, const MetricsEvent& event) noexcept {
    const korsys::NoCancellation noCancellation;
    const SectionGuard guard(record.calls);
    CallEach(m_synchronous, event, record.owner.load(std::memory_order_relaxed),
             [&event](IMetricsListener& listener) { CallQuietly(listener, event); });
}

void Consumers::Calls::Enter() noexcept {
    m_consumers.m_delivery.Enter();
    m_isInside = true;
    m_removals = m_consumers.m_asynchronous.Removals();
}

void Consumers::Calls::Leave() noexcept {
    if (std::exchange(m_isInside, false))
        m_consumers.m_delivery.Leave();
}

void Consumers::Calls::Call(const MetricsEvent& event, pid_t emitter) {
    if (m_removals != m_consumers.m_asynchronous.Removals()) [[unlikely]] {
        Leave();
        Enter();
    }
    CallEach(m_consumers.m_asynchronous, event, emitter,
             [&event](IMetricsListener& listener) { CallQuietly(listener, event); });
}

void Consumers::Calls::EndBatch() noexcept {
    if (!m_isInside || m_removals != m_consumers.m_asynchronous.Removals()) {
        Leave();
        Enter();
    }
    for (const Consumer* consumer = m_consumers.m_asynchronous.First(); consumer != nullptr;
         consumer = consumer->next.load(std::memory_order_seq_cst)) {
        if (consumer->batch == nullptr)
            continue;
        const FrameGuard frame(consumer->listener.Get(), 0);
        consumer->batch->OnBatchEnd();
    }
}

} // namespace Metrics::detail

std::int32_t Metrics::GetEventThreadId() noexcept {
    const detail::DeliveryFrame* const frame = detail::t_thread.delivery;
    return frame == nullptr ? 0 : frame->emitter;
}
