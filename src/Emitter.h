#ifndef METRICS_SRC_EMITTER_H
#define METRICS_SRC_EMITTER_H

#include <sys/types.h>

namespace Metrics::detail {

/// Inside OnMetricsEvent the thread id of the emitter; 0 elsewhere.
pid_t EmitterThreadId() noexcept;

} // namespace Metrics::detail

#endif // METRICS_SRC_EMITTER_H
