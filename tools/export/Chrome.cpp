#include "Chrome.h"

#include "Output.h"
#include "Text.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace Metrics::tools {

namespace {

/// A context or a scope. Those of one context stand together, the context first.
struct Slice {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    Index owner = none;   ///< the slice of its context; of a context: its own
    Index context = none; ///< in the run
    SpanId id = 0;        ///< of the span; of what is asynchronous: of its track
    std::int64_t thread = noThread;
    std::string_view label;
    bool isAsync = false;
};

/// From a context's creation to its opening.
struct Arrow {
    SpanId id = 0;
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    Index from = none; ///< the slices of the two contexts
    Index to = none;
    bool leaves = false; ///< inside of the slice that it is bound to
    bool arrives = false;
};

/// One of the file's events, but for its text: that is made when all of them are in order.
struct Entry {
    enum class Phase : unsigned char { Begin, End, Leave, Arrive, Instant };

    std::uint64_t time = 0;
    Phase phase{};
    Index index = none; ///< of a slice, an arrow, or one of the run's custom events
    Index slice = none; ///< in which an arrow ends, or the event stands
};

/// Slices that nest, one begun after the other.
class Nest {
public:
    Nest(const std::vector<Slice>& slices, std::vector<Entry>& entries)
        : m_slices(slices), m_entries(entries) {}

    /// Ends what ends before this time.
    void CloseBefore(std::uint64_t time) {
        while (!m_open.empty() && m_slices[m_open.back()].end < time) {
            m_entries.push_back({m_slices[m_open.back()].end, Entry::Phase::End, m_open.back()});
            m_open.pop_back();
        }
    }

    bool HasRoomFor(const Slice& slice) const {
        return m_open.empty() || slice.end <= m_slices[m_open.back()].end;
    }

    void Begin(Index slice) {
        m_entries.push_back({m_slices[slice].start, Entry::Phase::Begin, slice});
        m_open.push_back(slice);
    }

    bool IsOpen(Index slice) const {
        return std::find(m_open.rbegin(), m_open.rend(), slice) != m_open.rend();
    }

private:
    const std::vector<Slice>& m_slices;
    std::vector<Entry>& m_entries;
    std::vector<Index> m_open;
};

/// The slices and arrows of one run, put in order.
class RunTrace {
public:
    /// @param isWanted by context; from, to: stamps of the run.
    RunTrace(const Model& model, const Run& of, const RunIdentity& as,
             const std::vector<char>& isWanted, std::uint64_t from, std::uint64_t to)
        : run(&of), identity(&as) {
        Collect(model, isWanted, from, to);
        ArrangeThreads();
        for (Index i = 0; i < slices.size(); ++i)
            if (slices[i].owner == i)
                ArrangeAsync(i);
        AddEvents(from, to);
        std::erase_if(entries, [this](const Entry& entry) {
            const bool isArrow =
                entry.phase == Entry::Phase::Leave || entry.phase == Entry::Phase::Arrive;
            return isArrow && !(arrows[entry.index].leaves && arrows[entry.index].arrives);
        });
        std::stable_sort(entries.begin(), entries.end(),
                         [](const Entry& a, const Entry& b) { return a.time < b.time; });
    }

    const Run* run;
    const RunIdentity* identity;
    std::int64_t pid = 0; ///< in the file, where each run has its own
    std::vector<Slice> slices;
    std::vector<Arrow> arrows;
    std::vector<Entry> entries;
    std::vector<std::int64_t> threads;
    std::vector<SpanAttribute> attributes;
    std::vector<std::pair<Index, Index>> attributesOf; ///< by context: begin and end

private:
    using Phase = Entry::Phase;

    void Collect(const Model& model, const std::vector<char>& isWanted, std::uint64_t from,
                 std::uint64_t to) {
        std::vector<Index> sliceOf(run->contexts.size(), none);
        attributesOf.resize(run->contexts.size());
        Index context = none;
        Index owner = none;
        ForEachSpan(model, *run, SpanIds(*identity), [&](const Span& span) {
            if (span.kind == SpanKind::Context) {
                context = span.piece;
                owner = none;
            }
            if (isWanted[context] == 0 || span.start > to || span.end < from)
                return;
            const auto index = static_cast<Index>(slices.size());
            if (span.kind == SpanKind::Context) {
                owner = sliceOf[context] = index;
                attributesOf[context].first = static_cast<Index>(attributes.size());
                attributes.insert(attributes.end(), span.attributes.begin(), span.attributes.end());
                attributesOf[context].second = static_cast<Index>(attributes.size());
            } else if (owner == none) {
                return;
            } else if (span.kind == SpanKind::Queue) {
                if (run->contexts[context].parent != none && span.hasEnd)
                    arrows.push_back(
                        {span.id, span.start, span.end, run->contexts[context].parent, owner});
                return;
            }
            slices.push_back({span.start, span.end, owner, context, span.id, span.thread,
                              span.label, span.thread == noThread});
        });
        for (Arrow& arrow : arrows)
            arrow.from = sliceOf[arrow.from];
    }

    void ArrangeThreads() {
        struct Lane {
            std::vector<Index> slices;
            std::vector<Entry> arrowEnds;
        };
        std::map<std::int64_t, Lane> lanes;
        for (Index i = 0; i < slices.size(); ++i)
            if (!slices[i].isAsync)
                lanes[slices[i].thread].slices.push_back(i);
        for (Index i = 0; i < arrows.size(); ++i) {
            const Arrow& arrow = arrows[i];
            if (arrow.from == none || slices[arrow.from].isAsync || slices[arrow.to].isAsync)
                continue;
            lanes[slices[arrow.from].thread].arrowEnds.push_back(
                {arrow.start, Phase::Leave, i, arrow.from});
            lanes[slices[arrow.to].thread].arrowEnds.push_back(
                {arrow.end, Phase::Arrive, i, arrow.to});
        }
        for (auto& [thread, lane] : lanes) {
            threads.push_back(thread);
            ArrangeThread(lane.slices, lane.arrowEnds);
        }
    }

    /// What overlaps becomes asynchronous, with all of its context when it is one. The others nest.
    void ArrangeThread(std::vector<Index>& members, const std::vector<Entry>& arrowEnds) {
        // An arrow's end stands behind the beginning of its slice and before the end; so before
        // what begins at that time, which would end what ends then, unless that is the slice
        // itself.
        struct Item {
            std::uint64_t time;
            std::uint64_t last;
            int rank;
            Index slice;
            const Entry* arrowEnd;
        };
        std::vector<Item> items;
        items.reserve(members.size() + arrowEnds.size());
        for (const Index i : members)
            items.push_back({slices[i].start, slices[i].end, 1, i, nullptr});
        for (const Entry& entry : arrowEnds) {
            const bool isAtStart = slices[entry.slice].start == entry.time;
            items.push_back({entry.time, entry.time, isAtStart ? 2 : 0, entry.slice, &entry});
        }
        std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
            return a.time != b.time   ? a.time < b.time
                   : a.rank != b.rank ? a.rank < b.rank
                                      : a.last > b.last;
        });
        Nest nest(slices, entries);
        for (const Item& item : items) {
            if (item.arrowEnd != nullptr) {
                nest.CloseBefore(item.time);
                Arrow& arrow = arrows[item.arrowEnd->index];
                (item.arrowEnd->phase == Phase::Leave ? arrow.leaves : arrow.arrives) =
                    nest.IsOpen(item.slice);
                entries.push_back(*item.arrowEnd);
                continue;
            }
            Slice& slice = slices[item.slice];
            nest.CloseBefore(item.time + 1);
            if (slices[slice.owner].isAsync || !nest.HasRoomFor(slice))
                slice.isAsync = true;
            else
                nest.Begin(item.slice);
        }
        nest.CloseBefore(never);
    }

    /// What is asynchronous of one context is on one track as far as it nests there. Otherwise it
    /// has one of its own.
    void ArrangeAsync(Index owner) {
        std::vector<Index> members;
        for (Index i = owner; i < slices.size() && slices[i].owner == owner; ++i)
            if (slices[i].isAsync)
                members.push_back(i);
        if (members.empty())
            return;
        std::stable_sort(members.begin(), members.end(), [this](Index a, Index b) {
            return slices[a].start != slices[b].start ? slices[a].start < slices[b].start
                                                      : slices[a].end > slices[b].end;
        });
        Nest track(slices, entries);
        for (const Index i : members) {
            Slice& slice = slices[i];
            track.CloseBefore(slice.start + 1);
            if (slices[owner].isAsync && track.HasRoomFor(slice)) {
                slice.id = slices[owner].id;
                track.Begin(i);
            } else {
                entries.push_back({slice.start, Phase::Begin, i});
                entries.push_back({slice.end, Phase::End, i});
            }
        }
        track.CloseBefore(never);
    }

    void AddEvents(std::uint64_t from, std::uint64_t to) {
        for (Index i = 0; i < slices.size(); ++i) {
            if (slices[i].owner != i)
                continue;
            const Context& context = run->contexts[slices[i].context];
            for (Index event = context.firstCustom;
                 event < context.firstCustom + context.customCount; ++event) {
                const std::uint64_t time = run->customs[event].stamp;
                if (time >= from && time <= to)
                    entries.push_back({time, Phase::Instant, event, i});
            }
        }
    }
};

/// The pieces that the options ask for by their context.
std::vector<std::vector<char>> FindWanted(const Model& model, const ChromeOptions& options) {
    std::vector<std::vector<char>> wanted;
    struct Request {
        std::uint64_t duration;
        std::size_t run;
        Index context;
    };
    std::vector<Request> requests;
    for (std::size_t r = 0; r < model.runs.size(); ++r) {
        const Run& run = model.runs[r];
        wanted.emplace_back(run.contexts.size(), options.root || options.slowest ? 0 : 1);
        for (Index i = 0; options.root && i < run.contexts.size(); ++i)
            wanted[r][i] = run.contexts[i].id == *options.root ? 1 : 0;
        if (options.slowest)
            for (const Index i : Requests(model, run))
                if (run.contexts[i].IsWhole())
                    requests.push_back({run.contexts[i].Duration(), r, i});
    }
    if (options.slowest) {
        std::stable_sort(requests.begin(), requests.end(), [](const Request& a, const Request& b) {
            return a.duration > b.duration;
        });
        requests.resize(std::min(*options.slowest, requests.size()));
        std::vector<std::vector<char>> slow;
        for (const Run& run : model.runs)
            slow.emplace_back(run.contexts.size(), 0);
        for (const Request& request : requests)
            slow[request.run][request.context] = 1;
        for (std::size_t r = 0; r < model.runs.size(); ++r) {
            const std::vector<Index> roots = Roots(model.runs[r]);
            for (Index i = 0; i < roots.size(); ++i)
                if (slow[r][roots[i]] == 0)
                    wanted[r][i] = 0;
                else if (!options.root)
                    wanted[r][i] = 1;
        }
    }
    for (std::size_t r = 0; options.root && r < model.runs.size(); ++r) {
        std::vector<Index> todo; // the tree below
        for (Index i = 0; i < wanted[r].size(); ++i)
            if (wanted[r][i] != 0)
                todo.push_back(i);
        while (!todo.empty()) {
            const Context& context = model.runs[r].contexts[todo.back()];
            todo.pop_back();
            for (const Index child : model.runs[r].ChildrenOf(context))
                if (wanted[r][child] == 0) {
                    wanted[r][child] = 1;
                    todo.push_back(child);
                }
        }
    }
    return wanted;
}

/// Writes the events' texts.
class Writer {
public:
    explicit Writer(std::string& out) : m_out(out) {}

    void Metadata(const RunTrace& trace) {
        Head("M", "process_name", nullptr);
        Place(trace, 0);
        m_out += R"(,"args":{"name":)";
        AppendJsonString(m_out, trace.identity->service);
        m_out += "}}";
        for (const std::int64_t thread : trace.threads) {
            Head("M", "thread_name", nullptr);
            Place(trace, thread);
            m_out += R"(,"args":{"name":"thread )";
            AppendNumber(m_out, thread);
            m_out += "\"}}";
        }
    }

    /// @param time in nanoseconds, as in ChromeOptions.
    void Event(const RunTrace& trace, const Entry& entry, std::uint64_t time) {
        switch (entry.phase) {
        case Entry::Phase::Begin:
        case Entry::Phase::End:
            SliceEnd(trace, trace.slices[entry.index], entry, time);
            break;
        case Entry::Phase::Leave:
        case Entry::Phase::Arrive: {
            const bool leaves = entry.phase == Entry::Phase::Leave;
            Head(leaves ? "s" : "f", "handover", "handover");
            Place(trace, trace.slices[entry.slice].thread);
            Time(time);
            Id(trace.arrows[entry.index].id);
            m_out += leaves ? "}" : R"(,"bp":"e"})";
            break;
        }
        case Entry::Phase::Instant: {
            const Slice& slice = trace.slices[entry.slice];
            const CustomEvent& event = trace.run->customs[entry.index];
            Head(slice.isAsync ? "n" : "i", event.first, slice.isAsync ? asyncCategory : "event");
            Place(trace, std::max<std::int64_t>(slice.thread, 0));
            Time(time);
            if (slice.isAsync)
                Id(slice.id);
            else
                m_out += R"(,"s":"t")";
            m_out += R"(,"args":{"value":)";
            JsonValue(event.second);
            m_out += "}}";
            break;
        }
        }
    }

private:
    static constexpr const char* asyncCategory = "async";

    void SliceEnd(const RunTrace& trace, const Slice& slice, const Entry& entry,
                  std::uint64_t time) {
        const bool isBegin = entry.phase == Entry::Phase::Begin;
        const bool isContext = slice.owner == entry.index;
        if (slice.isAsync)
            Head(isBegin ? "b" : "e", NameOf(slice, isContext), asyncCategory);
        else
            Head(isBegin ? "B" : "E", NameOf(slice, isContext), isContext ? "context" : "scope");
        Place(trace, std::max<std::int64_t>(slice.thread, 0));
        Time(time);
        if (slice.isAsync)
            Id(slice.id);
        // Readers take the arguments of both ends. Some make those of the first a part of the
        // slice's name, and would show each value as another one.
        if (!isBegin && isContext) {
            m_out += R"(,"args":{"context":")";
            AppendNumber(m_out, trace.run->contexts[slice.context].id);
            m_out += '"';
            const auto [begin, end] = trace.attributesOf[slice.context];
            for (Index i = begin; i < end; ++i) {
                m_out += ',';
                AppendJsonString(m_out, trace.attributes[i].name);
                m_out += ':';
                JsonValue(trace.attributes[i].value);
            }
            m_out += '}';
        }
        m_out += '}';
    }

    static std::string_view NameOf(const Slice& slice, bool isContext) {
        return isContext && slice.label.empty() ? "(never used)" : slice.label;
    }

    void Head(const char* phase, std::string_view name, const char* category) {
        m_out += m_out.ends_with('[') ? "\n" : ",\n";
        m_out += R"({"ph":")";
        m_out += phase;
        m_out += R"(","name":)";
        AppendJsonString(m_out, name);
        if (category != nullptr) {
            m_out += R"(,"cat":")";
            m_out += category;
            m_out += '"';
        }
    }

    void Place(const RunTrace& trace, std::int64_t thread) {
        m_out += R"(,"pid":)";
        AppendNumber(m_out, trace.pid);
        m_out += R"(,"tid":)";
        AppendNumber(m_out, thread);
    }

    /// In microseconds, to the nanosecond.
    void Time(std::uint64_t time) {
        m_out += R"(,"ts":)";
        AppendNumber(m_out, time / 1000);
        const std::uint64_t rest = time % 1000;
        const char digits[] = {'.', static_cast<char>('0' + rest / 100),
                               static_cast<char>('0' + rest / 10 % 10),
                               static_cast<char>('0' + rest % 10)};
        m_out.append(digits, sizeof digits);
    }

    void Id(std::uint64_t id) {
        m_out += R"(,"id":"0x)";
        AppendHex(m_out, id);
        m_out += '"';
    }

    void JsonValue(std::string_view text) { AppendJsonValue(m_out, ToValue(text)); }

    std::string& m_out;
};

} // namespace

void WriteChrome(const Model& model, const std::vector<RunIdentity>& identities,
                 const ChromeOptions& options, const std::string& path) {
    Output output(path);
    std::int64_t begin = std::numeric_limits<std::int64_t>::max();
    for (const Run& run : model.runs)
        if (run.events > 0)
            begin = std::min(begin, run.wallOffset);
    const auto ahead = [&](const Run& run) { // of its stamps
        return static_cast<std::uint64_t>(run.wallOffset) - static_cast<std::uint64_t>(begin);
    };
    const auto toStamp = [&](const Run& run, std::uint64_t time) {
        return time == never ? never : Between(ahead(run), time);
    };
    const std::vector<std::vector<char>> wanted = FindWanted(model, options);
    std::vector<RunTrace> traces;
    for (std::size_t i = 0; i < model.runs.size(); ++i)
        if (model.runs[i].events > 0)
            traces.emplace_back(model, model.runs[i], identities[i], wanted[i],
                                toStamp(model.runs[i], options.from),
                                toStamp(model.runs[i], options.to));
    // Processes of several machines may have the same number; not so in the file.
    std::set<std::int64_t> pids;
    for (RunTrace& trace : traces) {
        trace.pid = std::max<std::int64_t>(trace.identity->pid, 1);
        while (!pids.insert(trace.pid).second)
            trace.pid = *pids.rbegin() + 1;
    }

    output.Text() = R"({"displayTimeUnit":"ns","traceEvents":[)";
    Writer writer(output.Text());
    for (const RunTrace& trace : traces)
        writer.Metadata(trace);
    const auto timeOf = [&](const RunTrace& trace, std::size_t i) {
        return trace.entries[i].time + ahead(*trace.run);
    };
    std::vector<std::size_t> next(traces.size());
    for (;;) { // the run whose next event comes first: there are few runs
        std::size_t first = traces.size();
        std::uint64_t time = never;
        for (std::size_t i = 0; i < traces.size(); ++i)
            if (next[i] < traces[i].entries.size() && timeOf(traces[i], next[i]) < time) {
                first = i;
                time = timeOf(traces[i], next[i]);
            }
        if (first == traces.size())
            break;
        writer.Event(traces[first], traces[first].entries[next[first]++], time);
        output.Flow();
    }
    output.Text() += "\n]}\n";
    output.Finish();
}

} // namespace Metrics::tools
