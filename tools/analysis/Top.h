#ifndef METRICS_TOOLS_ANALYSIS_TOP_H
#define METRICS_TOOLS_ANALYSIS_TOP_H

#include "../Event.h"
#include "../Names.h"
#include "Quantiles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Metrics::tools {

/// What went on in a run of late.
struct Top {
    struct Label {
        std::string label;
        std::uint64_t ended = 0; ///< scopes
        Nanoseconds total = 0;   ///< without what lies inside of the same label
        std::optional<Nanoseconds> p50;
        std::optional<Nanoseconds> p99;
        Nanoseconds max = 0;
    };
    struct InFlight {
        std::uint64_t context = 0;
        std::string name;  ///< empty when it was not used yet
        std::string scope; ///< its innermost one
        Nanoseconds age = 0;
    };

    Nanoseconds interval = 0; ///< what follows is of this time, the last one of the run
    std::uint64_t events = 0;
    std::uint64_t requestsEnded = 0;
    std::optional<Nanoseconds> requestP50;
    std::optional<Nanoseconds> requestP99;
    std::uint64_t waiting = 0;      ///< contexts that were created and not opened
    std::vector<Label> labels;      ///< what took longest first
    std::vector<InFlight> inFlight; ///< requests, the oldest first
};

/// Follows a run that is still being written. What it holds is in proportion to what is in flight,
/// not to the run.
///
/// Thread-safety: one thread at a time for each object.
class TopFollower {
public:
    void Add(const Event& event);

    /// @return what came since the last call, and forgets it.
    Top Take();

private:
    struct OpenScope {
        NameId label;
        std::uint64_t start;
    };
    struct LiveContext {
        std::uint64_t parent = 0;
        std::uint64_t opened = 0;
        bool isOpen = false;
        std::vector<OpenScope> scopes;
        NameId name = noName;
    };

    bool IsRequest(std::uint64_t id, const LiveContext& context) const;
    void EndScope(const Event& event);

    Names m_names;
    std::unordered_map<std::uint64_t, LiveContext> m_live;
    std::uint64_t m_client = 0;
    std::uint64_t m_now = 0;      ///< the highest stamp
    std::uint64_t m_lastTake = 0; ///< and what it was
    std::uint64_t m_events = 0;   ///< since then, as what follows
    std::vector<Nanoseconds> m_requests;
    struct Ended {
        std::vector<Nanoseconds> durations;
        Nanoseconds total = 0;
    };
    std::unordered_map<NameId, Ended> m_ended;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_TOP_H
