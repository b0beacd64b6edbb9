#include "Bench.h"

#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "tracepoints.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

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

/// Processor time of the process that writes the rings to files, in seconds; 0 when there is none.
double ConsumerSeconds() {
    double seconds = 0;
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
        std::string name;
        std::ifstream(process.path() / "comm") >> name;
        if (name.compare(0, 13, "lttng-consume") != 0)
            continue;
        for (const auto& task : std::filesystem::directory_iterator(process.path() / "task")) {
            double nanoseconds = 0; // the first number, see Documentation/scheduler/sched-stats
            std::ifstream(task.path() / "schedstat") >> nanoseconds;
            seconds += nanoseconds * 1e-9;
        }
    }
    return seconds;
}

/// What that process works for each event, until it has done with them.
void Consumer(State& state) {
    constexpr std::size_t events = 500'000;
    std::vector<double> times;
    for (auto _ : state) {
        const double start = ConsumerSeconds();
        for (std::size_t i = 0; i < events; ++i)
            call(static_cast<std::int64_t>(i));
        double end = ConsumerSeconds();
        for (double before = -1; before != end; end = ConsumerSeconds()) {
            before = end;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        times.push_back(end - start);
        state.SetIterationTime(times.back());
    }
    if (times.back() <= 0)
        return state.SkipWithError("no such process");
    Report(state, std::move(times), events);
}

} // namespace

void RegisterLttng() {
    Add("figure/lttng", 2, 7, [](State& state) { RunCalls(state, figureSize, call); });
    Add("figure/single-lttng", 2, 7, [](State& state) { RunCalls(state, singleCalls, call); });
    Add("figure/lttng-consumer", 1, 1, Consumer);
    Add("figure/cold-lttng", 1, 2, [](State& state) { RunCold(state, call); });
    Add("figure/fresh-lttng-1", 1, 1, [](State& state) { RunFresh(state, 1, Burst); });
    Add("figure/fresh-lttng-2", 1, 1, [](State& state) { RunFresh(state, 2, Burst); });
    Register("figure/lttng-disabled", 1, 7, [](State& state) {
        RunCalls(state, figureSize,
                 [](std::int64_t i) { lttng_ust_tracepoint(metrics_bench, disabled, i, 0.5); });
    });
}

} // namespace bench
