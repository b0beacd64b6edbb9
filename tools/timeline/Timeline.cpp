#include "Timeline.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <numeric>
#include <queue>
#include <set>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace Metrics::tools {

namespace {

constexpr std::size_t mostBuckets = 4096;
constexpr std::size_t mostBucketsOfAll = 1 << 22;

/// What is known of one context while the timeline is made.
struct Piece {
    Index request = none; ///< the context of the run that is its request
    bool isKept = true;
    Index number = none; ///< its place in Timeline::contexts
};

/// The first scope of a context bears its name and spans its use: its slice would be drawn twice.
bool IsOwnScope(const Run& run, const Context& context, Index scope) {
    return scope == context.firstScope && context.name != noName &&
           run.scopes[scope].label == context.name && run.scopes[scope].parent == none;
}

/// How much the page has to hold of a context.
std::uint64_t CostOf(const Run& run, const Context& context) {
    const bool hasOwnScope = context.scopeCount > 0 && IsOwnScope(run, context, context.firstScope);
    return (hasOwnScope ? 0ULL : 1ULL) + context.scopeCount + context.attributeCount +
           context.customCount;
}

/// The request of each context: itself, or that of its parent.
std::vector<Piece> FindRequests(const Run& run, const std::vector<Index>& requests) {
    std::vector<Piece> pieces(run.contexts.size());
    std::vector<char> isSettled(run.contexts.size());
    for (const Index request : requests) {
        pieces[request].request = request;
        isSettled[request] = 1;
    }
    std::vector<Index> path;
    for (Index i = 0; i < pieces.size(); ++i) {
        Index at = i;
        for (; at != none && isSettled[at] == 0; at = run.contexts[at].parent) {
            isSettled[at] = 1; // also ends a circle, which a damaged file may hold
            path.push_back(at);
        }
        const Index found = at == none ? none : pieces[at].request;
        for (const Index settled : path)
            pieces[settled].request = found;
        path.clear();
    }
    return pieces;
}

/// Decides what is kept whole: all there is, or the slowest requests of each name.
class Selection {
public:
    Selection(const Model& model, const TimelineOptions& options) : m_model(&model) {
        for (const Run& run : model.runs) {
            const std::vector<Index> requests = Requests(model, run, options.request);
            pieces.push_back(FindRequests(run, requests));
            for (const Index request : requests)
                m_requests.push_back({static_cast<Index>(pieces.size() - 1), request});
        }
        allRequests = keptRequests = m_requests.size();
        const std::uint64_t outside = AddCosts();
        std::uint64_t total = outside;
        for (const Request& request : m_requests)
            total += request.cost;
        if (total > options.keep)
            KeepSlowest(options.keep, outside);
    }

    std::vector<std::vector<Piece>> pieces; ///< by run and context
    std::uint64_t allRequests = 0;
    std::uint64_t keptRequests = 0;

private:
    struct Request {
        Index run = 0;
        Index context = 0;
        std::uint64_t cost = 0;
        double share = 0; ///< how many of its name are slower
        bool isKept = false;
    };

    const Context& ContextOf(const Request& request) const {
        return m_model->runs[request.run].contexts[request.context];
    }

    /// @return the cost of all that belongs to no request.
    std::uint64_t AddCosts() {
        std::uint64_t outside = 0;
        m_places.resize(pieces.size());
        for (std::size_t run = 0; run < pieces.size(); ++run)
            m_places[run].resize(pieces[run].size(), none);
        for (Index i = 0; i < m_requests.size(); ++i)
            m_places[m_requests[i].run][m_requests[i].context] = i;
        for (std::size_t run = 0; run < pieces.size(); ++run)
            for (std::size_t i = 0; i < pieces[run].size(); ++i) {
                const Index request = pieces[run][i].request;
                (request == none ? outside : m_requests[m_places[run][request]].cost) +=
                    CostOf(m_model->runs[run], m_model->runs[run].contexts[i]);
            }
        return outside;
    }

    void KeepSlowest(std::uint64_t room, std::uint64_t outside) {
        std::map<NameId, std::vector<Index>> byName;
        for (Index i = 0; i < m_requests.size(); ++i)
            byName[ContextOf(m_requests[i]).name].push_back(i);
        const auto duration = [&](Index i) {
            const Context& context = ContextOf(m_requests[i]);
            return context.IsWhole() ? context.Duration() : never; // one without an end comes first
        };
        for (auto& [name, places] : byName) {
            std::stable_sort(places.begin(), places.end(),
                             [&](Index a, Index b) { return duration(a) > duration(b); });
            for (std::size_t rank = 0; rank < places.size(); ++rank)
                m_requests[places[rank]].share =
                    static_cast<double>(rank) / static_cast<double>(places.size());
        }
        std::vector<Index> order(m_requests.size());
        std::iota(order.begin(), order.end(), Index{0});
        std::stable_sort(order.begin(), order.end(), [&](Index a, Index b) {
            return m_requests[a].share < m_requests[b].share;
        });

        const bool keepsOutside = outside <= room / 4;
        std::uint64_t used = keepsOutside ? outside : 0;
        keptRequests = 0;
        for (const Index i : order) {
            Request& request = m_requests[i];
            used += request.cost;
            if (request.share >= 0.01 && used > room)
                break;
            request.isKept = true;
            ++keptRequests;
        }
        for (std::size_t run = 0; run < pieces.size(); ++run)
            for (Piece& piece : pieces[run])
                piece.isKept = piece.request == none
                                   ? keepsOutside
                                   : m_requests[m_places[run][piece.request]].isKept;
    }

    const Model* m_model;
    std::vector<Request> m_requests;
    std::vector<std::vector<Index>> m_places; ///< of each request in m_requests, by run and context
};

/// Gives texts their numbers.
class TextTable {
public:
    TextTable(const Names& names, std::vector<std::string_view>& texts)
        : m_names(&names), m_texts(&texts), m_named(names.Size(), none) {}

    Timeline::TextId Add(NameId name) {
        if (name == noName)
            return Add(std::string_view());
        if (m_named[name] == none)
            m_named[name] = Add((*m_names)[name]);
        return m_named[name];
    }

    Timeline::TextId Add(std::string_view text) {
        const auto [place, isNew] =
            m_ids.try_emplace(text, static_cast<Timeline::TextId>(m_texts->size()));
        if (isNew)
            m_texts->push_back(text);
        return place->second;
    }

private:
    const Names* m_names;
    std::vector<std::string_view>* m_texts;
    std::vector<Timeline::TextId> m_named; ///< by name
    std::unordered_map<std::string_view, Timeline::TextId> m_ids;
};

/// Which rows of a lane are free at the moment.
class Rows {
public:
    /// @return the first row at or below `least` that is free from `begin` on; it is taken until
    /// `end`. To be called in the order of `begin`.
    Index Take(Index least, std::uint64_t begin, std::uint64_t end) {
        while (!m_taken.empty() && m_taken.top().first <= begin) {
            m_free.insert(m_taken.top().second);
            m_taken.pop();
        }
        while (m_count <= least)
            m_free.insert(m_count++);
        const auto free = m_free.lower_bound(least);
        const Index row = free == m_free.end() ? m_count++ : *free;
        if (free != m_free.end())
            m_free.erase(free);
        m_taken.emplace(end, row);
        return row;
    }

    Index Count() const { return m_count; }

private:
    using Taken = std::pair<std::uint64_t, Index>; ///< until when, which
    std::priority_queue<Taken, std::vector<Taken>, std::greater<>> m_taken;
    std::set<Index> m_free;
    Index m_count = 0;
};

using Intervals = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

/// Makes the lanes of one run.
class LaneMaker {
public:
    LaneMaker(const Run& run, std::uint64_t shift, std::vector<Piece>& pieces, TextTable& texts,
              Timeline& timeline, std::vector<Intervals>& rest)
        : m_run(&run),
          m_shift(shift),
          m_pieces(&pieces),
          m_texts(&texts),
          m_timeline(&timeline),
          m_rest(&rest),
          m_rowOfContext(run.contexts.size()),
          m_rowOfScope(run.scopes.size()),
          m_firstSlice(timeline.slices.size()) {}

    void Make() {
        Collect();
        const auto firstContext = static_cast<Index>(m_timeline->contexts.size());
        // By their numbers; what has no thread stands behind.
        for (auto lane = m_lanes.lower_bound(0); lane != m_lanes.end(); ++lane)
            MakeLane(lane->first, lane->second);
        for (auto lane = m_lanes.begin(); lane != m_lanes.lower_bound(0); ++lane)
            MakeLane(lane->first, lane->second);
        AddContexts(firstContext);
    }

private:
    /// A slice before it has a row.
    struct Part {
        std::uint64_t begin;
        std::uint64_t end;
        Index context;
        Index scope; ///< none: the context itself
        std::uint8_t kind;
        Index row;
    };
    struct Lane {
        std::vector<Part> parts;
        Intervals rest; ///< when what is not kept was open
    };

    std::uint64_t Time(std::uint64_t stamp) const { return stamp + m_shift; }

    /// @return whether the page has something to say of a context.
    bool IsShown(Index i) const {
        const Context& context = m_run->contexts[i];
        if (i == m_run->client)
            return CostOf(*m_run, context) > 1 && context.opened != never;
        return context.created != never || context.opened != never || context.scopeCount > 0;
    }

    void Collect() {
        for (Index i = 0; i < m_run->contexts.size(); ++i) {
            const Context& context = m_run->contexts[i];
            Piece& piece = (*m_pieces)[i];
            piece.isKept = piece.isKept && IsShown(i);
            const Part own = PartOf(i);
            const bool isMark = own.kind == Timeline::MarkSlice;
            if (!piece.isKept && (isMark || !IsShown(i)))
                continue;
            Lane& lane = m_lanes[isMark ? Timeline::neverOpened : context.tid];
            if (!piece.isKept) {
                lane.rest.emplace_back(own.begin, own.end);
                continue;
            }
            lane.parts.push_back(own);
            for (Index s = context.firstScope; s < context.firstScope + context.scopeCount; ++s)
                if (m_run->scopes[s].start != never && !IsOwnScope(*m_run, context, s))
                    lane.parts.push_back(PartOf(i, s));
        }
    }

    Part PartOf(Index i) const {
        const Context& context = m_run->contexts[i];
        if (context.opened == never && context.scopeCount == 0)
            return {Time(context.created), Time(context.created), i, none, Timeline::MarkSlice, 0};
        Part part{never, 0, i, none, Timeline::ContextSlice, 0};
        // Where the file does not tell of the opening, the scopes say as much as there is.
        part.begin = context.opened;
        part.end = context.closed;
        if (context.opened == never)
            for (const Scope& scope : m_run->ScopesOf(context)) {
                const std::uint64_t known = scope.start == never ? scope.end : scope.start;
                part.begin = std::min(part.begin, known);
            }
        if (part.end == never) {
            part.end = m_run->end;
            part.kind |= Timeline::OpenEnd;
        }
        part.begin = Time(part.begin);
        part.end = std::max(part.begin, Time(part.end));
        return part;
    }

    Part PartOf(Index i, Index s) const {
        const Context& context = m_run->contexts[i];
        const Scope& scope = m_run->scopes[s];
        Part part{Time(scope.start), 0, i, s, Timeline::ScopeSlice, 0};
        part.end = Time(scope.end);
        if (scope.end == never) {
            // In a context that was closed it covers nothing.
            part.end = context.closed == never ? Time(m_run->end) : part.begin;
            part.kind |= Timeline::OpenEnd;
        }
        part.end = std::max(part.begin, part.end);
        return part;
    }

    /// @return the first row that may hold a part: the one below what it is in.
    Index LeastRow(const Part& part, std::int64_t tid) const {
        const Context& context = m_run->contexts[part.context];
        if (part.scope != none) {
            const Index parent = m_run->scopes[part.scope].parent;
            const bool isInContext = parent == none || parent == context.firstScope;
            return 1 + (isInContext && (parent == none || IsOwnScope(*m_run, context, parent))
                            ? m_rowOfContext[part.context]
                            : m_rowOfScope[parent]);
        }
        if (context.parent == none)
            return 0;
        const Context& parent = m_run->contexts[context.parent];
        const bool isInside = parent.tid == tid && (*m_pieces)[context.parent].isKept &&
                              parent.opened <= context.opened && parent.closed >= context.opened;
        if (!isInside)
            return 0;
        return 1 + (context.openedIn == none || IsOwnScope(*m_run, parent, context.openedIn)
                        ? m_rowOfContext[context.parent]
                        : m_rowOfScope[context.openedIn]);
    }

    void MakeLane(std::int64_t tid, Lane& lane) {
        std::vector<Part>& parts = lane.parts;
        std::stable_sort(parts.begin(), parts.end(), [](const Part& a, const Part& b) {
            return std::tuple(a.begin, b.end, a.scope != none) <
                   std::tuple(b.begin, a.end, b.scope != none);
        });
        Rows rows;
        for (Part& part : parts) {
            part.row = rows.Take(LeastRow(part, tid), part.begin, part.end);
            (part.scope == none ? m_rowOfContext[part.context] : m_rowOfScope[part.scope]) =
                part.row;
        }
        // Rows that were passed over, but never used, are not drawn.
        std::vector<Index> sizes(rows.Count());
        for (const Part& part : parts)
            ++sizes[part.row];
        std::stable_sort(parts.begin(), parts.end(),
                         [](const Part& a, const Part& b) { return a.row < b.row; });
        std::erase(sizes, Index{0});
        m_timeline->lanes.push_back({static_cast<Index>(m_timeline->processes.size() - 1), tid,
                                     static_cast<Index>(sizes.size())});
        m_timeline->trackSizes.insert(m_timeline->trackSizes.end(), sizes.begin(), sizes.end());
        for (const Part& part : parts)
            AddSlice(part);
        m_rest->push_back(std::move(lane.rest));
    }

    void AddSlice(const Part& part) {
        const NameId label = part.scope == none ? m_run->contexts[part.context].name
                                                : m_run->scopes[part.scope].label;
        if (part.scope == none) {
            (*m_pieces)[part.context].number = static_cast<Index>(m_timeline->contexts.size());
            m_timeline->contexts.emplace_back();
            m_contexts.push_back(part.context);
        }
        m_timeline->slices.push_back({part.begin, part.end,
                                      part.context == m_run->client && part.scope == none
                                          ? m_texts->Add("the client's own")
                                          : m_texts->Add(label),
                                      part.context, part.kind});
    }

    /// Tells of each context, now that all have their numbers.
    void AddContexts(Index first) {
        for (std::size_t i = m_firstSlice; i < m_timeline->slices.size(); ++i) {
            Timeline::Slice& slice = m_timeline->slices[i];
            slice.context = (*m_pieces)[slice.context].number;
        }
        for (std::size_t i = 0; i < m_contexts.size(); ++i) {
            const Index index = m_contexts[i];
            const Context& context = m_run->contexts[index];
            const std::uint64_t begin = PartOf(index).begin;
            const auto numberOf = [&](Index other) {
                return other == none ? none : (*m_pieces)[other].number;
            };
            m_timeline->contexts[first + i] = {context.id,
                                               numberOf(context.parent),
                                               numberOf((*m_pieces)[index].request),
                                               context.HasWait() ? context.Wait() : never,
                                               context.attributeCount,
                                               context.customCount};
            for (const Attribute& attribute : m_run->AttributesOf(context))
                m_timeline->attributes.push_back(
                    {m_texts->Add(attribute.name), m_texts->Add(attribute.value)});
            for (const CustomEvent& event : m_run->CustomsOf(context))
                m_timeline->customs.push_back({static_cast<std::int64_t>(Time(event.stamp) - begin),
                                               m_texts->Add(event.first),
                                               m_texts->Add(event.second)});
        }
    }

    const Run* m_run;
    std::uint64_t m_shift;
    std::vector<Piece>* m_pieces;
    TextTable* m_texts;
    Timeline* m_timeline;
    std::vector<Intervals>* m_rest;       ///< of each lane that was made
    std::map<std::int64_t, Lane> m_lanes; ///< by thread
    std::vector<Index> m_rowOfContext;
    std::vector<Index> m_rowOfScope;
    std::vector<Index> m_contexts; ///< the run's, in the order of the timeline's
    std::size_t m_firstSlice;
};

/// How busy each lane was with what is not kept.
void MeasureRest(std::vector<Intervals>& rest, Timeline& timeline) {
    const bool isEmpty =
        std::all_of(rest.begin(), rest.end(), [](const Intervals& lane) { return lane.empty(); });
    if (isEmpty || timeline.duration == 0)
        return;
    timeline.buckets = std::clamp<std::size_t>(mostBucketsOfAll / rest.size(), 1, mostBuckets);
    timeline.busy.resize(timeline.buckets * rest.size());
    const double bucket =
        static_cast<double>(timeline.duration) / static_cast<double>(timeline.buckets);
    std::vector<double> shares(timeline.buckets);
    for (std::size_t lane = 0; lane < rest.size(); ++lane) {
        std::fill(shares.begin(), shares.end(), 0.0);
        std::sort(rest[lane].begin(), rest[lane].end());
        std::uint64_t covered = 0;
        for (const auto& [begin, end] : rest[lane]) {
            const double from = static_cast<double>(std::max(begin, covered)) / bucket;
            const double to = static_cast<double>(std::max(end, covered)) / bucket;
            covered = std::max(covered, end);
            for (auto b = static_cast<std::size_t>(from);
                 b < timeline.buckets && static_cast<double>(b) < to; ++b)
                shares[b] += std::min(to, static_cast<double>(b + 1)) -
                             std::max(from, static_cast<double>(b));
        }
        for (std::size_t b = 0; b < timeline.buckets; ++b) // what is not quite nothing shows
            timeline.busy[lane * timeline.buckets + b] =
                static_cast<std::uint8_t>(std::ceil(std::min(1.0, shares[b]) * 255));
    }
}

} // namespace

Timeline MakeTimeline(const Model& model, const TimelineOptions& options) {
    Timeline timeline;
    std::int64_t first = std::numeric_limits<std::int64_t>::max();
    std::int64_t last = std::numeric_limits<std::int64_t>::min();
    for (const Run& run : model.runs)
        if (run.begin != never) {
            first = std::min(first, run.Wall(run.begin));
            last = std::max(last, run.Wall(run.end));
        }
    if (first <= last) {
        timeline.wallStart = first;
        timeline.duration = static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first);
    }

    Selection selection(model, options);
    timeline.allRequests = selection.allRequests;
    timeline.keptRequests = selection.keptRequests;
    TextTable texts(model.names, timeline.texts);
    std::vector<Intervals> rest;
    for (std::size_t i = 0; i < model.runs.size(); ++i) {
        const Run& run = model.runs[i];
        timeline.processes.push_back({texts.Add(run.path), run.pid});
        // Differences of times are small, whatever the clocks stand at: let them wrap.
        const auto shift = static_cast<std::uint64_t>(run.wallOffset) -
                           static_cast<std::uint64_t>(timeline.wallStart);
        LaneMaker(run, shift, selection.pieces[i], texts, timeline, rest).Make();
    }
    MeasureRest(rest, timeline);
    return timeline;
}

} // namespace Metrics::tools
