#include "Slow.h"

#include <algorithm>
#include <utility>

namespace Metrics::tools {

namespace {

/// The scopes that are nested right in this one, or in none.
std::vector<ScopeTree> NestedIn(const Run& run, const Context& context, Index parent,
                                const std::vector<std::vector<Index>>& nested, int depth = 0) {
    std::vector<ScopeTree> trees;
    if (depth == deepestTree)
        return trees;
    for (const Index i : nested[parent == none ? 0 : parent - context.firstScope + 1])
        trees.push_back({&run.scopes[i], NestedIn(run, context, i, nested, depth + 1)});
    return trees;
}

std::vector<ScopeTree> ScopesOf(const Run& run, const Context& context) {
    std::vector<std::vector<Index>> nested(context.scopeCount + 1); // the first: in none
    for (Index i = context.firstScope; i < context.firstScope + context.scopeCount; ++i) {
        const Index parent = run.scopes[i].parent;
        if (run.scopes[i].start != never)
            nested[parent == none ? 0 : parent - context.firstScope + 1].push_back(i);
    }
    return NestedIn(run, context, none, nested);
}

ContextTree MakeTree(const Run& run, const Context& context, int depth = 0) {
    ContextTree tree{&run, &context, ScopesOf(run, context), {}, false};
    tree.isCut = depth == deepestTree && context.childCount > 0;
    if (tree.isCut)
        return tree;
    for (const Index child : run.ChildrenOf(context))
        tree.children.push_back(MakeTree(run, run.contexts[child], depth + 1));
    std::stable_sort(tree.children.begin(), tree.children.end(),
                     [](const ContextTree& a, const ContextTree& b) {
                         return a.context->opened < b.context->opened; // never is the highest
                     });
    return tree;
}

} // namespace

std::vector<ContextTree> FindSlow(const Model& model, std::size_t count,
                                  const std::string& request) {
    std::vector<std::pair<const Run*, const Context*>> found;
    for (const Run& run : model.runs)
        for (const Index i : Requests(model, run, request))
            if (run.contexts[i].IsWhole())
                found.emplace_back(&run, &run.contexts[i]);
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        return a.second->Duration() > b.second->Duration();
    });
    found.resize(std::min(count, found.size()));
    std::vector<ContextTree> trees;
    trees.reserve(found.size());
    for (const auto& [run, context] : found)
        trees.push_back(MakeTree(*run, *context));
    return trees;
}

std::optional<ContextTree> FindTree(const Model& model, std::uint64_t id) {
    for (const Run& run : model.runs)
        for (const Context& context : run.contexts)
            if (context.id == id)
                return MakeTree(run, context);
    return std::nullopt;
}

} // namespace Metrics::tools
