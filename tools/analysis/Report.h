#ifndef METRICS_TOOLS_ANALYSIS_REPORT_H
#define METRICS_TOOLS_ANALYSIS_REPORT_H

#include "../Model.h"
#include "Quantiles.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Metrics::tools {

/// Where the time went. Every list begins with what took longest.
struct Report {
    struct Request {
        NameId name = noName;
        Distribution durations;
    };
    struct Label {
        NameId label = noName;
        Nanoseconds total = 0; ///< without what lies inside of the same label
        Nanoseconds self = 0;
        Distribution durations;
    };
    struct Handover {
        NameId name = noName; ///< of the context that was opened
        Distribution waits;
        std::uint64_t mostWaiting = 0; ///< at one moment
    };
    struct Thread {
        std::string path; ///< of the run
        std::int64_t tid = noThread;
        Nanoseconds busy = 0;
        double share = 0; ///< of the run's time
    };
    /// How much one part of the work adds to a request, on average over the requests in the middle
    /// and over the slowest ones.
    struct TailPart {
        static constexpr NameId waiting = noName; ///< the part that is no label
        NameId request = noName;
        NameId part = waiting;
        Nanoseconds median = 0;
        Nanoseconds tail = 0;
        double share = 0; ///< of all that the tail has more; negative where it has less
    };

    std::uint64_t runs = 0;
    std::uint64_t events = 0;
    Nanoseconds elapsed = 0; ///< from the first event to the last, over all runs
    std::vector<Request> requests;
    std::vector<Label> labels;
    std::vector<Handover> handovers;
    std::vector<Thread> threads;
    std::vector<TailPart> tail; ///< by request; what the tail has most more of first
};

/// @param request the name of the contexts to take as requests; empty for the roots.
Report MakeReport(const Model& model, const std::string& request = {});

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_REPORT_H
