#ifndef METRICS_TOOLS_EXPORT_SPAN_FOLLOWER_H
#define METRICS_TOOLS_EXPORT_SPAN_FOLLOWER_H

#include "../Event.h"
#include "Span.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Metrics::tools {

/// The headers that a root context has been given and has sent on.
struct TraceHeaders {
    std::optional<TraceParent> given;
    std::optional<TraceParent> sent;

    /// Takes the first valid ones.
    /// @return whether it was such an attribute.
    bool Take(std::string_view name, std::string_view value);
};

/// By the root's id.
using HeadersByContext = std::unordered_map<std::uint64_t, TraceHeaders>;

/// Yields the spans of a run as they end: the same that ForEachSpan() yields of the whole run, with
/// the same ids. What it holds is in proportion to what is in flight, not to the run.
///
/// Which trace a tree belongs to must be known when its first span is yielded. So the spans of a
/// tree are held back until its root has told, or has ended, or a second of the run's time has
/// passed, or they are many. A header that comes later than that counts only when it is known
/// beforehand.
///
/// The same events yield the same spans in the same order, wherever the reading paused: the number
/// of a span is a place in the run that one can come back to.
///
/// Thread-safety: one thread at a time for each object.
class SpanFollower {
public:
    /// What a context may gather before it ends.
    struct Limits {
        std::size_t attributes = 128;
        std::size_t events = 10'000;
    };

    /// @param number counts from 1; 0 for what has not ended when Finish() is called.
    using Sink = std::function<void(const Span& span, std::uint64_t number)>;

    /// @param identity of which the process and its start are found in the run.
    /// @param known headers of roots, as far as they were looked up beforehand.
    SpanFollower(RunIdentity identity, Limits limits, HeadersByContext known, Sink sink);
    ~SpanFollower();
    SpanFollower(const SpanFollower&) = delete;
    SpanFollower& operator=(const SpanFollower&) = delete;

    void Add(const Event& event);

    /// Yields what is held back: the file has nothing new for now, and may have nothing for long.
    void SettleAll();

    /// Yields what is held back, and what is open until the last stamp. There is nothing more to
    /// be added then.
    void Finish();

    /// Complete when the first span is yielded.
    const RunIdentity& Identity() const { return m_identity; }

private:
    struct Tree;
    struct LiveScope {
        std::string label;
        std::uint64_t start = never;
        std::uint64_t ordinal = 0;
        std::uint64_t parent = never; ///< its ordinal
    };
    struct LiveEvent {
        std::uint64_t stamp;
        std::string name;
        std::string value;
    };
    struct LiveContext {
        std::uint64_t id = 0;
        std::uint64_t parent = unknownId;
        std::shared_ptr<Tree> tree;
        std::uint64_t firstKnown = never;
        std::uint64_t created = never;
        std::uint64_t opened = never;
        std::uint64_t closed = never;
        std::int64_t tid = noThread;
        std::optional<std::string> name;
        std::vector<LiveScope> open;
        std::uint64_t scopesBegun = 0;
        std::vector<std::pair<std::string, std::string>> attributes;
        std::unordered_map<std::string, std::size_t> places; ///< of attributes, when there are many
        std::vector<LiveEvent> events;
        std::uint64_t droppedEvents = 0;
    };
    using LivePointer = std::shared_ptr<LiveContext>;
    /// A span that has ended.
    struct Ended {
        SpanKind kind{};
        LivePointer context;
        LiveScope scope = {};
        std::uint64_t end = never; ///< never: it is open
        std::uint64_t number = 0;
    };
    /// A root and all below it.
    struct Tree {
        std::uint64_t root = 0;
        std::uint64_t begin = never; ///< when the root was opened
        TraceHeaders headers;
        bool hasHeader = false;
        bool hasEnded = false; ///< the root
        bool isSettled = false;
        TreeIdentity identity;
        std::vector<Ended> held; ///< whose contexts keep this tree
    };

    LivePointer FindOrAdd(std::uint64_t id, std::uint64_t stamp);
    /// @return nothing for a context that is closed, which takes nothing any more.
    LivePointer FindOpen(const Event& event);
    void SetParent(LiveContext& context, std::uint64_t parent, std::uint64_t stamp);
    std::shared_ptr<Tree> MakeTree(std::uint64_t root);
    void StartWaiting(const std::shared_ptr<Tree>& tree, std::uint64_t stamp);
    void AddLifecycle(const Event& event);
    void BeginScope(const Event& event);
    void EndScope(const Event& event);
    void AddAttribute(const Event& event);
    bool Announce(const Event& event, const LivePointer& context);
    void SetAttribute(LiveContext& context, std::string_view name, std::string_view value) const;
    void End(const LivePointer& context);
    void Yield(Ended ended);
    void YieldNow(const Ended& ended);
    bool IsDue(const Tree& tree) const;
    void Settle(Tree& tree);
    void SettleDue();

    static constexpr std::uint64_t patience = 1'000'000'000; ///< nanoseconds
    static constexpr std::size_t mostHeld = 1'000;           ///< spans of a tree
    static constexpr std::size_t mostRemembered = 50'000;    ///< contexts that are closed

    RunIdentity m_identity;
    Limits m_limits;
    HeadersByContext m_known;
    Sink m_sink;
    std::optional<SpanIds> m_ids; ///< once the process is known
    std::unordered_map<std::uint64_t, LivePointer> m_live;
    /// Closed contexts may still get children.
    std::unordered_map<std::uint64_t, std::shared_ptr<Tree>> m_closed;
    std::deque<std::uint64_t> m_closedOrder;
    std::deque<std::shared_ptr<Tree>> m_unsettled; ///< in the order of their beginning
    std::vector<std::pair<std::uint64_t, std::uint64_t>> m_announced; ///< in which context, and who
    /// The last tid that was recorded in a context which had its own already.
    struct {
        std::uint64_t in = unknownId;
        std::int64_t tid = noThread;
        bool isLast = false; ///< of that context's attributes
    } m_foreignTid;
    bool m_hasEvents = false;
    bool m_isFinishing = false;
    std::size_t m_heldUnnamed = 0; ///< spans, while the process is not known
    std::uint64_t m_client = 0;
    std::uint64_t m_last = 0;   ///< the highest stamp
    std::uint64_t m_number = 0; ///< of the span that ended last
    std::vector<SpanAttribute> m_attributes;
    std::vector<SpanEvent> m_events;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_SPAN_FOLLOWER_H
