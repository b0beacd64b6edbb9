#ifndef METRICS_SRC_EMITTER_H
#define METRICS_SRC_EMITTER_H

#include <cstdint>

namespace Metrics::detail {

/// Inside OnMetricsEvent the thread id of the emitter; 0 elsewhere, and when it is not known.
inline std::int32_t EmitterThreadId() noexcept {
    return 0; // the queue does not carry it yet
}

} // namespace Metrics::detail

#endif // METRICS_SRC_EMITTER_H
