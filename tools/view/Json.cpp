#include "Views.h"

#include <string>

namespace Metrics::tools {

namespace {

Json Text(std::string_view text) {
    return std::string(text); // what is no UTF-8 is replaced where it is written out
}

Json NameOf(const Names& names, NameId id) {
    return id == noName ? Json() : Text(names[id]);
}

template <class Number>
Json OrNull(const std::optional<Number>& number) {
    return number ? Json(*number) : Json();
}

Json Time(std::uint64_t time) {
    return time == never ? Json() : Json(time);
}

Json ToJson(const ScopeTree& tree, const Names& names) {
    const Scope& scope = *tree.scope;
    Json nested = Json::array();
    for (const ScopeTree& inner : tree.scopes)
        nested.push_back(ToJson(inner, names));
    return {{"label", NameOf(names, scope.label)},
            {"start_ns", Time(scope.start)},
            {"duration_ns", scope.IsWhole() ? Json(scope.Duration()) : Json()},
            {"scopes", std::move(nested)}};
}

Json ToJson(const ContextTree& tree, const Names& names, bool withEvents) {
    const Context& context = *tree.context;
    Json scopes = Json::array();
    for (const ScopeTree& scope : tree.scopes)
        scopes.push_back(ToJson(scope, names));
    Json children = Json::array();
    for (const ContextTree& child : tree.children)
        children.push_back(ToJson(child, names, withEvents));
    Json json = {{"context", context.id},
                 {"name", NameOf(names, context.name)},
                 {"start_ns", Time(context.opened)},
                 {"duration_ns", context.IsWhole() ? Json(context.Duration()) : Json()},
                 {"wait_ns", context.HasWait() ? Json(context.Wait()) : Json()},
                 {"tid", context.tid == noThread ? Json() : Json(context.tid)}};
    if (withEvents) {
        Json attributes = Json::array();
        for (const Attribute& attribute : tree.run->AttributesOf(context))
            attributes.push_back({{"time_ns", attribute.stamp},
                                  {"name", NameOf(names, attribute.name)},
                                  {"value", Text(attribute.value)}});
        json["attributes"] = std::move(attributes);
        Json events = Json::array();
        for (const CustomEvent& event : tree.run->CustomsOf(context))
            events.push_back({{"time_ns", event.stamp},
                              {"first", Text(event.first)},
                              {"second", Text(event.second)}});
        json["events"] = std::move(events);
    }
    json["scopes"] = std::move(scopes);
    json["children"] = std::move(children);
    return json;
}

const char* ToText(Diff::Kind kind) {
    return kind == Diff::Kind::Request ? "request" : "label";
}

const char* ToText(Diff::Quantity quantity) {
    switch (quantity) {
    case Diff::Quantity::P50:
        return "p50";
    case Diff::Quantity::P99:
        return "p99";
    case Diff::Quantity::Total:
        break;
    }
    return "total";
}

} // namespace

Json ToJson(const Report& report, const Names& names) {
    Json requests = Json::array();
    for (const auto& [name, times] : report.requests)
        requests.push_back({{"name", NameOf(names, name)},
                            {"count", times.count},
                            {"p50_ns", OrNull(times.p50)},
                            {"p90_ns", OrNull(times.p90)},
                            {"p99_ns", OrNull(times.p99)},
                            {"p999_ns", OrNull(times.p999)},
                            {"max_ns", times.max}});
    Json labels = Json::array();
    for (const Report::Label& label : report.labels)
        labels.push_back({{"label", NameOf(names, label.label)},
                          {"count", label.durations.count},
                          {"total_ns", label.total},
                          {"self_ns", label.self},
                          {"p50_ns", OrNull(label.durations.p50)},
                          {"p99_ns", OrNull(label.durations.p99)},
                          {"max_ns", label.durations.max}});
    Json handovers = Json::array();
    for (const Report::Handover& handover : report.handovers)
        handovers.push_back({{"name", NameOf(names, handover.name)},
                             {"count", handover.waits.count},
                             {"p50_ns", OrNull(handover.waits.p50)},
                             {"p99_ns", OrNull(handover.waits.p99)},
                             {"max_ns", handover.waits.max},
                             {"most_waiting", handover.mostWaiting}});
    Json threads = Json::array();
    for (const Report::Thread& thread : report.threads)
        threads.push_back({{"tid", thread.tid}, {"busy_ns", thread.busy}});
    Json tail = Json::array();
    for (const Report::TailPart& part : report.tail)
        tail.push_back(
            {{"request", NameOf(names, part.request)},
             {"part", part.part == Report::TailPart::waiting ? Json("waiting to be opened")
                                                             : NameOf(names, part.part)},
             {"median_ns", part.median},
             {"tail_ns", part.tail}});
    return {{"runs", report.runs},
            {"events", report.events},
            {"requests", std::move(requests)},
            {"labels", std::move(labels)},
            {"handovers", std::move(handovers)},
            {"threads", std::move(threads)},
            {"tail", std::move(tail)}};
}

Json ToJson(const std::vector<ContextTree>& trees, const Names& names, bool withEvents) {
    Json json = Json::array();
    for (const ContextTree& tree : trees)
        json.push_back(ToJson(tree, names, withEvents));
    return json;
}

Json ToJson(const Diff& diff, const Names& names) {
    Json changes = Json::array();
    for (const Diff::Comparison& change : diff.changes)
        changes.push_back({{"kind", ToText(change.kind)},
                           {"name", NameOf(names, change.name)},
                           {"quantity", ToText(change.quantity)},
                           {"before", change.before},
                           {"after", change.after},
                           {"low", change.low},
                           {"high", change.high}});
    return {{"changes", std::move(changes)}, {"compared", diff.compared}};
}

Json ToJson(const Check& check, const Names& names) {
    Json neverOpened = Json::array();
    for (const Check::NeverOpened& context : check.neverOpened)
        neverOpened.push_back(context.context);
    Json openAtEnd = Json::array();
    for (const Check::Unfinished& context : check.openAtEnd)
        openAtEnd.push_back({{"context", context.context},
                             {"name", NameOf(names, context.name)},
                             {"scope", NameOf(names, context.scope)}});
    return {{"never_opened", std::move(neverOpened)},
            {"open_at_end", std::move(openAtEnd)},
            {"unmatched_scopes", check.unmatchedScopes},
            {"unreadable_lines", check.unreadableLines},
            {"truncated", check.truncated},
            {"lost", check.lost}};
}

Json ToJson(const Top& top) {
    Json labels = Json::array();
    for (const Top::Label& label : top.labels)
        labels.push_back({{"label", label.label},
                          {"count", label.ended},
                          {"total_ns", label.total},
                          {"p50_ns", OrNull(label.p50)},
                          {"p99_ns", OrNull(label.p99)},
                          {"max_ns", label.max}});
    Json inFlight = Json::array();
    for (const Top::InFlight& request : top.inFlight)
        inFlight.push_back({{"context", request.context},
                            {"name", request.name.empty() ? Json() : Json(request.name)},
                            {"scope", request.scope.empty() ? Json() : Json(request.scope)},
                            {"age_ns", request.age}});
    return {{"interval_ns", top.interval},      {"events", top.events},
            {"requests", top.requestsEnded},    {"p50_ns", OrNull(top.requestP50)},
            {"p99_ns", OrNull(top.requestP99)}, {"waiting", top.waiting},
            {"labels", std::move(labels)},      {"in_flight", std::move(inFlight)}};
}

} // namespace Metrics::tools
