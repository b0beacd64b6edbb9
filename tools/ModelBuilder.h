#ifndef METRICS_TOOLS_MODEL_BUILDER_H
#define METRICS_TOOLS_MODEL_BUILDER_H

#include "Event.h"
#include "Model.h"

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Metrics::tools {

/// Puts a run together from its events.
///
/// Thread-safety: one thread at a time for each object.
class ModelBuilder {
public:
    /// @param names outlive the builder, and get the names of this run too.
    ModelBuilder(Names& names, std::string path);

    void Add(const Event& event);

    /// @return the run; the builder is of no use any more.
    Run Finish(Damage damage);

private:
    Index FindOrAdd(std::uint64_t id);
    void AddLifecycle(const Event& event);
    void AddScope(const Event& event);
    void EndScope(const Event& event);
    void AddAttribute(const Event& event);
    NameId Name(std::string_view text);

    void SettleParents();
    void GroupByContext();

    Names* m_names;
    Run m_run;
    std::vector<Index> m_dense; ///< by id: ids are drawn from one counter
    std::unordered_map<std::uint64_t, Index> m_sparse;
    std::vector<Index> m_innermost; ///< by context: its innermost open scope
    std::vector<Index> m_below;     ///< by scope: the one that was open around it
    /// A context that has recorded its cid, with the context in which it did; its own scope is
    /// next.
    struct Announced {
        Index in;
        Index context;
    };
    std::vector<Announced> m_announced;
    NameId m_pid;
    NameId m_tid;
    NameId m_cid;
    NameId m_lastName = noName;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_MODEL_BUILDER_H
