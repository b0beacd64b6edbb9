#include "Ledger.h"

#include "Consumers.h"
#include "Delivery.h"
#include "Lifecycle.h"
#include "StampClock.h"
#include "ThreadTable.h"

#include <new>

namespace Metrics::detail {

constinit Ledger s_ledger;

void Ledger::SeeQueuedBytes(std::uint64_t bytes) noexcept {
    std::uint64_t peak = m_peak.load(std::memory_order_relaxed);
    while (bytes > peak && !m_peak.compare_exchange_weak(peak, bytes, std::memory_order_relaxed)) {}
}

MetricsStatistics Ledger::Counts() noexcept {
    MetricsStatistics now;
    const Delivery* const delivery = FindDelivery();
    // First: what it has lost is among what was taken.
    const bool isOver =
        delivery != nullptr && delivery->IsEverStarted() ? delivery->HasEnded() : IsOff();
    std::uint64_t lostByDelivery = 0;
    if (delivery != nullptr) {
        now.lostToLimit = delivery->DroppedOldest();
        now.lostToShutdown = delivery->LostAtEnd();
        lostByDelivery = now.lostToLimit + now.lostToShutdown;
        now.oldestNanoseconds = delivery->OldestTicks(); // turned into an age below
    }
    now.lostToMemory = s_threads.LostWithoutRecord();
    std::uint64_t taken = 0;
    for (const ThreadRecord* r = s_threads.First(); r != nullptr; r = r->next) {
        const std::uint64_t takenHere = r->queue.Taken();
        taken += takenHere;
        now.queued += r->queue.Appended() - takenHere;
        now.queuedBytes += r->queue.QueuedBytes();
        const auto add = [](std::uint64_t& sum, const std::atomic<std::uint64_t>& number) {
            sum += number.load(std::memory_order_relaxed);
        };
        add(now.lostToLimit, r->losses.toLimit);
        add(now.lostToMemory, r->losses.toMemory);
        add(now.lostToException, r->losses.toException);
        add(now.lostToShutdown, r->losses.toShutdown);
    }
    now.delivered = taken > lostByDelivery ? taken - lostByDelivery : 0;
    if (isOver) { // what came behind the end
        now.lostToShutdown += now.queued;
        now.queued = now.queuedBytes = 0;
    }
    now.accepted = now.delivered + now.queued + now.lostToLimit + now.lostToMemory +
                   now.lostToException + now.lostToShutdown;
    SeeQueuedBytes(now.queuedBytes);
    now.peakQueuedBytes = m_peak.load(std::memory_order_relaxed);
    now.threads = s_threads.Size();
    now.oldestNanoseconds = now.queued == 0 ? 0 : StampClock::Ticks() - now.oldestNanoseconds;
    return now;
}

MetricsStatistics Ledger::Read() {
    if (InForkedChild())
        return {};
    MetricsStatistics now = Counts();
    s_consumers.Describe(now.consumers);
    if (now.consumers.empty()) {
        const korsys::MutexLock lock(m_lock);
        now.consumers = *m_consumers;
    }
    return now;
}

void Ledger::KeepConsumers() noexcept try {
    std::vector<MetricsConsumerStatistics> consumers;
    s_consumers.Describe(consumers);
    const korsys::MutexLock lock(m_lock);
    m_consumers->swap(consumers);
} catch (const std::bad_alloc&) {
    // No memory to keep them in.
}

void Ledger::Free() noexcept {
    const korsys::MutexLock lock(m_lock);
    std::vector<MetricsConsumerStatistics>().swap(*m_consumers);
}

} // namespace Metrics::detail
