#include "ModelBuilder.h"

#include <charconv>
#include <utility>

namespace Metrics::tools {

namespace {

/// How far the ids may run ahead of the contexts that were seen, and still be looked up by index.
constexpr std::uint64_t denseRoom = 1 << 20;

std::int64_t ToThread(std::string_view text) {
    std::int64_t number = noThread;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? number : noThread;
}

/// Sorts by context, and keeps the order within each. The range of each is told by `first` and
/// `count`, which are members of Context.
/// @return where each item went.
template <class Item>
std::vector<Index> Group(std::vector<Item>& items, std::vector<Context>& contexts,
                         Index Context::*first, Index Context::*count) {
    for (const Item& item : items)
        ++(contexts[item.context].*count);
    Index next = 0;
    for (Context& context : contexts) {
        context.*first = next;
        next += context.*count;
        context.*count = 0;
    }
    std::vector<Index> places(items.size());
    std::vector<Item> sorted(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        Context& context = contexts[items[i].context];
        places[i] = context.*first + context.*count;
        ++(context.*count);
        sorted[places[i]] = items[i];
    }
    items = std::move(sorted);
    return places;
}

} // namespace

ModelBuilder::ModelBuilder(Names& names, std::string path)
    : m_names(&names), m_pid(names.Add("pid")), m_tid(names.Add("tid")), m_cid(names.Add("cid")) {
    m_run.path = std::move(path);
}

void ModelBuilder::Add(const Event& event) {
    if (m_run.events++ == 0)
        m_run.wallOffset =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(event.wall) - event.stamp);
    m_run.begin = std::min(m_run.begin, event.stamp);
    m_run.end = std::max(m_run.end, event.stamp);
    switch (event.type) {
    case EventType::ContextCreated:
    case EventType::ContextOpened:
    case EventType::ContextClosed:
        AddLifecycle(event);
        break;
    case EventType::ScopeOpened:
        AddScope(event);
        break;
    case EventType::ScopeClosed:
        EndScope(event);
        break;
    case EventType::Custom:
        if (event.context == 0 && event.first == "lost") { // the library's own
            const std::int64_t lost = ToThread(event.second);
            m_run.lost += lost > 0 ? static_cast<std::uint64_t>(lost) : 0;
            break;
        }
        m_run.customs.push_back({event.stamp, FindOrAdd(event.context),
                                 m_run.texts.Keep(event.first), m_run.texts.Keep(event.second)});
        break;
    case EventType::Attribute:
        AddAttribute(event);
        break;
    }
}

Index ModelBuilder::Find(std::uint64_t id) const {
    if (id < m_dense.size() && m_dense[id] != none)
        return m_dense[id];
    const auto found = m_sparse.find(id);
    return found == m_sparse.end() ? none : found->second;
}

Index ModelBuilder::FindOrAdd(std::uint64_t id) {
    const bool isDense = id < m_run.contexts.size() * 4 + denseRoom;
    if (isDense && id >= m_dense.size())
        m_dense.resize(std::max<std::size_t>(id + 1, m_dense.size() * 2), none);
    Index& index = isDense ? m_dense[id] : m_sparse.try_emplace(id, none).first->second;
    if (index != none)
        return index;
    if (isDense && !m_sparse.empty()) { // it was too far ahead when it came first
        const auto found = m_sparse.find(id);
        if (found != m_sparse.end())
            return index = found->second;
    }
    index = static_cast<Index>(m_run.contexts.size());
    m_run.contexts.emplace_back().id = id;
    m_innermost.push_back(none);
    return index;
}

NameId ModelBuilder::Name(std::string_view text) {
    if (m_lastName == noName || (*m_names)[m_lastName] != text)
        m_lastName = m_names->Add(text);
    return m_lastName;
}

void ModelBuilder::AddLifecycle(const Event& event) {
    const Index index = FindOrAdd(event.id);
    const Index parent = event.context == 0 ? none : FindOrAdd(event.context);
    Context& context = m_run.contexts[index];
    context.parentId = event.context;
    context.parent = parent == index ? none : parent;
    if (event.type == EventType::ContextCreated) {
        if (context.created == never)
            context.created = event.stamp;
        if (m_run.client == none && event.context == 0)
            m_run.client = index;
    } else if (event.type == EventType::ContextOpened) {
        if (context.opened == never) {
            context.opened = event.stamp;
            context.openedIn = parent == none ? none : m_innermost[parent];
        }
    } else if (context.closed == never) {
        context.closed = event.stamp;
        std::erase_if(m_announced, [=](const Announced& a) { return a.context == index; });
    }
}

void ModelBuilder::AddScope(const Event& event) {
    const Index index = FindOrAdd(event.context);
    const auto scope = static_cast<Index>(m_run.scopes.size());
    const NameId label = Name(event.first);

    const auto announced = std::find_if(m_announced.rbegin(), m_announced.rend(),
                                        [=](const Announced& a) { return a.in == index; });
    if (announced != m_announced.rend()) {
        m_run.contexts[announced->context].name = label;
        m_announced.erase(std::next(announced).base());
    } else {
        Context& context = m_run.contexts[index];
        // Where nothing was recorded before it, the first scope is the context's own.
        if (context.name == noName && context.opened != never && context.scopeCount == 0)
            context.name = label;
    }
    m_run.contexts[index].scopeCount = 1; // counted in the end; until then it tells of the first
    m_below.push_back(m_innermost[index]);
    m_run.scopes.push_back({event.stamp, never, label, index, m_innermost[index]});
    m_innermost[index] = scope;
}

void ModelBuilder::EndScope(const Event& event) {
    const Index index = FindOrAdd(event.context);
    const NameId label = Name(event.first);
    Index* link = &m_innermost[index];
    while (*link != none && m_run.scopes[*link].label != label)
        link = &m_below[*link];
    if (*link != none) {
        m_run.scopes[*link].end = event.stamp;
        *link = m_below[*link];
        return;
    }
    ++m_run.unmatchedEnds;
    m_below.push_back(none);
    m_run.scopes.push_back({never, event.stamp, label, index, none});
}

void ModelBuilder::AddAttribute(const Event& event) {
    const Index index = FindOrAdd(event.context);
    const NameId name = Name(event.first);
    if (name == m_cid && Announce(event, index))
        return;
    if (name == m_pid || name == m_tid) {
        Context& context = m_run.contexts[index];
        const std::int64_t number = ToThread(event.second);
        if (name == m_pid && m_run.pid == noThread)
            m_run.pid = number;
        if (name == m_pid && number == m_run.pid && number != noThread)
            return;
        if (name == m_tid && context.name == noName) {
            context.tid = number;
            return;
        }
        if (name == m_tid)
            m_foreignTid = {index, number, m_run.attributes.size()};
    }
    m_run.attributes.push_back({event.stamp, index, name, m_run.texts.Keep(event.second)});
}

/// What a context records on its first use ends in its cid. It does so in the context that is
/// current, which need not be itself.
/// @return whether that is what this is: applications have attributes of this name too.
bool ModelBuilder::Announce(const Event& event, Index index) {
    const std::int64_t id = ToThread(event.second);
    const Index own = id <= 0 ? none : Find(static_cast<std::uint64_t>(id));
    if (own == none || m_run.contexts[own].name != noName)
        return false;
    Context& context = m_run.contexts[own];
    if (own != index) {
        if (context.opened == never || context.closed != never)
            return false;
        context.tid = m_run.contexts[index].tid;
        if (m_foreignTid.in == index) { // it need not be the thread that first used this one
            context.tid = m_foreignTid.tid;
            if (m_foreignTid.attribute + 1 == m_run.attributes.size())
                m_run.attributes.pop_back();
        }
    }
    m_announced.push_back({index, own});
    return true;
}

Run ModelBuilder::Finish(Damage damage) {
    m_run.damage = std::move(damage);
    CutCircles();
    SettleParents();
    GroupByContext();
    return std::move(m_run);
}

/// A damaged file may hold contexts that are their own ancestors; nobody could walk through them.
void ModelBuilder::CutCircles() {
    std::vector<Index> seenFrom(m_run.contexts.size(), none);
    for (Index i = 0; i < seenFrom.size(); ++i) {
        Index at = i;
        for (; at != none && seenFrom[at] == none; at = m_run.contexts[at].parent)
            seenFrom[at] = i;
        if (at != none && seenFrom[at] == i)
            m_run.contexts[at].parent = m_run.contexts[at].openedIn = none;
    }
}

void ModelBuilder::SettleParents() {
    // In a context that was closed, a scope without an end covers nothing. What was taken to be
    // nested in it stands in the next one around that was open at that time.
    for (Scope& scope : m_run.scopes) {
        if (m_run.contexts[scope.context].closed == never)
            continue;
        while (scope.parent != none) {
            const Scope& parent = m_run.scopes[scope.parent];
            if (parent.end != never && (parent.end >= scope.start || scope.start == never))
                break;
            scope.parent = parent.parent;
        }
    }
    for (Context& context : m_run.contexts) {
        if (context.parent == none || m_run.contexts[context.parent].closed == never)
            continue;
        while (context.openedIn != none) {
            const Scope& scope = m_run.scopes[context.openedIn];
            if (scope.end != never && scope.end >= context.opened)
                break;
            context.openedIn = scope.parent;
        }
    }
}

void ModelBuilder::GroupByContext() {
    std::vector<Context>& contexts = m_run.contexts;
    for (Context& context : contexts)
        context.scopeCount = 0;
    const std::vector<Index> places =
        Group(m_run.scopes, contexts, &Context::firstScope, &Context::scopeCount);
    for (Scope& scope : m_run.scopes)
        scope.parent = scope.parent == none ? none : places[scope.parent];
    for (Context& context : contexts)
        context.openedIn = context.openedIn == none ? none : places[context.openedIn];
    Group(m_run.attributes, contexts, &Context::firstAttribute, &Context::attributeCount);
    Group(m_run.customs, contexts, &Context::firstCustom, &Context::customCount);

    for (const Context& context : contexts)
        if (context.parent != none)
            ++contexts[context.parent].childCount;
    Index next = 0;
    for (Context& context : contexts) {
        context.firstChild = next;
        next += context.childCount;
        context.childCount = 0;
    }
    m_run.children.resize(next);
    for (Index i = 0; i < contexts.size(); ++i)
        if (contexts[i].parent != none) {
            Context& parent = contexts[contexts[i].parent];
            m_run.children[parent.firstChild + parent.childCount++] = i;
        }
}

} // namespace Metrics::tools
