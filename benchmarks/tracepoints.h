// No usual guard: the tracing headers read this file several times, for one part each.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER metrics_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "tracepoints.h"

#if !defined(METRICS_BENCHMARKS_TRACEPOINTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define METRICS_BENCHMARKS_TRACEPOINTS_H

#include <lttng/tracepoint.h>

#include <stdint.h>

// clang-format off
LTTNG_UST_TRACEPOINT_EVENT_CLASS(metrics_bench, two_numbers,
    LTTNG_UST_TP_ARGS(int64_t, first, double, second),
    LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int64_t, first, first)
                        lttng_ust_field_float(double, second, second)))

LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(metrics_bench, two_numbers, metrics_bench, enabled,
    LTTNG_UST_TP_ARGS(int64_t, first, double, second))

LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(metrics_bench, two_numbers, metrics_bench, disabled,
    LTTNG_UST_TP_ARGS(int64_t, first, double, second))
// clang-format on

#endif

#include <lttng/tracepoint-event.h>
