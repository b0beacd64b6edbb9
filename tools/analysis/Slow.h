#ifndef METRICS_TOOLS_ANALYSIS_SLOW_H
#define METRICS_TOOLS_ANALYSIS_SLOW_H

#include "../Model.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Metrics::tools {

/// A scope and what is nested in it.
struct ScopeTree {
    const Scope* scope = nullptr;
    std::vector<ScopeTree> scopes;
};

/// A context, its scopes, and the contexts that it is the parent of, in the order in which they
/// were opened; those that were never opened stand last.
struct ContextTree {
    const Run* run = nullptr;
    const Context* context = nullptr;
    std::vector<ScopeTree> scopes;
    std::vector<ContextTree> children;
    bool isCut = false; ///< at deepestTree: what lies below is left out
};

/// So deep do trees go.
constexpr int deepestTree = 1000;

/// The slowest requests as trees, the slowest first. The trees point into the model.
/// @param request the name of the contexts to take as requests; empty for the roots.
std::vector<ContextTree> FindSlow(const Model& model, std::size_t count,
                                  const std::string& request = {});

/// @return the tree of the context of this id, in the first run that has one.
std::optional<ContextTree> FindTree(const Model& model, std::uint64_t id);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_SLOW_H
