#ifndef METRICS_TOOLS_ANALYSIS_SELF_TIME_H
#define METRICS_TOOLS_ANALYSIS_SELF_TIME_H

#include "../Model.h"

#include <cstdint>
#include <vector>

namespace Metrics::tools {

/// The self time of each scope of a run, in the order of Run::scopes: its time without the scopes
/// nested in it, and without the child contexts that were opened right inside of it on the same
/// thread. What has no end covers nothing; 0 for a scope that is not whole.
std::vector<std::uint64_t> SelfTimes(const Run& run);

/// The self time of a context that is whole: without its scopes and without the child contexts that
/// were opened on its thread outside of any scope.
std::uint64_t SelfTime(const Run& run, const Context& context);

/// @return whether the scope lies inside of another one of its label and context.
bool IsRecursive(const Run& run, const Scope& scope);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_SELF_TIME_H
