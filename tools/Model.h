#ifndef METRICS_TOOLS_MODEL_H
#define METRICS_TOOLS_MODEL_H

#include "Names.h"
#include "Reader.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// What a recording says, put together: the tree of contexts, and in each of them the tree of
/// scopes. All times are nanoseconds of the steady clock since the run's library was loaded.
namespace Metrics::tools {

/// A place in one of a run's arrays.
using Index = std::uint32_t;
constexpr Index none = std::numeric_limits<Index>::max();

/// A time that is not in the file.
constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

constexpr std::uint64_t unknownId = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t noThread = -1;

/// From start to end; 0 where stamps are out of order.
constexpr std::uint64_t Between(std::uint64_t start, std::uint64_t end) {
    return end > start ? end - start : 0;
}

struct Scope {
    std::uint64_t start = never; ///< never: the file has its end alone, and nothing is nested in it
    std::uint64_t end = never;
    NameId label = noName;
    Index context = none;
    Index parent = none; ///< the scope of the same context that it is nested in

    bool IsWhole() const { return start != never && end != never; }
    std::uint64_t Duration() const { return Between(start, end); }
};

struct Attribute {
    std::uint64_t stamp = 0;
    Index context = none;
    NameId name = noName;
    std::string_view value; ///< stands in the run's texts
};

/// An application's own event.
struct CustomEvent {
    std::uint64_t stamp = 0;
    Index context = none;
    std::string_view first; ///< both stand in the run's texts
    std::string_view second;
};

struct Context {
    std::uint64_t id = 0;
    std::uint64_t parentId = unknownId; ///< 0 for a root
    std::uint64_t created = never;
    std::uint64_t opened = never;
    std::uint64_t closed = never;
    std::int64_t tid = noThread; ///< of the thread that first used it
    NameId name = noName;        ///< the label of its own scope; noName when it was never used
    Index parent = none;         ///< none too when the file does not know the parent
    Index openedIn = none;       ///< the parent's innermost scope when this context was opened
    Index firstScope = 0;
    Index scopeCount = 0;
    Index firstAttribute = 0;
    Index attributeCount = 0;
    Index firstCustom = 0;
    Index customCount = 0;
    Index firstChild = 0; ///< in Run::children
    Index childCount = 0;

    bool IsWhole() const { return opened != never && closed != never; }
    std::uint64_t Duration() const { return Between(opened, closed); }
    bool HasWait() const { return created != never && opened != never; }
    std::uint64_t Wait() const { return Between(created, opened); }
};

/// One file, which is one process.
struct Run {
    std::string path;
    std::int64_t wallOffset = 0; ///< stamp + wallOffset: nanoseconds since 1970-01-01 UTC
    std::uint64_t begin = never; ///< the lowest stamp; never when there is no event
    std::uint64_t end = 0;       ///< the highest
    std::uint64_t events = 0;
    std::uint64_t lost = 0;          ///< events that the library itself says were lost
    std::uint64_t unmatchedEnds = 0; ///< ends of scopes that have no beginning in the file
    std::int64_t pid = noThread;
    Index client = none; ///< the raw client's own context
    Damage damage;

    std::vector<Context> contexts; ///< in the order in which the file first names them
    /// Those of one context stand together, in the order in which they began.
    std::vector<Scope> scopes;
    std::vector<Attribute> attributes; ///< without pid, tid and cid that the library itself records
    std::vector<CustomEvent> customs;
    std::vector<Index> children; ///< of each context together, in the order in which it made them
    TextArena texts;

    /// @return nanoseconds since 1970-01-01 UTC. What a damaged file says may wrap.
    std::int64_t Wall(std::uint64_t stamp) const {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(wallOffset) + stamp);
    }

    std::span<const Scope> ScopesOf(const Context& context) const {
        return std::span(scopes).subspan(context.firstScope, context.scopeCount);
    }
    std::span<const Attribute> AttributesOf(const Context& context) const {
        return std::span(attributes).subspan(context.firstAttribute, context.attributeCount);
    }
    std::span<const CustomEvent> CustomsOf(const Context& context) const {
        return std::span(customs).subspan(context.firstCustom, context.customCount);
    }
    std::span<const Index> ChildrenOf(const Context& context) const {
        return std::span(children).subspan(context.firstChild, context.childCount);
    }
};

/// What was read: the runs, and the names that they share.
struct Model {
    Names names;
    std::vector<Run> runs;
};

/// @return the requests of a run: its root contexts and the direct children of the raw client's
/// own, or, when a name is given, the contexts of that name. In the order of their opening; opened
/// ones only.
std::vector<Index> Requests(const Model& model, const Run& run, const std::string& name = {});

} // namespace Metrics::tools

#endif // METRICS_TOOLS_MODEL_H
