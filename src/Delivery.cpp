#include "Delivery.h"

#include "Emit.h"
#include "Faults.h"
#include "Ledger.h"
#include "Lifecycle.h"
#include "QueueLimit.h"

#include <korsys/NoCancellation.h>

#include <cxxabi.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace Metrics::detail {

namespace {

constexpr unsigned int batchPause = 5;   // ms in which a batch gathers
constexpr unsigned int idlePause = 100;  // to which it doubles while the queues stay empty
constexpr std::size_t shortRun = 256;    // behind fewer events it is as long at once
constexpr std::size_t largeBatch = 4096; // behind so many events no other one need gather
constexpr int idlePausesPerCheck = 10;   // between looks whether the process has ended but for us

constexpr std::size_t warmChunks = 128; // kept for whoever emits next: a quarter of a MiB
constexpr std::chrono::milliseconds peakHold{2000}; // how long the memory of a burst is kept
constexpr std::chrono::milliseconds peakStep{100};  // then an eighth goes back in each of these

/// Whether no thread of the application is left: `main` has ended by pthread_exit, and all others
/// have ended as well; `count` are `main` and ours. See proc(5): the state is that of the first
/// thread, a zombie then, which is counted.
bool IsLastThread(long count) noexcept {
    const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    std::array<char, 1024> text{};
    const ssize_t size = read(file, text.data(), text.size() - 1);
    close(file);
    const char* const name = size > 0 ? std::strrchr(text.data(), ')') : nullptr;
    char state = 0;
    long threads = 0;
    return name != nullptr &&
           std::sscanf(name + 1,
                       " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d "
                       "%*d %ld",
                       &state, &threads) == 2 &&
           state == 'Z' && threads == count;
}

} // namespace

// Flushes --------------------------------------------------------------------------------------

std::uint64_t Flushes::Request() {
    const korsys::MutexLock lock(m_lock);
    return m_hasEnded ? 0 : ++m_requested;
}

bool Flushes::WaitUntil(std::uint64_t request, Deadline deadline) {
    korsys::MutexLock lock(m_lock);
    while (m_answered < request && !m_hasEnded)
        if (!lock.WaitUntil(m_answer, deadline))
            break;
    return m_answered >= request;
}

std::uint64_t Flushes::Take() {
    const korsys::MutexLock lock(m_lock);
    return m_requested > m_answered ? m_requested : 0;
}

void Flushes::Answer(std::uint64_t request) {
    const korsys::MutexLock lock(m_lock);
    m_answered = std::max(m_answered, request);
    m_answer.notify_all();
}

void Flushes::End() {
    const korsys::MutexLock lock(m_lock);
    m_hasEnded = true;
    m_answer.notify_all();
}

bool FlushUntil(Deadline deadline) {
    s_life.NoticeFork();
    Delivery* const delivery = FindDelivery();
    if (delivery == nullptr || !s_life.Accepts() || t_thread.isDeliveryThread || IsInsideCall())
        return false;
    const std::uint64_t now = s_stampClock.Now();
    const std::uint64_t request = delivery->GetFlushes().Request();
    if (request == 0)
        return false;
    delivery->Wake();
    // What was emitted behind the end is not delivered, though the request is answered.
    return delivery->GetFlushes().WaitUntil(request, deadline) && !delivery->EndsBefore(now);
}

// The object -----------------------------------------------------------------------------------

namespace {

alignas(Delivery) constinit std::array<std::byte, sizeof(Delivery)> s_storage{};
constinit std::atomic<Delivery*> s_delivery{nullptr};

} // namespace

Delivery* FindDelivery() noexcept {
    return s_delivery.load(std::memory_order_acquire);
}

Delivery& MakeDelivery() noexcept {
    Delivery* delivery = FindDelivery();
    if (delivery == nullptr) {
        delivery = ::new (s_storage.data()) Delivery;
        s_delivery.store(delivery, std::memory_order_release);
    }
    return *delivery;
}

// Control --------------------------------------------------------------------------------------

void Delivery::Start() {
    s_threads.SetSwept(true);
    m_oldest.store(StampClock::Ticks(), std::memory_order_relaxed);
    ShareReading();
    try {
        m_first.thread.Start(&RunFirst, &m_first);
        m_isEverStarted.store(true, std::memory_order_relaxed);
    } catch (...) {
        s_threads.SetSwept(false);
        throw;
    }
}

void Delivery::EndHere() noexcept {
    const std::uint64_t now = s_stampClock.Now();
    // Release: what was published before. Relaxed: only the lowest counts.
    std::uint64_t end = m_end.load(std::memory_order_relaxed);
    while (now < end && !m_end.compare_exchange_weak(end, now, std::memory_order_release,
                                                     std::memory_order_relaxed)) {}
    Wake();
}

void Delivery::Wake() noexcept {
    m_wake.Signal();
}

bool Delivery::JoinUntil(Deadline deadline) noexcept {
    if (!m_stopped.WaitUntil(deadline))
        return false;
    // The one that has deposed the others is the last, but for the one that stands by.
    for (Turn* turn = &m_first; turn != nullptr; turn = turn->next.load(std::memory_order_acquire))
        if (!turn->calls.IsDeposed() && !turn->thread.JoinUntil(deadline))
            return false;
    return true;
}

void Delivery::Detach() noexcept {
    for (Turn* turn = &m_first; turn != nullptr; turn = turn->next.load(std::memory_order_acquire))
        if (turn->thread.IsStarted())
            turn->thread.Detach();
}

bool Delivery::JoinDeposed() noexcept {
    bool haveAllLeft = true;
    for (Turn* turn = &m_first; turn != nullptr;
         turn = turn->next.load(std::memory_order_acquire)) {
        if (!turn->calls.IsDeposed() || !turn->thread.IsStarted())
            continue;
        if (turn->hasLeft.load(std::memory_order_acquire)) {
            turn->thread.JoinUntil(Deadline::max());
        } else {
            turn->thread.Detach();
            haveAllLeft = false;
        }
    }
    return haveAllLeft;
}

class Delivery::Reading {
public:
    explicit Reading(Delivery& delivery) KORSYS_NO_THREAD_SAFETY_ANALYSIS
        : m_delivery(delivery.m_isShared.load(std::memory_order_relaxed) ? &delivery : nullptr) {
        if (m_delivery != nullptr)
            m_delivery->m_reading.Lock();
    }
    ~Reading() KORSYS_NO_THREAD_SAFETY_ANALYSIS {
        if (m_delivery != nullptr)
            m_delivery->m_reading.Unlock();
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

private:
    Delivery* m_delivery;
};

// The thread -----------------------------------------------------------------------------------

void Delivery::RunFirst(void* turn) {
    auto& self = *static_cast<Turn*>(turn);
    t_thread.isDeliveryThread = true;
    self.delivery.m_threads.fetch_add(1, std::memory_order_relaxed);
    self.delivery.Init();
    self.delivery.Run(self);
}

void Delivery::Init() {
    try {
        // Released right behind the call: its code may be gone later.
        if (const std::function<void()> init = std::exchange(m_init, nullptr))
            init();
    } catch (abi::__forced_unwind&) {
        throw; // glibc ends the thread by it, and it must pass
    } catch (...) {}
}

void Delivery::Run(Turn& turn) {
    unsigned int pause = idlePause;
    std::size_t run = 0; // delivered since the last long pause
    int idlePauses = 0;
    while (!InForkedChild()) {
        m_wake.Reset();
        m_isWoken.store(false, std::memory_order_relaxed);
        ShareReading();
        const std::uint64_t flush = m_flushes.Take();
        const std::uint64_t ticks = StampClock::Ticks();
        const std::uint64_t now = s_stampClock.Now();
        // Acquire: whoever has set it has published what it emitted before.
        const std::uint64_t end = m_end.load(std::memory_order_acquire);
        // At the end, all that began before it; and no more, since emitters may go on to lose.
        m_gapsUntil = end <= now ? StampClock::Ticks() : ticks;
        m_delivered = 0;
        s_queueLimit.SetThreads(s_threads.Size());
        LookAtMemory();
        const bool isComplete = DeliverUpTo(turn, std::min(now, end));
        if (InForkedChild())
            return; // a consumer has forked, and this is the child
        if (turn.calls.IsDeposed())
            break;
        if (isComplete && flush != 0)
            m_flushes.Answer(flush);
        if (isComplete && end <= now)
            break;
        {
            const Reading reading(*this);
            s_emptied.PutBack();
            s_threads.Sweep();
        }
        BalanceMemory();
        NoteFaults();
        s_faults.Tell();
        if (InForkedChild())
            return;
        // With thousands of threads the look at their queues is what costs.
        const auto gather = batchPause + static_cast<unsigned int>(s_threads.Size() / 200);
        const bool isIdle = isComplete && m_delivered == 0;
        run += m_delivered;
        pause = isIdle ? 2 * pause : gather;
        if (pause > idlePause || (isIdle && run < shortRun)) {
            pause = idlePause;
            run = 0;
        }
        if (pause == idlePause && isIdle && ++idlePauses % idlePausesPerCheck == 0 &&
            IsLastThread(1 + m_threads.load(std::memory_order_relaxed))) {
            ShowShutdown();
            s_life.SwitchOff(); // the process ends when this thread does, see pthread_exit(3)
            EndHere();
        } else if (m_delivered < largeBatch) {
            m_wake.Wait(pause);
        }
    }
    if (InForkedChild())
        return;
    if (turn.calls.IsDeposed()) {
        LeaveDeposed(turn);
        return;
    }
    FreeTurn(turn);
    End();
}

void Delivery::FreeTurn(Turn& turn) {
    turn.merge.Free();
    turn.event = DeliveredEvent();
    turn.gapEvent = MetricsEvent();
}

void Delivery::ShareReading() {
    const bool isWanted = DropsOldest();
    if (isWanted == m_isShared.load(std::memory_order_relaxed))
        return;
    const korsys::MutexLock lock(m_reading); // another thread may be at it
    m_isShared.store(isWanted, std::memory_order_release);
}

bool Delivery::DeliverUpTo(Turn& turn, std::uint64_t cut) {
    try {
        do {
            if (!LookAtQueues(turn, cut))
                return true;
        } while (!DeliverMerged(turn));
    } catch (const std::bad_alloc&) {
        return false; // tried again
    }
    return true;
}

bool Delivery::LookAtQueues(Turn& turn, std::uint64_t cut) {
    const Reading reading(*this);
    const std::uint64_t ticks = StampClock::Ticks();
    turn.merge.Begin(cut);
    std::size_t bytes = 0;
    for (ThreadRecord* record = s_threads.First(); record != nullptr; record = record->next) {
        Losses& losses = record->losses;
        // Acquire: where the gap begins.
        const std::uint64_t lost = losses.toLimit.load(std::memory_order_acquire);
        const std::uint64_t told = losses.told.load(std::memory_order_relaxed);
        if (lost != told) {
            m_gap.Add(lost - told, losses.gapTicks.load(std::memory_order_relaxed),
                      losses.gapWall.load(std::memory_order_relaxed));
            losses.told.store(lost, std::memory_order_release); // where it begins was read
        }
        turn.merge.Add(record->queue, record->owner.load(std::memory_order_relaxed));
        // Behind Add, which may give back the rest of a chunk: another queue may take it at once.
        bytes += record->queue.QueuedBytes();
    }
    turn.merge.Order();
    const Record* const front = turn.merge.Front();
    m_oldest.store(front == nullptr ? ticks : front->ticks, std::memory_order_relaxed);
    m_seenDrops = m_drops;
    if (m_dropGap.lost != 0) {
        m_gap.Add(m_dropGap.lost, m_dropGap.ticks, m_dropGap.wall);
        m_dropGap = Gap();
    }
    s_ledger.SeeQueuedBytes(bytes);
    return front != nullptr || IsGapDue(nullptr);
}

bool Delivery::DeliverMerged(Turn& turn) {
    // Nobody to deliver to: looked at after the queues were, so that whoever was registered before
    // something was emitted does not miss it.
    // Where others may read, one by one: what is destroyed is code of the application, and not to
    // run under their lock.
    if (!s_consumers.HasAsynchronous() && !SharesReading()) {
        m_gap = Gap();
        m_delivered += turn.merge.Discard();
        return true;
    }
    if (s_faults.HasHandler() && turn.merge.Front() != nullptr)
        s_faults.NoteLag(StampClock::Ticks() - turn.merge.Front()->ticks);
    Consumers::Calls calls(s_consumers, turn.calls);
    for (;;) {
        pid_t emitter = 0;
        const MetricsEvent* event = nullptr;
        bool isBehindGap = false;
        bool isGoingOn = false;
        {
            const Reading reading(*this);
            if (m_drops != m_seenDrops) [[unlikely]]
                return false; // others have read: looked at anew
            Record* const record = turn.merge.Front();
            isBehindGap = IsGapDue(record);
            if (record == nullptr && !isBehindGap)
                break;
            if (!isBehindGap) [[likely]] {
                m_oldest.store(record->ticks, std::memory_order_relaxed);
                m_lastTicks = record->ticks;
                m_lastWall = record->wall;
                m_isBehindRecord = true;
                event = &turn.event.Make(*record, turn.merge.Queue());
                emitter = turn.merge.Emitter();
                turn.merge.Pop();
            }
        }
        if (isBehindGap) {
            MakeGapEvent(turn.gapEvent);
            isGoingOn = calls.Call(turn.gapEvent, 0);
        } else {
            ++m_delivered;
            isGoingOn = calls.Call(*event, emitter);
        }
        if (!isGoingOn) { // deposed, or in a forked child
            if (!InForkedChild())
                WaitForEvent(turn);
            return true;
        }
        if (turn.event.HoldsObjects()) [[unlikely]] {
            // Whoever waits for the end of a call must not wait for what is freed here.
            calls.Leave();
            turn.event.Clear();
            if (InForkedChild())
                return true;
            calls.Enter();
        } else {
            turn.event.Clear();
        }
    }
    calls.EndBatch();
    return true;
}

// The thread that stands by --------------------------------------------------------------------

struct Delivery::FurtherTurn {
    DeliveryCalls calls;
    Turn turn;

    explicit FurtherTurn(Delivery& delivery) : turn{delivery, calls, {}, {}, {}, {}} {}
};

void Delivery::Watch(std::uint32_t milliseconds) {
    const unsigned int pause = std::clamp(milliseconds / 4, 1U, 100U);
    const unsigned int before = m_watchPause.load(std::memory_order_relaxed);
    if (before == 0 || pause < before)
        m_watchPause.store(pause, std::memory_order_relaxed);
    const korsys::MutexLock lock(m_watchLock);
    if (m_standby.load(std::memory_order_relaxed) == nullptr)
        StartStandby();
}

void Delivery::StartStandby() {
    // Never freed: there are as many as consumers that were set aside in a call, and one.
    auto made = std::make_unique<FurtherTurn>(*this);
    made->turn.thread.Start(&RunStandby, &made->turn);
    FurtherTurn* const further = made.release();
    Turn* last = &m_first;
    while (Turn* const next = last->next.load(std::memory_order_relaxed))
        last = next;
    last->next.store(&further->turn, std::memory_order_release);
    s_consumers.AddTurn(further->calls);
    m_standby.store(&further->turn, std::memory_order_release);
}

void Delivery::RunStandby(void* turn) {
    auto& self = *static_cast<Turn*>(turn);
    Delivery& delivery = self.delivery;
    delivery.m_threads.fetch_add(1, std::memory_order_relaxed);
    while (!delivery.m_ends.Wait(delivery.m_watchPause.load(std::memory_order_relaxed))) {
        if (delivery.m_standby.load(std::memory_order_acquire) != &self)
            continue; // not yet announced
        DeliveryCalls& present = s_consumers.PresentTurn();
        if (InForkedChild())
            return;
        if (s_consumers.Depose(present, self.calls)) {
            delivery.TakeOver(self, present);
            return;
        }
    }
    delivery.m_threads.fetch_sub(1, std::memory_order_relaxed);
}

void Delivery::TakeOver(Turn& turn, DeliveryCalls& other) {
    t_thread.isDeliveryThread = true;
    {
        const korsys::MutexLock lock(m_watchLock);
        m_standby.store(nullptr, std::memory_order_relaxed);
        try {
            StartStandby();
        } catch (...) {
            // Nobody stands by: the next consumer that is stuck holds up the others.
        }
    }
    if (GoOnBehind(turn, other))
        Run(turn);
    else if (!InForkedChild())
        LeaveDeposed(turn);
}

bool Delivery::GoOnBehind(Turn& turn, DeliveryCalls& other) {
    Consumers::Calls calls(s_consumers, turn.calls);
    const bool isGoingOn = calls.CallBehind(other);
    if (isGoingOn)
        calls.EndBatch(); // nothing may follow
    else if (!InForkedChild())
        WaitForEvent(turn);
    other.isEventFree.store(true, std::memory_order_release);
    return isGoingOn;
}

void Delivery::WaitForEvent(const Turn& turn) {
    PollUntil(Deadline::max(),
              [&turn] { return turn.calls.isEventFree.load(std::memory_order_acquire); });
}

void Delivery::LeaveDeposed(Turn& turn) {
    s_consumers.LeaveDeposed(turn.calls);
    FreeTurn(turn);
    m_threads.fetch_sub(1, std::memory_order_relaxed);
    turn.hasLeft.store(true, std::memory_order_release);
}

// What is lost to the limit --------------------------------------------------------------------

bool DropsOldest() noexcept {
    return s_queueLimit.IsSet() && s_queueLimit.Policy() == MetricsQueuePolicy::DropOldest;
}

bool MakeRoom(std::size_t bytes) noexcept {
    Delivery* const delivery = FindDelivery();
    const std::uint64_t limit = s_queueLimit.Bytes();
    if (limit == 0) // lifted a moment ago
        return s_queueLimit.Take(bytes);
    if (delivery == nullptr || bytes > limit)
        return false;
    delivery->WakeOnce();
    switch (s_queueLimit.Policy()) {
    case MetricsQueuePolicy::DropNewest:
        return false;
    case MetricsQueuePolicy::DropOldest:
        // Another emitter may be at it: then this one goes a little beyond.
        return delivery->DropOldest(bytes) ||
               (delivery->SharesReading() && s_queueLimit.TakeUpTo(limit + limit / 40, bytes));
    case MetricsQueuePolicy::Wait:
        break;
    }
    // A consumer that waits may be what the delivery waits for.
    if (IsInsideCall() || t_thread.isDeliveryThread)
        return false;
    const korsys::NoCancellation guard; // scopes emit from their destructors
    const Deadline deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(s_queueLimit.Milliseconds());
    bool isTaken = false;
    PollUntil(deadline, [bytes, &isTaken] {
        isTaken = s_queueLimit.Take(bytes);
        return isTaken || !s_life.Accepts();
    });
    return isTaken;
}

void Delivery::Gap::Add(std::uint64_t count, std::uint64_t firstTicks,
                        std::uint64_t firstWall) noexcept {
    lost += count;
    if (firstTicks < ticks) {
        ticks = firstTicks;
        wall = firstWall;
    }
}

bool Delivery::IsGapDue(const Record* next) const noexcept {
    if (m_gap.lost == 0)
        return false;
    if (next == nullptr) // what follows may be older than a gap that began a moment ago
        return m_gap.ticks <= m_gapsUntil;
    // One event at least between two gaps, or consumers that are slower than the emitters would be
    // told of nothing else.
    return m_isBehindRecord && m_gap.ticks < next->ticks;
}

void Delivery::MakeGapEvent(MetricsEvent& event) {
    event = MetricsEvent();
    event.eventType = MetricsEventType::Custom;
    event.param1 = MetricsValue("lost");
    event.param2 = MetricsValue(m_gap.lost);
    // Not before what was delivered, where it could not be told at its own place.
    if (m_gap.ticks > m_lastTicks) {
        m_lastTicks = m_gap.ticks;
        m_lastWall = m_gap.wall;
    }
    PutStamp(m_lastTicks, m_lastWall, event);
    m_gap = Gap();
    m_isBehindRecord = false;
}

bool Delivery::DropOldest(std::size_t bytes) noexcept {
    // Acquire: the thread has read without the lock before.
    if (!m_isShared.load(std::memory_order_acquire) || !m_reading.TryLock())
        return false;
    if (!m_isShared.load(std::memory_order_relaxed)) { // no more
        m_reading.Unlock();
        return false;
    }
    Remains remains; // destroyed behind the lock
    bool isTaken = false;
    // So that not every event comes here.
    const auto more = static_cast<std::size_t>(s_queueLimit.Bytes() / 64);
    try {
        Merge merge;
        merge.Begin(std::numeric_limits<std::uint64_t>::max());
        for (ThreadRecord* record = s_threads.First(); record != nullptr; record = record->next)
            merge.Add(record->queue, 0);
        merge.Order();
        ++m_drops;
        while (!(isTaken = s_queueLimit.Take(bytes + more)) && merge.Front() != nullptr) {
            Record& record = *merge.Front();
            EventQueue& queue = merge.Queue();
            m_dropGap.Add(0, record.ticks, record.wall);
            queue.Destroy(record, remains);
            merge.Pop();
            queue.GiveBack();
            ++m_dropGap.lost;
            m_droppedOldest.fetch_add(1, std::memory_order_relaxed);
        }
        if (isTaken)
            s_queueLimit.Give(more);
    } catch (const std::bad_alloc&) {
        // No memory to do it with.
    }
    m_reading.Unlock();
    return isTaken || s_queueLimit.Take(bytes);
}

void Delivery::WaitForSharing(Deadline deadline) const noexcept {
    PollUntil(deadline, [this] { return SharesReading() || !IsEverStarted() || HasEnded(); });
}

void Delivery::WakeOnce() noexcept {
    // Relaxed: a hint; the thread looks by itself before long.
    if (!m_isWoken.load(std::memory_order_relaxed) &&
        !m_isWoken.exchange(true, std::memory_order_relaxed))
        Wake();
}

void Delivery::NoteFaults() {
    if (!s_faults.HasHandler())
        return;
    const MetricsStatistics now = s_ledger.Counts();
    s_faults.NoteLosses(
        {now.lostToLimit, now.lostToMemory, now.lostToException, now.lostToShutdown});
}

// Memory ---------------------------------------------------------------------------------------

void Delivery::LookAtMemory() noexcept {
    // Before the batch is delivered: at its largest.
    const std::size_t inUse = s_chunks.InUse();
    const auto now = std::chrono::steady_clock::now();
    if (inUse >= m_peak) {
        m_peak = inUse;
        m_peakAt = now;
    } else if (now - m_peakAt > peakHold + peakStep) {
        m_peak -= std::max<std::size_t>(m_peak / 8, 1);
        m_peakAt += peakStep;
    }
}

void Delivery::BalanceMemory() noexcept {
    const std::size_t inUse = s_chunks.InUse();
    const std::size_t free = s_chunks.Free();
    if (inUse + free == 0)
        return; // nothing was ever emitted, or all is cold
    if (free < warmChunks) {
        s_chunks.KeepWarm(warmChunks);
        return;
    }
    const std::size_t wanted = std::max(warmChunks, m_peak > inUse ? m_peak - inUse : 0);
    const auto now = std::chrono::steady_clock::now();
    // Pages of which an idle thread has one half stay, and are not looked at again each time.
    if (free > wanted + wanted / 8 && free > m_untrimmed + m_untrimmed / 8 && now >= m_trimAt) {
        s_chunks.Trim(wanted);
        m_trimAt = now + peakStep;
        const std::size_t left = s_chunks.Free();
        m_untrimmed = left > wanted + wanted / 8 ? left : 0;
    }
}

// The end --------------------------------------------------------------------------------------

void Delivery::End() {
    s_life.EndDelivery(); // nothing more is let in
    m_ends.Signal();      // for the one that stands by
    m_flushes.End();      // everything that was queued before the end is delivered
    s_ledger.KeepConsumers();
    s_consumers.ReleaseAll(Deadline::max()); // may call back
    if (InForkedChild())
        return;
    {
        const korsys::MutexLock lock(m_reading); // an emitter may be at it
        m_isShared.store(false, std::memory_order_release);
    }
    for (ThreadRecord* record = s_threads.First(); record != nullptr; record = record->next) {
        const std::uint64_t before = record->queue.Taken();
        record->queue.Discard(record->queue.Published()); // what came behind the end
        Count(m_lostAtEnd, record->queue.Taken() - before);
    }
    s_emptied.PutBack();
    s_threads.SetSwept(false);
    NoteFaults();
    s_faults.TellLast();
    if (InForkedChild())
        return;
    m_hasEnded.store(true, std::memory_order_release);
    m_stopped.Signal();
}

} // namespace Metrics::detail
