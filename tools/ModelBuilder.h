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
    Index Find(std::uint64_t id) const;
    Index FindOrAdd(std::uint64_t id);
    void AddLifecycle(const Event& event);
    void AddScope(const Event& event);
    void EndScope(const Event& event);
    void AddAttribute(const Event& event);
    bool Announce(const Event& event, Index index);
    NameId Name(std::string_view text);

    void CutCircles();
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
    /// The last tid that was recorded in a context which had its own already.
    struct {
        Index in = none;
        std::int64_t tid = noThread;
        std::size_t attribute = 0; ///< stands here, lest it is the application's own
    } m_foreignTid;
    NameId m_pid;
    NameId m_tid;
    NameId m_cid;
    NameId m_lastName = noName;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_MODEL_BUILDER_H
