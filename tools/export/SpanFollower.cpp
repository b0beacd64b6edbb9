#include "SpanFollower.h"

#include <algorithm>
#include <charconv>

namespace Metrics::tools {

namespace {

constexpr std::size_t fewAttributes = 16; ///< are found by looking at all

std::int64_t ToThread(std::string_view text) {
    std::int64_t number = noThread;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? number : noThread;
}

} // namespace

bool TraceHeaders::Take(std::string_view name, std::string_view value) {
    const bool isGiven = name == givenTraceParent;
    if (!isGiven && name != sentTraceParent)
        return false;
    std::optional<TraceParent>& header = isGiven ? given : sent;
    if (!header)
        header = ParseTraceParent(value);
    return true;
}

SpanFollower::SpanFollower(RunIdentity identity, Limits limits, HeadersByContext known, Sink sink)
    : m_identity(std::move(identity)),
      m_limits(limits),
      m_known(std::move(known)),
      m_sink(std::move(sink)) {
    m_identity.pid = noThread;
}

SpanFollower::~SpanFollower() {
    for (const std::shared_ptr<Tree>& tree : m_unsettled) // those that hold anything
        tree->held.clear();
}

void SpanFollower::Add(const Event& event) {
    if (!m_hasEvents) {
        m_identity.start =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(event.wall) - event.stamp);
        m_hasEvents = true;
    }
    m_last = std::max(m_last, event.stamp);
    switch (event.type) {
    case EventType::ContextCreated:
    case EventType::ContextOpened:
    case EventType::ContextClosed:
        AddLifecycle(event);
        break;
    case EventType::ScopeOpened:
        BeginScope(event);
        break;
    case EventType::ScopeClosed:
        EndScope(event);
        break;
    case EventType::Custom: {
        if (event.context == 0 && event.first == "lost") // the library's own
            break;
        const LivePointer context = FindOpen(event);
        if (context == nullptr)
            break;
        if (context->events.size() < m_limits.events)
            context->events.push_back(
                {event.stamp, std::string(event.first), std::string(event.second)});
        else
            ++context->droppedEvents;
        break;
    }
    case EventType::Attribute:
        AddAttribute(event);
        break;
    }
    SettleDue();
}

SpanFollower::LivePointer SpanFollower::FindOrAdd(std::uint64_t id, std::uint64_t stamp) {
    LivePointer& context = m_live[id];
    if (context == nullptr) {
        context = std::make_shared<LiveContext>();
        context->id = id;
        context->firstKnown = stamp;
        context->tree = MakeTree(id);
    }
    return context;
}

SpanFollower::LivePointer SpanFollower::FindOpen(const Event& event) {
    const auto found = m_live.find(event.context);
    if (found != m_live.end())
        return found->second;
    return m_closed.contains(event.context) ? nullptr : FindOrAdd(event.context, event.stamp);
}

std::shared_ptr<SpanFollower::Tree> SpanFollower::MakeTree(std::uint64_t root) {
    auto tree = std::make_shared<Tree>();
    tree->root = root;
    const auto known = m_known.find(root);
    if (known != m_known.end())
        tree->headers = known->second;
    return tree;
}

void SpanFollower::StartWaiting(const std::shared_ptr<Tree>& tree, std::uint64_t stamp) {
    if (tree->begin != never)
        return;
    tree->begin = stamp;
    m_unsettled.push_back(tree);
}

void SpanFollower::SetParent(LiveContext& context, std::uint64_t parent, std::uint64_t stamp) {
    if (context.parent == parent || parent == context.id)
        return;
    context.parent = parent;
    if (parent == 0 || parent == m_client)
        return; // a root
    const auto closed = m_closed.find(parent);
    const std::shared_ptr<Tree> tree =
        closed != m_closed.end() ? closed->second : FindOrAdd(parent, stamp)->tree;
    if (context.tree->root == context.id && context.tree->begin == never)
        context.tree = tree; // its own was none
}

void SpanFollower::AddLifecycle(const Event& event) {
    const LivePointer context = FindOrAdd(event.id, event.stamp);
    if (event.type == EventType::ContextCreated && m_client == 0 && event.context == 0)
        m_client = event.id;
    SetParent(*context, event.context, event.stamp);
    if (event.type == EventType::ContextCreated) {
        if (context->created == never)
            context->created = event.stamp;
    } else if (event.type == EventType::ContextOpened) {
        if (context->opened == never)
            context->opened = event.stamp;
        if (context->tree->root == context->id)
            StartWaiting(context->tree, event.stamp);
    } else {
        context->closed = event.stamp;
        End(context);
    }
}

void SpanFollower::BeginScope(const Event& event) {
    const LivePointer context = FindOpen(event);
    if (context == nullptr)
        return;
    const auto announced = std::find_if(m_announced.rbegin(), m_announced.rend(),
                                        [&](const auto& a) { return a.first == event.context; });
    if (announced != m_announced.rend()) {
        const auto own = m_live.find(announced->second);
        if (own != m_live.end())
            own->second->name = event.first;
        m_announced.erase(std::next(announced).base());
    } else if (!context->name && context->opened != never && context->scopesBegun == 0) {
        // Where nothing was recorded before it, the first scope is the context's own.
        context->name = event.first;
    }
    const std::uint64_t parent = context->open.empty() ? never : context->open.back().ordinal;
    context->open.push_back(
        {std::string(event.first), event.stamp, context->scopesBegun++, parent});
}

void SpanFollower::EndScope(const Event& event) {
    const LivePointer context = FindOpen(event);
    if (context == nullptr)
        return;
    std::vector<LiveScope>& open = context->open;
    const auto scope = std::find_if(open.rbegin(), open.rend(), [&](const LiveScope& candidate) {
        return candidate.label == event.first;
    });
    if (scope == open.rend())
        return;
    Ended ended{SpanKind::Scope, context, std::move(*scope), event.stamp};
    open.erase(std::next(scope).base());
    Yield(std::move(ended));
}

void SpanFollower::AddAttribute(const Event& event) {
    const LivePointer context = FindOpen(event);
    if (context == nullptr)
        return;
    if (event.first == "cid" && Announce(event, context))
        return;
    const bool isThread = event.first == "tid";
    if (isThread || event.first == "pid") {
        const std::int64_t number = ToThread(event.second);
        if (!isThread && m_identity.pid == noThread && !m_ids) {
            m_identity.pid = number;
            if (number != noThread)
                m_ids.emplace(m_identity);
        }
        if (!isThread && number == m_identity.pid && number != noThread)
            return;
        if (isThread && !context->name) {
            context->tid = number;
            return;
        }
        if (isThread)
            m_foreignTid = {event.context, number, false};
    }
    const std::size_t count = context->attributes.size();
    SetAttribute(*context, event.first, event.second);
    m_foreignTid.isLast = isThread && context->attributes.size() > count;
    if (context->tree->root == context->id &&
        context->tree->headers.Take(event.first, event.second))
        context->tree->hasHeader = true;
}

/// What a context records on its first use ends in its cid. It does so in the context that is
/// current, which need not be itself.
/// @return whether that is what this is: applications have attributes of this name too.
bool SpanFollower::Announce(const Event& event, const LivePointer& context) {
    const std::int64_t id = ToThread(event.second);
    const auto found = id <= 0 ? m_live.end() : m_live.find(static_cast<std::uint64_t>(id));
    if (found == m_live.end() || found->second->name)
        return false;
    LiveContext& own = *found->second;
    if (&own != context.get()) {
        if (own.opened == never)
            return false;
        own.tid = context->tid;
        if (m_foreignTid.in == context->id) { // it need not be the thread that first used this one
            own.tid = m_foreignTid.tid;
            if (m_foreignTid.isLast)
                context->attributes.pop_back();
            m_foreignTid.isLast = false;
        }
    }
    m_announced.emplace_back(context->id, own.id);
    return true;
}

void SpanFollower::SetAttribute(LiveContext& context, std::string_view name,
                                std::string_view value) const {
    auto& attributes = context.attributes;
    std::size_t place = attributes.size();
    if (place <= fewAttributes) {
        const auto found = std::find_if(attributes.begin(), attributes.end(),
                                        [&](const auto& a) { return a.first == name; });
        place = static_cast<std::size_t>(found - attributes.begin());
    } else {
        for (std::size_t i = context.places.size(); i < attributes.size(); ++i)
            context.places.emplace(attributes[i].first, i);
        const auto found = context.places.find(std::string(name));
        place = found == context.places.end() ? place : found->second;
    }
    if (place < attributes.size())
        attributes[place].second = value;
    else if (place < m_limits.attributes)
        attributes.emplace_back(name, value);
}

/// Yields a context, and what is open in it.
void SpanFollower::End(const LivePointer& context) {
    std::erase_if(m_announced, [&](const auto& a) { return a.second == context->id; });
    for (LiveScope& scope : std::exchange(context->open, {}))
        Yield({SpanKind::Scope, context, std::move(scope), never});
    const bool isClient = context->id == m_client && m_client != 0;
    const bool isEmpty =
        context->scopesBegun == 0 && context->attributes.empty() && context->events.empty();
    if (!isClient || !isEmpty)
        Yield({SpanKind::Context, context, {}, context->closed});
    if (!isClient && context->created != never)
        Yield({SpanKind::Queue, context, {}, context->opened});
    if (context->tree->root == context->id)
        context->tree->hasEnded = true;
    if (IsDue(*context->tree))
        Settle(*context->tree);
    if (m_isFinishing)
        return;
    m_closed[context->id] = context->tree;
    m_closedOrder.push_back(context->id);
    if (m_closedOrder.size() > mostRemembered) {
        m_closed.erase(m_closedOrder.front());
        m_closedOrder.pop_front();
    }
    m_live.erase(context->id);
}

void SpanFollower::Yield(Ended ended) {
    ended.number = m_isFinishing ? 0 : ++m_number;
    Tree& tree = *ended.context->tree;
    if (!tree.isSettled && IsDue(tree))
        Settle(tree);
    if (tree.isSettled) {
        YieldNow(ended);
        return;
    }
    StartWaiting(ended.context->tree, m_last);
    tree.held.push_back(std::move(ended));
    m_heldUnnamed += m_ids ? 0 : 1;
    if (m_heldUnnamed >= mostHeld && !m_ids)
        m_ids.emplace(m_identity); // nobody tells the process
}

bool SpanFollower::IsDue(const Tree& tree) const {
    return m_ids && !tree.isSettled &&
           (tree.hasHeader || tree.hasEnded || tree.held.size() >= mostHeld ||
            Between(tree.begin, m_last) >= patience);
}

void SpanFollower::Settle(Tree& tree) {
    tree.identity = IdentifyTree(*m_ids, tree.root, tree.headers.given, tree.headers.sent);
    tree.isSettled = true;
    for (const Ended& ended : std::exchange(tree.held, {}))
        YieldNow(ended);
}

/// Those for which time has passed, in the order of their beginning.
void SpanFollower::SettleDue() {
    while (!m_unsettled.empty()) {
        Tree& tree = *m_unsettled.front();
        if (!tree.isSettled) {
            if (!m_ids || Between(tree.begin, m_last) < patience)
                return;
            Settle(tree);
        }
        m_unsettled.pop_front();
    }
}

void SpanFollower::SettleAll() {
    if (!m_ids)
        return;
    for (const std::shared_ptr<Tree>& tree : std::exchange(m_unsettled, {}))
        if (!tree->isSettled && !tree->held.empty())
            Settle(*tree);
        else if (!tree->isSettled)
            m_unsettled.push_back(tree);
}

void SpanFollower::Finish() {
    m_isFinishing = true;
    if (!m_ids)
        m_ids.emplace(m_identity);
    SettleAll();
    std::vector<LivePointer> open;
    for (const auto& [id, context] : m_live)
        open.push_back(context);
    std::sort(open.begin(), open.end(),
              [](const LivePointer& a, const LivePointer& b) { return a->id < b->id; });
    for (const LivePointer& context : open)
        End(context);
}

void SpanFollower::YieldNow(const Ended& ended) {
    const LiveContext& context = *ended.context;
    const Tree& tree = *context.tree;
    const bool isRoot = tree.root == context.id;
    const SpanId ofContext = isRoot ? tree.identity.root : m_ids->OfContext(context.id);

    Span span;
    span.kind = ended.kind;
    span.trace = tree.identity.trace;
    span.root = tree.identity.root;
    span.context = context.id;
    span.label = context.name ? *context.name : std::string_view();
    span.thread = context.tid;
    span.hasEnd = ended.end != never;
    const std::uint64_t contextEnd = context.closed != never ? context.closed : m_last;
    span.end = span.hasEnd ? ended.end : contextEnd;
    switch (ended.kind) {
    case SpanKind::Context:
        span.id = ofContext;
        span.parent = isRoot                        ? tree.identity.parent
                      : context.parent == tree.root ? tree.identity.root
                                                    : m_ids->OfContext(context.parent);
        span.created = context.created;
        span.hasStart = context.opened != never;
        span.start = span.hasStart              ? context.opened
                     : context.created != never ? context.created
                                                : context.firstKnown;
        m_attributes.clear();
        for (const auto& [name, value] : context.attributes)
            m_attributes.push_back({name, value});
        span.attributes = m_attributes;
        m_events.clear();
        for (const LiveEvent& event : context.events)
            m_events.push_back({event.stamp, event.name, event.value});
        span.events = m_events;
        span.droppedEvents = context.droppedEvents;
        break;
    case SpanKind::Queue:
        span.id = m_ids->OfQueue(context.id);
        span.parent = ofContext;
        span.created = span.start = context.created;
        break;
    case SpanKind::Scope:
        span.id = m_ids->OfScope(context.id, ended.scope.ordinal);
        span.parent = ended.scope.parent == never ? ofContext
                                                  : m_ids->OfScope(context.id, ended.scope.parent);
        span.label = ended.scope.label;
        span.start = ended.scope.start;
        break;
    }
    span.end = std::max(span.start, span.end);
    m_sink(span, ended.number);
}

} // namespace Metrics::tools
