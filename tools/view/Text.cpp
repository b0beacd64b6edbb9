#include "Views.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Metrics::tools {

namespace {

constexpr const char* bold = "1";
constexpr const char* dim = "2";
constexpr const char* red = "31";
constexpr const char* green = "32";
constexpr const char* yellow = "33";
constexpr const char* cyan = "36";

std::string Colored(const Style& style, const char* color, const std::string& text) {
    return style.colors ? std::string("\033[") + color + "m" + text + "\033[0m" : text;
}

template <class... Values>
std::string Format(const char* format, Values... values) {
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

/// Three digits and a unit.
std::string Time(double nanoseconds) {
    struct Unit {
        double size;
        const char* name;
    };
    constexpr std::array<Unit, 4> units{{{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}, {1, "ns"}}};
    for (const Unit& unit : units) {
        const double value = std::abs(nanoseconds) / unit.size;
        if (value < 0.9995 && unit.size > 1)
            continue;
        const int digits = unit.size == 1 || value >= 99.95 ? 0 : value >= 9.995 ? 1 : 2;
        return Format("%s%.*f %s", nanoseconds < 0 ? "-" : "", digits, value, unit.name);
    }
    return {};
}

std::string Time(std::uint64_t nanoseconds) {
    return Time(static_cast<double>(nanoseconds));
}

std::string Time(const std::optional<Nanoseconds>& nanoseconds) {
    return nanoseconds ? Time(*nanoseconds) : "-";
}

std::string Count(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t i = text.size(); i > 3; i -= 3)
        text.insert(i - 3, 1, ',');
    return text;
}

std::string Plural(std::uint64_t number, const char* one, const char* many) {
    return Count(number) + " " + (number == 1 ? one : many);
}

std::string Percent(double share) {
    return Format("%.0f %%", share * 100);
}

/// A text of the file, in which a control character could upset the terminal.
std::string Printable(std::string_view text) {
    std::string printable(text);
    for (std::size_t i = 0; i < printable.size(); ++i) {
        const auto byte = static_cast<unsigned char>(printable[i]);
        const auto next =
            static_cast<unsigned char>(printable[std::min(i + 1, printable.size() - 1)]);
        if (byte < ' ' || byte == 0x7F)
            printable[i] = '?';
        else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) // the same again in UTF-8
            printable.replace(i, 2, "?");
    }
    return printable;
}

std::string NameOf(const Names& names, NameId id) {
    return id == noName ? "(never used)" : Printable(names[id]);
}

/// How many columns a text in UTF-8 takes, about.
std::size_t Columns(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string Fill(std::size_t columns, std::string_view text) {
    const std::size_t taken = Columns(text);
    std::string fill;
    fill.resize(columns > taken ? columns - taken : 0, ' ');
    return fill;
}

/// A heading, and rows of columns: all to the right but the last.
class Table {
public:
    explicit Table(std::vector<std::string> heading) : m_rows{std::move(heading)} {}

    void Add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }

    void Print(std::ostream& out, const Style& style) const {
        std::vector<std::size_t> widths;
        for (std::size_t i = 0; i + 1 < m_rows.front().size(); ++i) {
            widths.push_back(0);
            for (const std::vector<std::string>& row : m_rows)
                widths.back() = std::max(widths.back(), Columns(row[i]));
        }
        const std::size_t most = style.mostRows == 0 ? m_rows.size() : style.mostRows;
        for (std::size_t r = 0; r < m_rows.size() && r <= most; ++r) {
            std::string line;
            for (std::size_t i = 0; i < widths.size(); ++i)
                line += Fill(widths[i], m_rows[r][i]) + m_rows[r][i] + "  ";
            line += m_rows[r].back();
            out << (r == 0 ? Colored(style, bold, line) : line) << '\n';
        }
        if (m_rows.size() > most + 1)
            out << Colored(style, dim,
                           "and " + Count(m_rows.size() - 1 - most) + " more; --all shows them")
                << '\n';
        out << '\n';
    }

private:
    std::vector<std::vector<std::string>> m_rows;
};

/// A bar in which waiting and working differ, for a time within that of a whole tree.
class Bars {
public:
    Bars(const ContextTree& tree, const Style& style) : m_columns(style.width / 3) {
        m_begin = never;
        Widen(tree);
        if (m_begin == never) {
            m_begin = tree.run->begin;
            m_end = tree.run->end;
        }
    }

    std::string Bar(const Context& context, const Style& style) const {
        const std::uint64_t end = context.closed == never ? m_end : context.closed;
        const std::size_t waited =
            context.created == never ? Column(context.opened) : Column(context.created);
        const std::size_t opened = context.opened == never ? m_columns : Column(context.opened);
        const std::size_t closed = context.opened == never ? opened : Past(opened, end);
        std::string bar(std::min(waited, opened), ' ');
        if (opened > waited)
            bar += Colored(style, yellow, Repeat("\u2591", opened - waited));
        bar += Colored(style, cyan, Repeat("\u2588", closed - opened));
        return bar + std::string(m_columns - std::max(closed, std::min(waited, opened)), ' ');
    }

    std::string Bar(const Scope& scope, const Style& style) const {
        const std::size_t start = Column(scope.start);
        const std::size_t end = Past(start, scope.end == never ? m_end : scope.end);
        return std::string(start, ' ') + Colored(style, cyan, Repeat("\u2594", end - start)) +
               std::string(m_columns - end, ' ');
    }

    std::size_t Width() const { return m_columns; }

private:
    void Widen(const ContextTree& tree) {
        for (const std::uint64_t time :
             {tree.context->created, tree.context->opened, tree.context->closed})
            if (time != never) {
                m_begin = std::min(m_begin, time);
                m_end = std::max(m_end, time);
            }
        if (tree.context->closed == never)
            m_end = std::max(m_end, tree.run->end);
        for (const ContextTree& child : tree.children)
            Widen(child);
    }

    std::size_t Column(std::uint64_t time) const {
        const double share = static_cast<double>(Between(m_begin, time)) /
                             static_cast<double>(std::max<std::uint64_t>(m_end - m_begin, 1));
        const double most = static_cast<double>(m_columns) - 1;
        return static_cast<std::size_t>(std::min(share * static_cast<double>(m_columns), most));
    }

    /// The end of a bar that is one column wide at least.
    std::size_t Past(std::size_t start, std::uint64_t end) const {
        return std::max(start, Column(end)) + 1;
    }

    static std::string Repeat(const char* text, std::size_t times) {
        std::string repeated;
        for (std::size_t i = 0; i < times; ++i)
            repeated += text;
        return repeated;
    }

    std::size_t m_columns;
    std::uint64_t m_begin = never;
    std::uint64_t m_end = 0;
};

class TreePrinter {
public:
    TreePrinter(std::ostream& out, const Names& names, const Style& style, const ContextTree& root)
        : m_out(&out), m_names(&names), m_style(&style), m_bars(root, style) {}

    void Print(const ContextTree& tree, std::size_t depth) {
        const Context& context = *tree.context;
        std::string what = std::string(2 * depth, ' ') + NameOf(*m_names, context.name) + " #" +
                           std::to_string(context.id);
        std::string rest;
        if (context.HasWait())
            rest += "  waited " + Time(context.Wait());
        if (context.opened == never)
            rest += "  never opened";
        else if (context.closed == never)
            rest += "  still open";
        if (context.tid != noThread)
            rest += "  thread " + std::to_string(context.tid);
        if (tree.isCut)
            rest += "  (what lies below is too deep, and left out)";
        Line(m_bars.Bar(context, *m_style), context.IsWhole() ? Time(context.Duration()) : "-",
             Colored(*m_style, bold, what) + Colored(*m_style, dim, rest));
        if (m_style->withEvents)
            PrintEvents(tree, depth + 1);
        for (std::size_t i = 0;
             i < tree.scopes.size() && !Ends(i, tree.scopes.size(), "scopes", depth + 1); ++i)
            Print(tree.scopes[i], context, depth + 1);
        for (std::size_t i = 0;
             i < tree.children.size() && !Ends(i, tree.children.size(), "children", depth + 1); ++i)
            Print(tree.children[i], depth + 1);
    }

private:
    /// The context's own scope says nothing that the context's line does not.
    void Print(const ScopeTree& tree, const Context& context, std::size_t depth) {
        const bool isOwn = tree.scope->label == context.name && tree.scope->parent == none;
        if (!isOwn)
            Line(m_bars.Bar(*tree.scope, *m_style),
                 tree.scope->IsWhole() ? Time(tree.scope->Duration()) : "-",
                 std::string(2 * depth, ' ') + NameOf(*m_names, tree.scope->label) +
                     (tree.scope->end == never ? "  no end" : ""));
        const std::size_t below = isOwn ? depth : depth + 1;
        for (std::size_t i = 0;
             i < tree.scopes.size() && !Ends(i, tree.scopes.size(), "scopes", below); ++i)
            Print(tree.scopes[i], context, below);
    }

    /// @return whether no more of so many things are shown, having said so.
    bool Ends(std::size_t shown, std::size_t all, const char* things, std::size_t depth) {
        if (m_style->mostRows == 0 || shown != m_style->mostRows)
            return false;
        Line(std::string(m_bars.Width(), ' '), "",
             std::string(2 * depth, ' ') +
                 Colored(*m_style, dim,
                         "and " + Count(all - shown) + " more " + things + "; --all shows them"));
        return true;
    }

    void PrintEvents(const ContextTree& tree, std::size_t depth) {
        const auto line = [&](const std::string& text) {
            Line(std::string(m_bars.Width(), ' '), "",
                 std::string(2 * depth, ' ') + Colored(*m_style, green, text));
        };
        for (const Attribute& attribute : tree.run->AttributesOf(*tree.context))
            line(NameOf(*m_names, attribute.name) + " = " + Printable(attribute.value));
        for (const CustomEvent& event : tree.run->CustomsOf(*tree.context))
            line("at " + Time(Between(tree.context->opened, event.stamp)) + ": " +
                 Printable(event.first) + " " + Printable(event.second));
    }

    void Line(const std::string& bar, const std::string& time, const std::string& what) {
        *m_out << bar << ' ' << Fill(9, time) << time << "  " << what << '\n';
    }

    std::ostream* m_out;
    const Names* m_names;
    const Style* m_style;
    Bars m_bars;
};

std::string PartOf(const Names& names, NameId part) {
    return part == Report::TailPart::waiting ? "waiting to be opened" : NameOf(names, part);
}

void PrintTail(std::ostream& out, const Report& report, const Names& names, const Style& style) {
    for (std::size_t i = 0; i < report.tail.size();) {
        const Report::TailPart& first = report.tail[i];
        const std::string part = PartOf(names, first.part);
        out << Colored(style, bold, "Tail of " + NameOf(names, first.request)) << ": "
            << Percent(first.share) << " of what requests above p99 have more than those around "
            << "p50 is " << part << '\n';
        Table table({"around p50", "above p99", "share", "part"});
        for (; i < report.tail.size() && report.tail[i].request == first.request; ++i)
            table.Add({Time(report.tail[i].median), Time(report.tail[i].tail),
                       Percent(report.tail[i].share), PartOf(names, report.tail[i].part)});
        table.Print(out, style);
    }
}

std::string ToText(Diff::Quantity quantity) {
    return quantity == Diff::Quantity::P50   ? "p50"
           : quantity == Diff::Quantity::P99 ? "p99"
                                             : "total";
}

} // namespace

void PrintText(std::ostream& out, const Report& report, const Names& names, const Style& style) {
    out << Plural(report.runs, "run", "runs") << ", " << Plural(report.events, "event", "events")
        << " in " << Time(report.elapsed) << "\n\n";

    Table requests({"count", "p50", "p90", "p99", "p99.9", "max", "request"});
    for (const auto& [name, times] : report.requests)
        requests.Add({Count(times.count), Time(times.p50), Time(times.p90), Time(times.p99),
                      Time(times.p999), Time(times.max), NameOf(names, name)});
    requests.Print(out, style);
    PrintTail(out, report, names, style);

    Table labels({"count", "total", "self", "mean", "p50", "p99", "max", "label"});
    for (const Report::Label& label : report.labels)
        labels.Add({Count(label.durations.count), Time(label.total), Time(label.self),
                    Time(label.durations.mean), Time(label.durations.p50),
                    Time(label.durations.p99), Time(label.durations.max),
                    NameOf(names, label.label)});
    labels.Print(out, style);

    Table handovers({"count", "p50", "p99", "max", "most waiting", "created to opened"});
    for (const Report::Handover& handover : report.handovers)
        handovers.Add({Count(handover.waits.count), Time(handover.waits.p50),
                       Time(handover.waits.p99), Time(handover.waits.max),
                       Count(handover.mostWaiting), NameOf(names, handover.name)});
    handovers.Print(out, style);

    Table threads({"busy", "share", "thread"});
    for (const Report::Thread& thread : report.threads)
        threads.Add({Time(thread.busy), Percent(thread.share),
                     std::to_string(thread.tid) +
                         (report.runs > 1 ? " of " + Printable(thread.path) : "")});
    threads.Print(out, style);
    out << Colored(style, dim, "-: too few samples for this quantile") << '\n';
}

void PrintText(std::ostream& out, const std::vector<ContextTree>& trees, const Names& names,
               const Style& style) {
    if (trees.empty())
        out << "no request is in the file with both its beginning and its end\n";
    for (const ContextTree& tree : trees) {
        TreePrinter(out, names, style, tree).Print(tree, 0);
        out << '\n';
    }
    if (!trees.empty())
        out << Colored(style, yellow, "\u2591") << " waiting  " << Colored(style, cyan, "\u2588")
            << " working  " << Colored(style, cyan, "\u2594") << " in a scope\n";
}

// From here on a bound of a change is none.
constexpr auto unbounded = static_cast<std::int64_t>(1e18);

void PrintText(std::ostream& out, const Diff& diff, const Names& names, const Style& style) {
    Table table({"", "before", "after", "change, between", "of", "what"});
    for (const Diff::Comparison& change : diff.changes) {
        const bool isSlower = change.after > change.before;
        const auto bound = [](std::int64_t value) {
            std::string text(value > 0 ? "+" : "");
            return text += value >= unbounded || value <= -unbounded
                               ? "any"
                               : Time(static_cast<double>(value));
        };
        table.Add(
            {isSlower ? "slower" : "faster", Time(static_cast<double>(change.before)),
             Time(static_cast<double>(change.after)),
             bound(change.low) + " and " + bound(change.high), ToText(change.quantity),
             (change.kind == Diff::Kind::Request ? "request " : "") + NameOf(names, change.name)});
    }
    if (diff.changes.empty())
        out << "Nothing changed that is more than noise.\n\n";
    else
        table.Print(out, style);
    out << Colored(
               style, dim,
               Plural(diff.compared, "comparison", "comparisons") + " over " +
                   Plural(diff.parts, diff.areRequests ? "request" : "part of requests",
                          diff.areRequests ? "requests" : "parts of requests") +
                   "; labels by their self time" +
                   (diff.tooFew > 0 ? "; " + Count(diff.tooFew) + " with too few samples" : "") +
                   (diff.othersMoved > 0.05
                        ? "; half of the labels moved by " + Percent(diff.othersMoved) +
                              " or more: the two runs differ as a whole"
                        : ""))
        << '\n';
}

void PrintText(std::ostream& out, const Check& check, const Names& names, const Style& style) {
    if (check.IsWell()) {
        out << "All is well.\n";
        return;
    }
    const auto heading = [&](std::uint64_t number, const char* one, const char* many) {
        out << Colored(style, red, Plural(number, one, many)) << '\n';
    };
    if (!check.neverOpened.empty()) {
        heading(check.neverOpened.size(), "context was created and never opened: lost work",
                "contexts were created and never opened: lost work");
        Table table({"context", "created by"});
        for (const Check::NeverOpened& context : check.neverOpened)
            table.Add({std::to_string(context.context), NameOf(names, context.parent)});
        table.Print(out, style);
    }
    if (!check.openAtEnd.empty()) {
        heading(check.openAtEnd.size(), "context is open at the end",
                "contexts are open at the end");
        Table table({"context", "for", "name, and innermost scope"});
        for (const Check::Unfinished& context : check.openAtEnd)
            table.Add(
                {std::to_string(context.context), Time(context.age),
                 NameOf(names, context.name) + ", " +
                     (context.scope == noName ? "in no scope" : NameOf(names, context.scope))});
        table.Print(out, style);
    }
    if (check.unmatchedScopes != 0) {
        heading(check.unmatchedScopes, "scope has no end or no beginning",
                "scopes have no end or no beginning");
        Table table({"count", "label"});
        for (const auto& [label, count] : check.unmatchedByLabel)
            table.Add({Count(count), NameOf(names, label)});
        table.Print(out, style);
    }
    if (!check.unreadableLines.empty()) {
        heading(check.unreadableLines.size(), "line is no event", "lines are no events");
        Table table({"line"});
        for (const std::uint64_t line : check.unreadableLines)
            table.Add({std::to_string(line)});
        table.Print(out, style);
    }
    if (check.truncated)
        out << Colored(style, red, "The last line is cut short.") << "\n\n";
    if (check.lost != 0)
        heading(check.lost, "event was lost", "events were lost");
}

void PrintText(std::ostream& out, const Top& top, const Style& style) {
    const double seconds = std::max(static_cast<double>(top.interval), 1.0) / 1e9;
    out << Format("%.0f events/s  %.1f requests/s", static_cast<double>(top.events) / seconds,
                  static_cast<double>(top.requestsEnded) / seconds)
        << "  p50 " << Time(top.requestP50) << "  p99 " << Time(top.requestP99) << "  "
        << Count(top.inFlight.size()) << " in flight  " << Count(top.waiting) << " waiting\n\n";
    Table labels({"per s", "total", "p50", "p99", "max", "label"});
    for (const Top::Label& label : top.labels)
        labels.Add({Format("%.1f", static_cast<double>(label.ended) / seconds), Time(label.total),
                    Time(label.p50), Time(label.p99), Time(label.max), Printable(label.label)});
    labels.Print(out, style);
    Table inFlight({"age", "context", "request", "in"});
    for (const Top::InFlight& request : top.inFlight)
        inFlight.Add({Time(request.age), std::to_string(request.context), Printable(request.name),
                      Printable(request.scope)});
    inFlight.Print(out, style);
}

} // namespace Metrics::tools
