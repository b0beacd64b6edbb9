#ifndef METRICS_TOOLS_EVENT_H
#define METRICS_TOOLS_EVENT_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace Metrics::tools {

/// What happened; the numbers are those of the CSV file. Others may come with later versions.
enum class EventType : std::int64_t {
    ContextCreated = 2,
    ContextOpened = 3,
    ContextClosed = 4,
    ScopeOpened = 5,
    ScopeClosed = 6,
    Custom = 7,
    Attribute = 8,
};

/// One event of a recording, whatever kind of file it stands in.
struct Event {
    std::uint64_t stamp = 0; ///< nanoseconds of the steady clock since the library was loaded
    std::int64_t wall = 0;   ///< nanoseconds since 1970-01-01 UTC
    std::uint64_t context = 0;
    EventType type{};
    std::uint64_t id = 0;         ///< of the context that was created, opened or closed
    std::string_view first = {};  ///< the label, the name of an attribute, or the first value
    std::string_view second = {}; ///< the value of an attribute, or the second value
};

/// Some events that follow each other, and the memory of their texts.
struct EventBatch {
    std::vector<Event> events;
    std::string text;                 ///< what most views point into
    std::deque<std::string> unquoted; ///< what the others point into
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EVENT_H
