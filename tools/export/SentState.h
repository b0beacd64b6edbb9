#ifndef METRICS_TOOLS_EXPORT_SENT_STATE_H
#define METRICS_TOOLS_EXPORT_SENT_STATE_H

#include "Identity.h"

#include <cstdint>
#include <map>
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
    SentState(const std::string& path, std::string collector);

    /// Reads what is there. Nothing counts as sent when that is of another run or another
    /// collector.
    void Load(const TraceId& run);

    /// @param number of the span; 0 where it had none, since it had not ended.
    bool Has(SpanId id, std::uint64_t number) const;

    void Add(SpanId id, std::uint64_t number);

    /// @return why it cannot be written, or nothing.
    std::string Save() const;

private:
    std::string m_path;
    std::string m_collector;
    std::string m_run;
    std::map<std::uint64_t, std::uint64_t>
        m_numbers;           ///< the first and the last of each row of them
    std::set<SpanId> m_open; ///< sent without a number
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_SENT_STATE_H
