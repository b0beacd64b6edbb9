#include "Consumers.h"

#include "Faults.h"
#include "Lifecycle.h"

#include <korsys/NoCancellation.h>

#include <cxxabi.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <memory>
#include <new>
#include <typeinfo>
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

// One registration -----------------------------------------------------------------------------

namespace {

/// The name of the listener's class, as it stands in its source. @throws std::bad_alloc
std::string ClassNameOf(const IMetricsListener& listener) {
    const char* const name = typeid(listener).name();
    int status = 0;
    char* const readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    const std::unique_ptr<char, void (*)(void*)> owner(readable, std::free);
    return status == 0 ? readable : name;
}

MetricsConsumerOptions Named(MetricsConsumerOptions options, const IMetricsListener& listener) {
    if (options.name.empty())
        options.name = ClassNameOf(listener);
    return options;
}

} // namespace

Consumer::Consumer(std::uint64_t b, MetricsListenerPtr&& l, const MetricsConsumerOptions& o)
    : bits(b),
      listener(std::move(l)),
      batch(dynamic_cast<BatchListener*>(listener.Get())),
      options(Named(o, *listener)) {}

bool Consumer::SetAside() noexcept {
    // Relaxed: a hint for whoever is about to call it.
    const bool isNew = !isSetAside.exchange(true, std::memory_order_relaxed);
    if (isNew)
        s_faults.NoteSetAside(options.name);
    return isNew;
}

void Consumer::Judge(bool hasThrown, std::uint64_t nanoseconds) noexcept {
    if (options.maxExceptions != 0) {
        // Relaxed, as above. Written only where something changes, since emitters share it.
        if (hasThrown) {
            if (exceptionsInRow.fetch_add(1, std::memory_order_relaxed) + 1 ==
                options.maxExceptions)
                SetAside();
        } else if (exceptionsInRow.load(std::memory_order_relaxed) != 0) {
            exceptionsInRow.store(0, std::memory_order_relaxed);
        }
    }
    if (options.maxCallMilliseconds != 0 &&
        nanoseconds > std::uint64_t{options.maxCallMilliseconds} * 1'000'000)
        SetAside();
}

// One list -------------------------------------------------------------------------------------

bool ConsumerList::Add(MetricsListenerPtr&& listener, std::uint64_t bits,
                       const MetricsConsumerOptions& options) {
    // Made before the lock is taken; freed after it when the list is closed.
    auto made = std::make_unique<Consumer>(bits, std::move(listener), options);
    const korsys::MutexLock lock(m_lock);
    if (m_isClosed)
        return false;
    std::uint32_t taken = 0; // slots, a bit each; there is one more than there are counts
    std::atomic<Consumer*>* last = &m_first;
    while (Consumer* const consumer = last->load(std::memory_order_relaxed)) {
        taken |= 1U << consumer->slot;
        last = &consumer->next;
    }
    made->registration = ++m_registrations;
    made->slot = std::min<std::uint32_t>(static_cast<std::uint32_t>(std::countr_one(taken)),
                                         CallCounts::slots);
    // Release: the registration. Sequentially consistent, see First.
    last->store(made.release(), std::memory_order_seq_cst);
    return true;
}

void ConsumerList::Describe(bool synchronous, std::vector<MetricsConsumerStatistics>& to) const {
    const korsys::MutexLock lock(m_lock);
    for (const Consumer* consumer = First(); consumer != nullptr;
         consumer = consumer->next.load(std::memory_order_relaxed)) {
        MetricsConsumerStatistics& it = to.emplace_back();
        it.name = consumer->options.name;
        it.bits = consumer->bits;
        it.synchronous = synchronous;
        it.setAside = consumer->isSetAside.load(std::memory_order_relaxed);
        const auto add = [&it](const auto& counts) {
            it.calls += counts.calls.load(std::memory_order_relaxed);
            it.exceptions += counts.exceptions.load(std::memory_order_relaxed);
            it.totalNanoseconds += counts.total.load(std::memory_order_relaxed);
            it.longestNanoseconds = std::max<std::uint64_t>(
                it.longestNanoseconds, counts.longest.load(std::memory_order_relaxed));
        };
        add(*consumer);
        if (!synchronous || consumer->slot == CallCounts::slots)
            continue;
        for (const ThreadRecord* r = s_threads.First(); r != nullptr; r = r->next) {
            // Acquire: they were made. The same below: they were reset.
            const CallCounts* const counts = r->callCounts.load(std::memory_order_acquire);
            if (counts != nullptr && counts[consumer->slot].registration.load(
                                         std::memory_order_acquire) == consumer->registration)
                add(counts[consumer->slot]);
        }
    }
}

std::string ConsumerList::NameOf(const Consumer* consumer) const {
    const korsys::MutexLock lock(m_lock);
    for (const Consumer* c = First(); c != nullptr; c = c->next.load(std::memory_order_relaxed))
        if (c == consumer)
            return c->options.name;
    for (const Consumer* c = m_kept; c != nullptr; c = c->nextKept)
        if (c == consumer)
            return c->options.name;
    return {};
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
            // Acquire: the end of the call.
            if (static_cast<std::int32_t>(kept->removal - removal) > 0 ||
                kept->isHeld.load(std::memory_order_acquire)) {
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

void ConsumerList::FreeKept(const Consumer* consumer, std::uint32_t registration) {
    std::unique_ptr<Consumer> freed; // destroyed behind the lock
    const korsys::MutexLock lock(m_lock);
    for (Consumer** place = &m_kept; *place != nullptr; place = &(*place)->nextKept) {
        if (*place == consumer && consumer->registration == registration) {
            freed.reset(std::exchange(*place, consumer->nextKept));
            return;
        }
    }
}

void ConsumerList::ResetLock() noexcept {
    ::new (&m_lock) korsys::Mutex;
}

// Registrations --------------------------------------------------------------------------------

bool Consumers::WaitForCalls(const ConsumerList& list, const Consumer* removed,
                             Deadline deadline) const noexcept {
    if (&list == &m_synchronous)
        return s_threads.WaitForCalls(deadline);
    // Oldest first: whoever deposes a thread is inside before that one is seen to be deposed.
    for (const DeliveryCalls* turn = &m_firstTurn; turn != nullptr;
         turn = turn->next.load(std::memory_order_acquire)) {
        const std::uint32_t seen = turn->section.Read();
        const bool isOwn =
            t_thread.isDeliveryThread && turn == m_turn.load(std::memory_order_relaxed);
        // The delivery thread itself is between two calls, or it would be refused.
        if (!Section::IsInside(seen) || isOwn)
            continue;
        const auto isOver = [turn, seen, removed] {
            return turn->section.Read() != seen ||
                   (turn->IsDeposed() && turn->consumer != removed); // it calls nobody else
        };
        if (!PollUntil(deadline, isOver))
            return false;
    }
    return true;
}

Consumers::Removed Consumers::RemoveUntil(const IMetricsListener* listener, Deadline deadline) {
    for (ConsumerList* const list : {&m_synchronous, &m_asynchronous}) {
        Consumer* const removed = list->Remove(listener);
        if (removed == nullptr)
            continue;
        const std::uint32_t removal = removed->removal;
        list->Keep(removed);
        if (!WaitForCalls(*list, removed, deadline))
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
        if (WaitForCalls(*list, nullptr, deadline))
            list->FreeKept(removal);
    }
}

void Consumers::ResetLocks() noexcept {
    m_synchronous.ResetLock();
    m_asynchronous.ResetLock();
}

// Calls ----------------------------------------------------------------------------------------

template <class Call>
bool Consumers::CallEach(Consumer* first, const MetricsEvent& event, pid_t emitter, Call call) {
    for (Consumer* consumer = first; consumer != nullptr;
         // Sequentially consistent, as First.
         consumer = consumer->next.load(std::memory_order_seq_cst)) {
        IMetricsListener* const listener = consumer->listener.Get(); // the section keeps it alive
        if (!PassesMask(event.bits, consumer->bits) || IsBeingCalled(listener) ||
            consumer->isSetAside.load(std::memory_order_relaxed))
            continue;
        const FrameGuard frame(listener, emitter);
        if (!call(*consumer) || InForkedChild())
            return false;
    }
    return true;
}

namespace {

/// Calls a consumer and drops what it throws. @return whether it threw.
bool CallQuietly(Consumer& consumer, const MetricsEvent& event) {
    try {
        consumer.listener->OnMetricsEvent(event);
        return false;
    } catch (abi::__forced_unwind&) {
        throw; // glibc ends the thread by it, and it must pass
    } catch (...) {
        s_faults.NoteException(consumer.options.name);
        return true;
    }
}

/// Where this thread counts its calls of a synchronous consumer; null when it has no place for
/// that.
CallCounts* CountsFor(ThreadRecord& record, const Consumer& consumer) noexcept {
    if (consumer.slot == CallCounts::slots)
        return nullptr;
    CallCounts* all = record.callCounts.load(std::memory_order_relaxed); // the thread's own
    if (all == nullptr) {
        all = new (std::nothrow) CallCounts[CallCounts::slots];
        if (all == nullptr)
            return nullptr;
        record.callCounts.store(all, std::memory_order_release); // see Describe
    }
    CallCounts& counts = all[consumer.slot];
    const std::uint32_t whose = counts.registration.load(std::memory_order_relaxed);
    if (whose == consumer.registration)
        return &counts;
    if (whose > consumer.registration)
        return nullptr; // it is being removed, and the slot another one's
    counts.registration.store(0, std::memory_order_relaxed);
    for (std::atomic<std::uint64_t>* number :
         {&counts.calls, &counts.exceptions, &counts.total, &counts.longest})
        number->store(0, std::memory_order_relaxed);
    counts.registration.store(consumer.registration, std::memory_order_release); // see Describe
    return &counts;
}

void CountSynchronousCall(ThreadRecord& record, Consumer& consumer, bool hasThrown,
                          std::uint64_t nanoseconds) noexcept {
    if (CallCounts* const counts = CountsFor(record, consumer)) {
        Count(counts->calls);
        Count(counts->exceptions, hasThrown ? 1 : 0);
        Count(counts->total, nanoseconds);
        if (nanoseconds > counts->longest.load(std::memory_order_relaxed))
            counts->longest.store(nanoseconds, std::memory_order_relaxed);
    } else {
        consumer.calls.fetch_add(1, std::memory_order_relaxed);
        consumer.exceptions.fetch_add(hasThrown ? 1 : 0, std::memory_order_relaxed);
        consumer.total.fetch_add(nanoseconds, std::memory_order_relaxed);
        std::uint64_t longest = consumer.longest.load(std::memory_order_relaxed);
        while (nanoseconds > longest && !consumer.longest.compare_exchange_weak(
                                            longest, nanoseconds, std::memory_order_relaxed)) {}
    }
    consumer.Judge(hasThrown, nanoseconds);
}

} // namespace

template <class Call>
void Consumers::CallSynchronousBy(ThreadRecord& record, const MetricsEvent& event,
                                  std::uint64_t start, Call call) {
    const korsys::NoCancellation noCancellation; // scopes emit from their destructors
    const SectionGuard guard(record.calls);
    CallEach(m_synchronous.First(), event, record.owner.load(std::memory_order_relaxed),
             [&](Consumer& consumer) {
                 const auto count = [&](bool hasThrown) {
                     const std::uint64_t now = StampClock::Ticks();
                     CountSynchronousCall(record, consumer, hasThrown,
                                          now - std::exchange(start, now));
                 };
                 try {
                     count(call(consumer));
                 } catch (...) {
                     count(true);
                     throw;
                 }
                 return true;
             });
}

void Consumers::CallSynchronous(ThreadRecord& record, const MetricsEvent& event,
                                std::uint64_t start) {
    CallSynchronousBy(record, event, start, [&event](Consumer& consumer) {
        consumer.listener->OnMetricsEvent(event);
        return false;
    });
}

void Consumers::CallSynchronousQuietly(ThreadRecord& record, const MetricsEvent& event,
                                       std::uint64_t start) noexcept {
    CallSynchronousBy(record, event, start,
                      [&event](Consumer& consumer) { return CallQuietly(consumer, event); });
}

// The delivery thread's calls ------------------------------------------------------------------

Consumers::Calls::Calls(Consumers& consumers, DeliveryCalls& turn) noexcept
    : m_consumers(consumers), m_now(turn) {
    Enter();
}

void Consumers::Calls::Enter() noexcept {
    m_now.section.Enter();
    m_isInside = true;
    const std::uint32_t removals = m_consumers.m_asynchronous.Removals();
    if (std::exchange(m_removals, removals) != removals)
        m_timed = nullptr; // whoever was called last may have gone
    m_start = StampClock::Ticks();
    m_now.since.store(m_start, std::memory_order_relaxed);
}

void Consumers::Calls::Pause() noexcept {
    if (m_open != nullptr)
        std::exchange(m_open, nullptr)->OnPause();
}

void Consumers::Calls::Leave() noexcept {
    if (!m_isInside)
        return;
    if (!InForkedChild())
        Pause();
    if (m_run != 0)
        Account();
    m_isInside = false;
    m_now.section.Leave();
}

void Consumers::Calls::LetRemovalsGoOn() noexcept {
    if (m_isInside && m_removals == m_consumers.m_asynchronous.Removals()) [[likely]]
        return;
    Leave();
    Enter();
}

void Consumers::Calls::Account() noexcept {
    const std::uint64_t now = StampClock::Ticks();
    const std::uint64_t elapsed = now - std::exchange(m_start, now);
    const std::uint64_t mean = m_run == 1 ? elapsed : elapsed / m_run; // a division takes long
    m_usual = std::min(mean, m_usual + m_usual / 8 + 1);
    // All but one of them may have been usual ones.
    const std::uint64_t longest = elapsed - (m_run - 1) * std::min(m_usual, mean);
    Count(m_timed->total, elapsed);
    if (longest > m_timed->longest.load(std::memory_order_relaxed))
        m_timed->longest.store(longest, std::memory_order_relaxed);
    const bool isAlone = m_timed->next.load(std::memory_order_relaxed) == nullptr;
    m_runEnd = isAlone && mean < shortCall ? runLength : 1;
    m_run = 0;
    m_now.since.store(now, std::memory_order_relaxed);
}

bool Consumers::Calls::CallOne(Consumer& consumer, const MetricsEvent& event, pid_t emitter) {
    if (m_timed != &consumer) {
        Pause(); // the one that was called last
        if (m_run != 0)
            Account();
        m_timed = &consumer;
        m_usual = 0;
        m_runEnd = 1;
    }
    const std::uint64_t limit = std::uint64_t{consumer.options.maxCallMilliseconds} * 1'000'000;
    if (limit != 0) {
        // What has passed since the last call is not this consumer's.
        m_start = StampClock::Ticks();
        m_now.since.store(m_start, std::memory_order_relaxed);
        m_now.limit.store(limit, std::memory_order_relaxed);
        m_now.consumer = &consumer;
        m_now.event = &event;
        m_now.emitter = emitter;
        // Release: these, for the one who deposes this thread.
        m_now.watched.store(++m_now.number, std::memory_order_release);
    }
    m_now.at.store(&consumer, std::memory_order_relaxed);
    // @return false when this thread was deposed in the call.
    const auto endWatch = [this, limit] {
        std::uint64_t watched = m_now.number;
        return limit == 0 || InForkedChild() ||
               m_now.watched.compare_exchange_strong(watched, DeliveryCalls::notWatched,
                                                     std::memory_order_acq_rel);
    };
    bool hasThrown = false;
    try {
        hasThrown = CallQuietly(consumer, event);
    } catch (...) { // the thread ends: nobody goes on behind a consumer that is not held any more
        endWatch();
        throw;
    }
    const bool isDeposed = !endWatch();
    m_now.at.store(nullptr, std::memory_order_relaxed);
    m_open = consumer.batch;
    Count(consumer.calls);
    if (hasThrown) [[unlikely]]
        Count(consumer.exceptions);
    const std::uint64_t start = m_start;
    ++m_run;
    if (m_run >= m_runEnd || limit != 0)
        Account();
    consumer.Judge(hasThrown, limit != 0 ? m_start - start : 0);
    return !isDeposed;
}

bool Consumers::Calls::CallFrom(Consumer* first, const MetricsEvent& event, pid_t emitter) {
    return CallEach(first, event, emitter, [this, &event, emitter](Consumer& consumer) {
        return CallOne(consumer, event, emitter);
    });
}

bool Consumers::Calls::Call(const MetricsEvent& event, pid_t emitter) {
    LetRemovalsGoOn();
    return CallFrom(m_consumers.m_asynchronous.First(), event, emitter);
}

bool Consumers::Calls::CallBehind(const DeliveryCalls& other) {
    return CallFrom(other.consumer->next.load(std::memory_order_seq_cst), *other.event,
                    other.emitter);
}

void Consumers::Calls::EndBatch() noexcept {
    LetRemovalsGoOn();
    if (m_run != 0)
        Account();
    for (const Consumer* consumer = m_consumers.m_asynchronous.First(); consumer != nullptr;
         consumer = consumer->next.load(std::memory_order_seq_cst)) {
        if (consumer->batch == nullptr || consumer->isSetAside.load(std::memory_order_relaxed))
            continue;
        const FrameGuard frame(consumer->listener.Get(), 0);
        m_now.at.store(consumer, std::memory_order_relaxed);
        consumer->batch->OnBatchEnd();
        m_now.at.store(nullptr, std::memory_order_relaxed);
    }
    m_open = nullptr;
}

// A second delivery thread ---------------------------------------------------------------------

void Consumers::AddTurn(DeliveryCalls& turn) noexcept {
    DeliveryCalls* last = &m_firstTurn;
    while (DeliveryCalls* const next = last->next.load(std::memory_order_relaxed))
        last = next;
    last->next.store(&turn, std::memory_order_release);
}

bool Consumers::Depose(DeliveryCalls& other, DeliveryCalls& own) noexcept {
    // Acquire: since when, and the limit, are not those of an earlier call. Of a later one they may
    // be; then this call has ended.
    std::uint64_t watched = other.watched.load(std::memory_order_acquire);
    if (watched == DeliveryCalls::notWatched || watched == DeliveryCalls::deposed ||
        other.NanosecondsInCall() <= other.limit.load(std::memory_order_relaxed))
        return false;
    // Inside before the other one is deposed: whoever waits for a removal finds one of them.
    own.section.Enter();
    if (!other.watched.compare_exchange_strong(watched, DeliveryCalls::deposed,
                                               std::memory_order_seq_cst)) {
        own.section.Leave();
        return false;
    }
    other.consumer->isHeld.store(true, std::memory_order_relaxed);
    other.consumer->SetAside();
    // Its other registrations as well: no asynchronous consumer is called by two threads at once.
    for (Consumer* consumer = m_asynchronous.First(); consumer != nullptr;
         consumer = consumer->next.load(std::memory_order_seq_cst))
        if (consumer->listener.Get() == other.consumer->listener.Get())
            consumer->SetAside();
    m_turn.store(&own, std::memory_order_release);
    return true;
}

void Consumers::LeaveDeposed(DeliveryCalls& turn) noexcept {
    Consumer* const consumer = turn.consumer;
    const std::uint32_t registration = consumer->registration;
    // Release: the end of the call, for who frees it. The section was left before; until here the
    // consumer is kept.
    consumer->isHeld.store(false, std::memory_order_release);
    m_asynchronous.FreeKept(consumer, registration);
}

// Figures --------------------------------------------------------------------------------------

void Consumers::Describe(std::vector<MetricsConsumerStatistics>& to) const {
    m_synchronous.Describe(true, to);
    m_asynchronous.Describe(false, to);
}

std::string Consumers::NowCalled(std::uint64_t& nanoseconds) const {
    const DeliveryCalls& turn = *m_turn.load(std::memory_order_acquire);
    const Consumer* const at = turn.at.load(std::memory_order_relaxed);
    std::string name = at == nullptr ? std::string() : m_asynchronous.NameOf(at);
    nanoseconds = name.empty() ? 0 : turn.NanosecondsInCall();
    return name;
}

} // namespace Metrics::detail

std::int32_t Metrics::GetEventThreadId() noexcept {
    const detail::DeliveryFrame* const frame = detail::t_thread.delivery;
    return frame == nullptr ? 0 : frame->emitter;
}
