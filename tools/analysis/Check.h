#ifndef METRICS_TOOLS_ANALYSIS_CHECK_H
#define METRICS_TOOLS_ANALYSIS_CHECK_H

#include "../Model.h"

#include <cstdint>
#include <map>
#include <vector>

namespace Metrics::tools {

/// What is missing or odd in the runs.
struct Check {
    struct Unfinished {
        std::uint64_t context = 0;
        NameId name = noName;
        NameId scope = noName; ///< the innermost one that is open
        std::uint64_t age = 0; ///< nanoseconds from its opening to the last event of the run
    };
    /// Work that was handed over, and that nobody took.
    struct NeverOpened {
        std::uint64_t context = 0;
        NameId parent = noName; ///< the name of the context that made it
    };

    std::vector<NeverOpened> neverOpened;
    std::vector<Unfinished> openAtEnd;
    std::map<NameId, std::uint64_t> unmatchedByLabel;
    std::uint64_t unmatchedScopes = 0;
    std::vector<std::uint64_t> unreadableLines;
    bool truncated = false;
    std::uint64_t lost = 0;

    bool IsWell() const;
};

Check MakeCheck(const Model& model);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_CHECK_H
