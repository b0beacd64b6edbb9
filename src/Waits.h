#ifndef METRICS_SRC_WAITS_H
#define METRICS_SRC_WAITS_H

#include <metrics/MetricsEvent.h>

#include <chrono>

namespace Metrics::detail {

/// Waits until everything that is queued at the call has reached the asynchronous consumers.
/// @return true then; false at the deadline, and when there is no delivery to wait for.
bool FlushUntil(std::chrono::steady_clock::time_point deadline);

/// Ends one registration of the listener at once. @return true when no call of it is in progress
/// any more, false when one was at the deadline.
bool RemoveConsumerUntil(const IMetricsListener* listener,
                         std::chrono::steady_clock::time_point deadline);

} // namespace Metrics::detail

#endif // METRICS_SRC_WAITS_H
