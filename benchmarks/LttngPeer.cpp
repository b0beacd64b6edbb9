#include "Bench.h"

#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "tracepoints.h"

namespace bench {

namespace {

using benchmark::State;

constexpr auto call = [](std::int64_t i) { lttng_ust_tracepoint(metrics_bench, enabled, i, 0.5); };

/// The call alone, on the emitting threads. The rings have room for all bursts of a run and their
/// reader is another process, so there is nothing to wait for between the bursts.
void Add(const std::string& name, int maxThreads, int bursts, void (*run)(State&)) {
    Register(name, maxThreads, bursts, [run](State& state) {
        if (lttng_ust_tracepoint_enabled(metrics_bench, enabled))
            run(state);
        else
            state.SkipWithError("the tracepoint is off: run it by benchmarks/with-lttng");
    });
}

void Burst() {
    for (std::size_t i = 0; i < freshCalls; ++i)
        call(static_cast<std::int64_t>(i));
}

} // namespace

void RegisterLttng() {
    Add("figure/lttng", 2, 7, [](State& state) { RunCalls(state, figureSize, call); });
    Add("figure/single-lttng", 2, 7, [](State& state) { RunCalls(state, singleCalls, call); });
    Add("figure/cold-lttng", 1, 2, [](State& state) { RunCold(state, call); });
    Add("figure/fresh-lttng-1", 1, 1, [](State& state) { RunFresh(state, 1, Burst); });
    Add("figure/fresh-lttng-2", 1, 1, [](State& state) { RunFresh(state, 2, Burst); });
    Register("figure/lttng-disabled", 1, 7, [](State& state) {
        RunCalls(state, figureSize,
                 [](std::int64_t i) { lttng_ust_tracepoint(metrics_bench, disabled, i, 0.5); });
    });
}

} // namespace bench
