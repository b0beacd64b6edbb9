#include "Span.h"

#include <algorithm>

namespace Metrics::tools {

void AttributeList::Clear() {
    m_attributes.clear();
    m_places.clear();
}

void AttributeList::Set(std::string_view name, std::string_view value) {
    std::size_t place = m_attributes.size();
    if (place <= fewNames) {
        const auto found = std::find_if(m_attributes.begin(), m_attributes.end(),
                                        [&](const SpanAttribute& a) { return a.name == name; });
        place = static_cast<std::size_t>(found - m_attributes.begin());
    } else {
        if (m_places.empty())
            for (std::size_t i = 0; i < m_attributes.size(); ++i)
                m_places.emplace(m_attributes[i].name, i);
        place = m_places.try_emplace(name, place).first->second;
    }
    if (place == m_attributes.size())
        m_attributes.push_back({name, value});
    else
        m_attributes[place].value = value;
}

std::vector<Index> Roots(const Run& run) {
    std::vector<Index> roots(run.contexts.size(), none);
    std::vector<Index> path;
    for (Index i = 0; i < roots.size(); ++i) {
        Index at = i;
        while (roots[at] == none) {
            const Index parent = run.contexts[at].parent;
            if (at == run.client || parent == none || parent == run.client) {
                roots[at] = at;
                break;
            }
            path.push_back(at);
            at = parent;
        }
        for (; !path.empty(); path.pop_back())
            roots[path.back()] = roots[at];
    }
    return roots;
}

namespace {

/// Yields the spans of one run.
class Spans {
public:
    Spans(const Model& model, const Run& run, const SpanIds& ids, const SpanSink& sink)
        : m_model(model),
          m_run(run),
          m_ids(ids),
          m_sink(sink),
          m_roots(Roots(run)),
          m_trees(run.contexts.size()) {
        m_given = model.names.Find(givenTraceParent);
        m_sent = model.names.Find(sentTraceParent);
        for (Index i = 0; i < m_roots.size(); ++i)
            if (m_roots[i] == i)
                m_trees[i] =
                    IdentifyTree(ids, run.contexts[i].id, FindHeader(run.contexts[i], m_given),
                                 FindHeader(run.contexts[i], m_sent));
    }

    void YieldAll() {
        for (Index i = 0; i < m_run.contexts.size(); ++i) {
            const Context& context = m_run.contexts[i];
            const bool isEmpty =
                context.scopeCount == 0 && context.attributeCount == 0 && context.customCount == 0;
            if (i != m_run.client || !isEmpty)
                Yield(i);
        }
    }

private:
    std::optional<TraceParent> FindHeader(const Context& context, NameId name) const {
        if (name == noName)
            return std::nullopt;
        for (const Attribute& attribute : m_run.AttributesOf(context)) {
            if (attribute.name != name)
                continue;
            const std::optional<TraceParent> header = ParseTraceParent(attribute.value);
            if (header)
                return header;
        }
        return std::nullopt;
    }

    /// Of a context whose opening is not in the file.
    std::uint64_t FirstKnown(const Context& context) const {
        if (context.created != never)
            return context.created;
        std::uint64_t first = context.closed;
        for (const Scope& scope : m_run.ScopesOf(context))
            first = std::min({first, scope.start, scope.end});
        for (const Attribute& attribute : m_run.AttributesOf(context))
            first = std::min(first, attribute.stamp);
        for (const CustomEvent& event : m_run.CustomsOf(context))
            first = std::min(first, event.stamp);
        for (const Index child : m_run.ChildrenOf(context))
            first = std::min({first, m_run.contexts[child].created, m_run.contexts[child].opened});
        return first == never ? m_run.begin : first;
    }

    void Yield(Index index) {
        const Context& context = m_run.contexts[index];
        const TreeIdentity& tree = m_trees[m_roots[index]];
        const bool isRoot = m_roots[index] == index;

        Span span;
        span.kind = SpanKind::Context;
        span.trace = tree.trace;
        span.id = isRoot ? tree.root : m_ids.OfContext(context.id);
        span.parent = isRoot ? tree.parent
                      : m_roots[context.parent] == context.parent
                          ? tree.root
                          : m_ids.OfContext(m_run.contexts[context.parent].id);
        span.root = tree.root;
        span.context = context.id;
        span.label = m_model.names[context.name];
        span.thread = context.tid;
        span.created = context.created;
        span.hasStart = context.opened != never;
        span.start = span.hasStart ? context.opened : FirstKnown(context);
        span.hasEnd = context.closed != never;
        span.end = std::max(span.start, span.hasEnd ? context.closed : m_run.end);
        span.piece = index;
        m_attributes.Clear();
        for (const Attribute& attribute : m_run.AttributesOf(context))
            m_attributes.Set(m_model.names[attribute.name], attribute.value);
        span.attributes = m_attributes.Get();
        m_events.clear();
        for (const CustomEvent& event : m_run.CustomsOf(context))
            m_events.push_back({event.stamp, event.first, event.second});
        span.events = m_events;
        m_sink(span);

        Span part;
        part.trace = span.trace;
        part.root = span.root;
        part.context = span.context;
        part.thread = span.thread;
        if (context.created != never && index != m_run.client) {
            part.kind = SpanKind::Queue;
            part.id = m_ids.OfQueue(context.id);
            part.parent = span.id;
            part.label = span.label;
            part.created = part.start = context.created;
            part.hasEnd = span.hasStart;
            part.end = std::max(part.start, part.hasEnd ? context.opened : span.end);
            part.piece = index;
            m_sink(part);
        }
        part.kind = SpanKind::Scope;
        part.created = never;
        m_ordinals.assign(context.scopeCount, 0);
        std::uint64_t ordinal = 0;
        for (Index i = 0; i < context.scopeCount; ++i) {
            const Scope& scope = m_run.scopes[context.firstScope + i];
            if (scope.start == never)
                continue;
            m_ordinals[i] = ordinal++;
            part.id = m_ids.OfScope(context.id, m_ordinals[i]);
            part.parent =
                scope.parent == none
                    ? span.id
                    : m_ids.OfScope(context.id, m_ordinals[scope.parent - context.firstScope]);
            part.label = m_model.names[scope.label];
            part.start = scope.start;
            part.hasEnd = scope.end != never;
            part.end = std::max(scope.start, part.hasEnd ? scope.end : span.end);
            part.piece = context.firstScope + i;
            m_sink(part);
        }
    }

    const Model& m_model;
    const Run& m_run;
    const SpanIds& m_ids;
    const SpanSink& m_sink;
    std::vector<Index> m_roots;
    std::vector<TreeIdentity> m_trees; ///< of the roots
    NameId m_given = noName;
    NameId m_sent = noName;
    AttributeList m_attributes;
    std::vector<SpanEvent> m_events;
    std::vector<std::uint64_t> m_ordinals; ///< of one context's scopes
};

} // namespace

void ForEachSpan(const Model& model, const Run& run, const SpanIds& ids, const SpanSink& sink) {
    Spans(model, run, ids, sink).YieldAll();
}

} // namespace Metrics::tools
