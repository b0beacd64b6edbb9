#ifndef METRICS_TOOLS_ANALYSIS_DIFF_H
#define METRICS_TOOLS_ANALYSIS_DIFF_H

#include "../Model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Metrics::tools {

/// What changed between two runs, and is more than noise.
struct Diff {
    enum class Kind { Request, Label };
    enum class Quantity { P50, P99, Total };

    /// Requests are compared by how long they took, labels by their self time: so a change is seen
    /// where it happened, and not in all that is around it.
    struct Comparison {
        Kind kind{};
        NameId name = noName;
        Quantity quantity{};
        std::int64_t before = 0; ///< nanoseconds
        std::int64_t after = 0;  ///< a total: for as many requests as there are in `before`
        std::int64_t low = 0;    ///< the change lies between these two
        std::int64_t high = 0;
    };

    std::vector<Comparison> changes; ///< what adds most to the run first
    std::uint64_t compared = 0;
    std::uint64_t tooFew = 0; ///< quantities that have too few samples to be compared
    double othersMoved = 0;   ///< the share by which half of the labels moved, and more
    std::uint64_t parts = 0;  ///< how many were resampled, in the run that has fewer
    bool areRequests = true;  ///< the parts; otherwise there are too few, and it is their children
};

struct DiffOptions {
    std::string request; ///< the name of the contexts to take as requests; empty for the roots
    /// By how much, as a share, two equal runs may differ as a whole: the machine's clock rate,
    /// say.
    double drift = 0.1;
};

/// @param model has the two runs.
Diff MakeDiff(const Model& model, const DiffOptions& options = {});

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_DIFF_H
