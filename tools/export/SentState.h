#ifndef METRICS_TOOLS_EXPORT_SENT_STATE_H
#define METRICS_TOOLS_EXPORT_SENT_STATE_H

#include "Identity.h"

#include <cstdint>
#include <set>
#include <string>

namespace Metrics::tools {

/// What of a run a collector has, in a file beside the run: `<run>.sent`. It is replaced as a whole
/// each time, so that it is never half of one.
///
/// Thread-safety: one thread at a time for each object.
class SentState {
public:
    /// @param path of the run; empty for one that has no file, of which nothing is remembered.
    SentState(std::string path, std::string collector);

    /// Reads what is there. Nothing counts as sent when that is of another run or another
    /// collector.
    void Load(const TraceId& run);

    /// The number of the last span, of those that have one.
    std::uint64_t Spans() const { return m_spans; }
    /// Those that have none: they were open at the end, or their trees.
    const std::set<SpanId>& Open() const { return m_open; }

    void Add(SpanId id, std::uint64_t number);

    /// @return why it cannot be written, or nothing.
    std::string Save() const;

private:
    std::string m_path;
    std::string m_collector;
    std::string m_run;
    std::uint64_t m_spans = 0;
    std::set<SpanId> m_open;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_SENT_STATE_H
