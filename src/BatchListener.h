#ifndef METRICS_SRC_BATCH_LISTENER_H
#define METRICS_SRC_BATCH_LISTENER_H

#include <metrics/MetricsEvent.h>

namespace Metrics::detail {

/// A consumer inside of the library that gathers events, and wants to know when no more come for
/// the time being.
class BatchListener : public IMetricsListener {
public:
    /// Called on the delivery thread when the last event of a batch was delivered, before those who
    /// wait for a flush are let go; the same as OnMetricsEvent otherwise.
    virtual void OnBatchEnd() noexcept = 0;

    /// Called on the delivery thread behind one or more events, before anything is done that may
    /// take long: another consumer's call, say. Until then the listener may keep what it needs for
    /// each of them.
    virtual void OnPause() noexcept = 0;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_BATCH_LISTENER_H
