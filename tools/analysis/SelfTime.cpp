#include "SelfTime.h"

#include <algorithm>

namespace Metrics::tools {

namespace {

struct Piece {
    std::uint64_t start;
    std::uint64_t end;
    Index inside; ///< of this scope
};

Index NearestWhole(const Run& run, Index scope) {
    while (scope != none && !run.scopes[scope].IsWhole())
        scope = run.scopes[scope].parent;
    return scope;
}

/// A piece may outlive the scope that it began in; the rest then lies in the one around.
void AddPiece(const Run& run, Piece piece, std::vector<Piece>& pieces) {
    while (piece.inside != none) {
        const Scope& scope = run.scopes[piece.inside];
        pieces.push_back(piece);
        if (piece.end <= scope.end)
            return;
        piece.start = std::max(piece.start, scope.end);
        piece.inside = NearestWhole(run, scope.parent);
    }
}

/// What stands inside of a context's scopes, in the order in which it began.
void CollectPieces(const Run& run, const Context& context, std::vector<Piece>& pieces) {
    pieces.clear();
    for (const Scope& scope : run.ScopesOf(context)) {
        if (scope.IsWhole())
            AddPiece(run, {scope.start, scope.end, NearestWhole(run, scope.parent)}, pieces);
    }
    for (const Index index : run.ChildrenOf(context)) {
        const Context& child = run.contexts[index];
        if (!child.IsWhole() || child.tid == noThread || child.tid != context.tid)
            continue;
        AddPiece(run, {child.opened, child.closed, NearestWhole(run, child.openedIn)}, pieces);
    }
    const auto earlier = [](const Piece& a, const Piece& b) { return a.start < b.start; };
    if (!std::is_sorted(pieces.begin(), pieces.end(), earlier))
        std::stable_sort(pieces.begin(), pieces.end(), earlier);
}

} // namespace

std::vector<std::uint64_t> SelfTimes(const Run& run) {
    std::vector<std::uint64_t> self(run.scopes.size());
    std::vector<std::uint64_t> covered(run.scopes.size()); // up to here
    for (std::size_t i = 0; i < run.scopes.size(); ++i)
        if (run.scopes[i].IsWhole()) {
            self[i] = run.scopes[i].Duration();
            covered[i] = run.scopes[i].start;
        }
    std::vector<Piece> pieces;
    for (const Context& context : run.contexts) {
        CollectPieces(run, context, pieces);
        for (const Piece& piece : pieces) {
            // Each moment counts once, and what goes on behind the end of the scope does not.
            const std::uint64_t start = std::max(piece.start, covered[piece.inside]);
            const std::uint64_t end = std::min(piece.end, run.scopes[piece.inside].end);
            self[piece.inside] -= Between(start, end);
            covered[piece.inside] = std::max(covered[piece.inside], end);
        }
    }
    return self;
}

std::uint64_t SelfTime(const Run& run, const Context& context) {
    std::vector<Piece> pieces; // that nothing but the context is around
    for (const Scope& scope : run.ScopesOf(context))
        if (scope.IsWhole() && NearestWhole(run, scope.parent) == none)
            pieces.push_back({scope.start, scope.end, none});
    for (const Index i : run.ChildrenOf(context)) {
        const Context& child = run.contexts[i];
        if (child.IsWhole() && child.tid != noThread && child.tid == context.tid &&
            NearestWhole(run, child.openedIn) == none)
            pieces.push_back({child.opened, child.closed, none});
    }
    std::sort(pieces.begin(), pieces.end(),
              [](const Piece& a, const Piece& b) { return a.start < b.start; });
    std::uint64_t self = context.Duration();
    std::uint64_t covered = context.opened;
    for (const Piece& piece : pieces) {
        const std::uint64_t end = std::min(piece.end, context.closed);
        self -= Between(std::max(piece.start, covered), end);
        covered = std::max(covered, end);
    }
    return self;
}

bool IsRecursive(const Run& run, const Scope& scope) {
    for (Index i = scope.parent; i != none; i = run.scopes[i].parent) {
        const Scope& around = run.scopes[i];
        if (around.label == scope.label && around.IsWhole() && around.end >= scope.start)
            return true;
    }
    return false;
}

} // namespace Metrics::tools
