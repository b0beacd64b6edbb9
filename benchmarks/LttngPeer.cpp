#include "Bench.h"

#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "tracepoints.h"

namespace bench {

/// The call alone, on the emitting threads. The rings have room for all bursts of a run and their
/// reader is another process, so there is nothing to wait for between the bursts.
static void Emit(benchmark::State& state, Size size) {
    if (lttng_ust_tracepoint_enabled(metrics_bench, enabled))
        RunCalls(state, size,
                 [](std::int64_t i) { lttng_ust_tracepoint(metrics_bench, enabled, i, 0.5); });
    else
        state.SkipWithError("the tracepoint is off: run it by benchmarks/with-lttng");
}

void RegisterLttng() {
    Register("figure/lttng", 2, 7, [](benchmark::State& state) { Emit(state, figureSize); });
    Register("figure/single-lttng", 2, 7, [](benchmark::State& s) { Emit(s, singleCalls); });
    Register("figure/lttng-disabled", 1, 7, [](benchmark::State& state) {
        RunCalls(state, figureSize,
                 [](std::int64_t i) { lttng_ust_tracepoint(metrics_bench, disabled, i, 0.5); });
    });
}

} // namespace bench
