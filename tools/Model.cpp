#include "Model.h"

namespace Metrics::tools {

std::vector<Index> Requests(const Model& model, const Run& run, const std::string& name) {
    const NameId wanted = name.empty() ? noName : model.names.Find(name);
    std::vector<Index> requests;
    for (Index i = 0; i < run.contexts.size(); ++i) {
        const Context& context = run.contexts[i];
        if (context.opened == never || i == run.client)
            continue;
        const bool isRequest =
            name.empty()
                ? context.parentId == 0 || (context.parent != none && context.parent == run.client)
                : context.name == wanted && wanted != noName;
        if (isRequest)
            requests.push_back(i);
    }
    std::stable_sort(requests.begin(), requests.end(), [&](Index a, Index b) {
        return run.contexts[a].opened < run.contexts[b].opened;
    });
    return requests;
}

} // namespace Metrics::tools
