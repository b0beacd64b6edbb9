#ifndef METRICS_TOOLS_TIMELINE_H
#define METRICS_TOOLS_TIMELINE_H

#include "Model.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Metrics::tools {

/// What a page about some runs shows, in the order in which it is kept there: lanes, one for each
/// thread; in each lane tracks, which are the lines that it takes to nest its slices; in each track
/// slices that do not overlap, by time. All times are nanoseconds since the earliest event of all
/// runs, which are aligned by their wall clocks.
struct Timeline {
    using TextId = std::uint32_t;

    struct Process {
        TextId path;
        std::int64_t pid;
    };

    static constexpr std::int64_t neverOpened = -2; ///< in place of a thread, beside noThread
    struct Lane {
        Index process;
        std::int64_t tid;
        Index trackCount;
    };

    enum Kind : std::uint8_t {
        ScopeSlice = 0,
        ContextSlice = 1,
        MarkSlice = 2, ///< a context that was never opened, at its creation
        OpenEnd = 4,   ///< added to the others: the file has no end of it
    };
    struct Slice {
        std::uint64_t begin;
        std::uint64_t end;
        TextId label;
        Index context; ///< in `contexts`
        std::uint8_t kind;
    };

    /// A context, without its own scope, whose place its slice takes.
    struct Context {
        std::uint64_t id;
        Index parent;       ///< none when the page does not have it
        Index request;      ///< the context that is its request; none outside of all of them
        std::uint64_t wait; ///< from creation to opening; never when either is not known
        Index attributeCount;
        Index customCount;
    };
    struct Attribute {
        TextId name;
        TextId value;
    };
    struct CustomEvent {
        std::int64_t time; ///< since the beginning of its context
        TextId first;
        TextId second;
    };

    std::uint64_t duration = 0;
    std::int64_t wallStart = 0;          ///< nanoseconds since 1970-01-01 UTC
    std::uint64_t allRequests = 0;       ///< with those that are not kept
    std::uint64_t keptRequests = 0;      ///< whole
    std::vector<std::string_view> texts; ///< stand in the model
    std::vector<Process> processes;
    std::vector<Lane> lanes;
    std::vector<Index> trackSizes;     ///< of all lanes, in their order
    std::vector<Slice> slices;         ///< of all tracks, in their order
    std::vector<Context> contexts;     ///< in the order of their slices
    std::vector<Attribute> attributes; ///< of all contexts, in their order
    std::vector<CustomEvent> customs;
    /// For each lane `buckets` values, from 0 to 255: how busy what is not kept held the thread.
    std::vector<std::uint8_t> busy;
    std::size_t buckets = 0;
};

struct TimelineOptions {
    std::string request; ///< contexts of this name are the requests; empty: the usual ones
    /// How many slices, attributes and events to keep. Beyond that, only the slowest requests of
    /// each name stay, whole, and the others become what `busy` tells. The slowest in a hundred
    /// stay in any case.
    std::uint64_t keep = 1'250'000;
};

/// @return views into the model, which must outlive it.
Timeline MakeTimeline(const Model& model, const TimelineOptions& options);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_TIMELINE_H
