#ifndef METRICS_STATISTICS_H
#define METRICS_STATISTICS_H

#include <cstdint>
#include <string>
#include <vector>

namespace Metrics {

/// What one registration of a consumer has been called for. Times are of the steady clock, in
/// nanoseconds.
///
/// Thread-safety: one thread at a time for each object.
struct MetricsConsumerStatistics {
    std::string name;                   ///< As registered; otherwise the name of its class.
    std::uint64_t bits = 0;             ///< Its mask.
    bool synchronous = false;           ///< Called by the emitters, or by the delivery thread.
    std::uint64_t calls = 0;            ///< Calls of OnMetricsEvent that have ended.
    std::uint64_t exceptions = 0;       ///< Those of them that threw.
    std::uint64_t totalNanoseconds = 0; ///< How long the calls took together.
    /// The longest one. Exact to the length of 16 usual calls.
    std::uint64_t longestNanoseconds = 0;
    bool setAside = false; ///< Not called any more, see MetricsConsumerOptions.
};

/// The ledger: what became of the events. Every event that passed the mask is accepted, and is then
/// delivered, queued or lost, and counted once:
///
///     accepted == delivered + queued + lostToLimit + lostToMemory + lostToException +
///     lostToShutdown
///
/// Shutdown events and the library's own "lost" events are not counted. All counts are of the
/// process, from its beginning.
///
/// Thread-safety: one thread at a time for each object.
struct MetricsStatistics {
    std::uint64_t accepted = 0; ///< Emitted while enabled, and let through by the mask.
    /// Left the queue through the delivery, to however many consumers.
    std::uint64_t delivered = 0;
    std::uint64_t queued = 0;          ///< Wait for the delivery.
    std::uint64_t lostToLimit = 0;     ///< Dropped at the bound of SetQueueLimit.
    std::uint64_t lostToMemory = 0;    ///< There was no memory; the emitter was told by bad_alloc.
    std::uint64_t lostToException = 0; ///< A synchronous consumer threw; the emitter was told.
    /// Accepted when the delivery was ending, and behind its end.
    std::uint64_t lostToShutdown = 0;
    std::uint64_t queuedBytes = 0; ///< What the queued events take, long texts included.
    /// The most that was seen of it; looked at with each batch.
    std::uint64_t peakQueuedBytes = 0;
    /// Threads that have used the library, and are not known to have ended.
    std::uint64_t threads = 0;
    /// How long the oldest event waits that is not delivered, in nanoseconds of the steady clock;
    /// between two batches, up to 100 ms more. 0 when none waits.
    std::uint64_t oldestNanoseconds = 0;
    /// The registrations: synchronous ones first, each kind in the order of the calls. When the
    /// library is off, those that there were at the end.
    std::vector<MetricsConsumerStatistics> consumers;
};

/// What MetricsManager::Shutdown has to tell.
///
/// Thread-safety: one thread at a time for each object.
struct MetricsShutdownReport {
    bool ended = false; ///< The delivery thread has ended: all that was queued before is delivered.
    MetricsStatistics statistics; ///< At the end.
    std::string stuckConsumer; ///< Who was being called when time ran out; empty when nobody was.
    std::uint64_t stuckNanoseconds = 0; ///< For how long it had been, by the steady clock.
};

} // namespace Metrics

#endif // METRICS_STATISTICS_H
