#ifndef METRICS_SRC_LEDGER_H
#define METRICS_SRC_LEDGER_H

#include "NeverDestroyed.h"

#include <metrics/MetricsStatistics.h>

#include <korsys/Mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Metrics::detail {

/// What became of all events, gathered from where it is counted: in each thread's queue and record,
/// and by the delivery thread.
///
/// Thread-safety: safe from any thread at any time.
class Ledger {
public:
    constexpr Ledger() noexcept = default;

    /// All but the consumers. Allocates nothing.
    MetricsStatistics Counts() noexcept;
    /// @throws std::bad_alloc
    MetricsStatistics Read() KORSYS_EXCLUDES(m_lock);

    void SeeQueuedBytes(std::uint64_t bytes) noexcept;

    /// Keeps the figures of the present registrations, which are about to end.
    void KeepConsumers() noexcept KORSYS_EXCLUDES(m_lock);
    /// At unload.
    void Free() noexcept KORSYS_EXCLUDES(m_lock);

private:
    std::atomic<std::uint64_t> m_peak{0};
    korsys::Mutex m_lock;
    NeverDestroyed<std::vector<MetricsConsumerStatistics>> m_consumers KORSYS_GUARDED_BY(m_lock);
};

extern constinit Ledger s_ledger;

} // namespace Metrics::detail

#endif // METRICS_SRC_LEDGER_H
