#include "Check.h"

namespace Metrics::tools {

namespace {

void AddRun(const Run& run, Check& check) {
    for (Index i = 0; i < run.contexts.size(); ++i) {
        const Context& context = run.contexts[i];
        if (i == run.client)
            continue;
        if (context.created != never && context.opened == never)
            check.neverOpened.push_back(
                {context.id, context.parent == none ? noName : run.contexts[context.parent].name});
        if (context.opened == never || context.closed != never)
            continue;
        Check::Unfinished unfinished{context.id, context.name, noName,
                                     Between(context.opened, run.end)};
        for (const Scope& scope : run.ScopesOf(context))
            if (scope.end == never)
                unfinished.scope = scope.label; // the one that was opened last is the innermost
        check.openAtEnd.push_back(unfinished);
    }
    for (const Scope& scope : run.scopes) {
        const bool isUnmatched =
            scope.start == never ||
            (scope.end == never && run.contexts[scope.context].closed != never);
        if (isUnmatched) {
            ++check.unmatchedScopes;
            ++check.unmatchedByLabel[scope.label];
        }
    }
    check.unreadableLines.insert(check.unreadableLines.end(), run.damage.unreadableLines.begin(),
                                 run.damage.unreadableLines.end());
    check.truncated = check.truncated || run.damage.truncated;
    check.lost += run.lost;
}

} // namespace

bool Check::IsWell() const {
    return neverOpened.empty() && openAtEnd.empty() && unmatchedScopes == 0 &&
           unreadableLines.empty() && !truncated && lost == 0;
}

Check MakeCheck(const Model& model) {
    Check check;
    for (const Run& run : model.runs)
        AddRun(run, check);
    return check;
}

} // namespace Metrics::tools
