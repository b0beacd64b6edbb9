#include "Bench.h"

#include <iostream>
#include <string>

/// bench-metrics [figures|idle|off|accepted|synchronous] [options of Google Benchmark]
///
/// The figures and the peers, or every public call in one state of the library: idle; enabled, with
/// the call's category off; enabled, with its category on; the same with a synchronous consumer.
/// One state for each process, since the library can be switched on only once.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("cores", std::to_string(bench::TwoCores()[0]) + " " +
                                             std::to_string(bench::TwoCores()[1]));
    const std::string what = argc > 1 ? argv[1] : "figures";
    if (what != "idle") {
        bench::Manager().Enable();
        bench::Manager().SetBitsAbsolute(Metrics::MetricsBits::act);
    }
    if (what == "synchronous")
        bench::Manager().AddConsumer(korsys::MakeRefCnt<bench::EmptyConsumer>(), ~std::uint64_t{0},
                                     true);
    if (what == "figures") {
        bench::RegisterFigures();
#ifdef HAVE_SPDLOG
        bench::RegisterSpdlog();
#endif
#ifdef HAVE_LTTNG
        bench::RegisterLttng();
#endif
    } else {
        bench::RegisterCalls(what);
    }
    benchmark::RunSpecifiedBenchmarks();
    return bench::Manager().Disable() || what == "idle" ? 0 : 1;
}
