#ifndef METRICS_TOOLS_EXPORT_IDENTITY_H
#define METRICS_TOOLS_EXPORT_IDENTITY_H

#include "../Model.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Metrics::tools {

/// 128 bits; all of them 0: none.
struct TraceId {
    std::uint64_t high = 0;
    std::uint64_t low = 0;

    bool operator==(const TraceId&) const = default;
};

/// 0: none.
using SpanId = std::uint64_t;

/// What W3C's header `traceparent` names: a trace, and a span of it.
struct TraceParent {
    TraceId trace;
    SpanId span = 0;
};

/// @return nothing for what is not valid. Of a version that came later, what this one knows of it.
std::optional<TraceParent> ParseTraceParent(std::string_view text);

/// The attribute of a root context by which it joins a trace: the header that it was given.
constexpr std::string_view givenTraceParent = "traceparent";

/// The attribute of a root context that names itself: the header that it gives to others.
constexpr std::string_view sentTraceParent = "traceparent.sent";

/// Which process a run is. Nothing else goes into the ids, so each export of a run has the same.
struct RunIdentity {
    std::string service;
    std::string host;
    std::int64_t pid = noThread;
    std::int64_t start =
        0; ///< when the library was loaded, in nanoseconds since 1970: Run::wallOffset
};

/// @param service, host empty for what there is to go by: the environment variable
/// OTEL_SERVICE_NAME or the file's name, and this machine.
RunIdentity Identify(const std::string& path, std::int64_t pid, std::int64_t start,
                     const std::string& service, const std::string& host);

/// The ids of a run's traces and spans.
///
/// Thread-safety: safe from any thread at any time.
class SpanIds {
public:
    explicit SpanIds(const RunIdentity& identity);

    /// Of the process: equal for equal identities.
    const TraceId& Run() const { return m_run; }

    TraceId Trace(std::uint64_t root) const;
    SpanId OfContext(std::uint64_t context) const { return Make(0, context, 0); }
    SpanId OfQueue(std::uint64_t context) const { return Make(1, context, 0); }
    /// @param ordinal how many scopes the context began before this one.
    SpanId OfScope(std::uint64_t context, std::uint64_t ordinal) const {
        return Make(2, context, ordinal);
    }

private:
    SpanId Make(std::uint64_t kind, std::uint64_t context, std::uint64_t ordinal) const;

    TraceId m_run;
};

/// Where the tree of a root context belongs.
struct TreeIdentity {
    TraceId trace;
    SpanId parent = 0; ///< of the root, in another process; 0: none
    SpanId root = 0;
};

/// @param given, sent the first valid ones of the root's attributes. What was sent names no other
/// trace than what was given, or does not count.
TreeIdentity IdentifyTree(const SpanIds& ids, std::uint64_t root,
                          const std::optional<TraceParent>& given,
                          const std::optional<TraceParent>& sent);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_IDENTITY_H
