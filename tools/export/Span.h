#ifndef METRICS_TOOLS_EXPORT_SPAN_H
#define METRICS_TOOLS_EXPORT_SPAN_H

#include "../Model.h"
#include "Identity.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

namespace Metrics::tools {

enum class SpanKind : unsigned char {
    Context,
    Scope,
    Queue, ///< from a context's creation to its opening
};

struct SpanAttribute {
    std::string_view name;
    std::string_view value;
};

struct SpanEvent {
    std::uint64_t stamp = 0;
    std::string_view name;
    std::string_view value;
};

/// What is exported of a context, of a scope, or of the wait before a context. Times are stamps of
/// the run. The views are good as long as whoever gave it says.
struct Span {
    SpanKind kind{};
    TraceId trace;
    SpanId id = 0;
    SpanId parent = 0; ///< 0: a root
    SpanId root = 0;   ///< of its tree in this run; a root's own id
    std::uint64_t context = 0;
    std::string_view label; ///< a context's name; that of its context, when it is a queue
    std::int64_t thread = noThread;
    std::uint64_t created = never;
    std::uint64_t start = never; ///< always known: the best that the file tells
    std::uint64_t end = never;   ///< the same: at the latest the last stamp
    bool hasStart = true;        ///< in the file
    bool hasEnd = true;
    std::span<const SpanAttribute> attributes = {}; ///< each name once
    std::span<const SpanEvent> events = {};
    std::uint64_t droppedEvents = 0;
    Index piece = none; ///< its place in the run's contexts or scopes
};

using SpanSink = std::function<void(const Span&)>;

/// Appends an attribute, or replaces its value: the last one counts.
class AttributeList {
public:
    void Clear();
    void Set(std::string_view name, std::string_view value);
    std::span<const SpanAttribute> Get() const { return m_attributes; }

private:
    static constexpr std::size_t fewNames = 16; ///< are found by looking at all

    std::vector<SpanAttribute> m_attributes;
    std::unordered_map<std::string_view, std::size_t> m_places; ///< when there are more
};

/// Yields all that is exported of a run: for each context its span, then its queue and its scopes.
/// Left out are the raw client's own context where nothing stands in it, and ends of scopes that
/// have no beginning. The spans point into the model, and are good inside of the call.
void ForEachSpan(const Model& model, const Run& run, const SpanIds& ids, const SpanSink& sink);

/// The root of each context's tree, in the order of Run::contexts. The children of the raw client's
/// own context are roots.
std::vector<Index> Roots(const Run& run);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_SPAN_H
