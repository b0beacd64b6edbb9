#include "Top.h"

#include <algorithm>
#include <utility>

namespace Metrics::tools {

bool TopFollower::IsRequest(std::uint64_t id, const LiveContext& context) const {
    return id != m_client && (context.parent == 0 || context.parent == m_client);
}

void TopFollower::Add(const Event& event) {
    if (m_events++ == 0 && m_now == 0)
        m_lastTake = event.stamp;
    m_now = std::max(m_now, event.stamp);
    switch (event.type) {
    case EventType::ContextCreated:
        if (m_client == 0 && event.context == 0)
            m_client = event.id;
        m_live[event.id].parent = event.context;
        break;
    case EventType::ContextOpened: {
        LiveContext& context = m_live[event.id];
        context.parent = event.context;
        context.opened = event.stamp;
        context.isOpen = true;
        break;
    }
    case EventType::ContextClosed: {
        const auto found = m_live.find(event.id);
        if (found == m_live.end())
            break;
        const LiveContext& context = found->second;
        if (context.isOpen && IsRequest(event.id, context))
            m_requests.push_back(event.stamp - std::min(event.stamp, context.opened));
        m_live.erase(found);
        break;
    }
    case EventType::ScopeOpened: {
        const auto found = m_live.find(event.context);
        if (found == m_live.end())
            break; // opened before the file began, or closed
        const NameId label = m_names.Add(event.first);
        if (found->second.name == noName)
            found->second.name = label;
        found->second.scopes.push_back({label, event.stamp});
        break;
    }
    case EventType::ScopeClosed:
        EndScope(event);
        break;
    case EventType::Custom:
    case EventType::Attribute:
        break;
    }
}

void TopFollower::EndScope(const Event& event) {
    const auto found = m_live.find(event.context);
    if (found == m_live.end())
        return;
    std::vector<OpenScope>& scopes = found->second.scopes;
    const NameId label = m_names.Find(event.first);
    const auto scope = std::find_if(scopes.rbegin(), scopes.rend(),
                                    [=](const OpenScope& open) { return open.label == label; });
    if (scope == scopes.rend())
        return;
    const Nanoseconds duration = event.stamp - std::min(event.stamp, scope->start);
    scopes.erase(std::next(scope).base());
    Ended& ended = m_ended[label];
    ended.durations.push_back(duration);
    const bool isRecursive = std::any_of(
        scopes.begin(), scopes.end(), [=](const OpenScope& open) { return open.label == label; });
    ended.total += isRecursive ? 0 : duration;
}

Top TopFollower::Take() {
    Top top;
    top.interval = m_now - m_lastTake;
    top.events = std::exchange(m_events, 0);
    m_lastTake = m_now;

    const Distribution requests = Distribute(m_requests);
    top.requestsEnded = requests.count;
    top.requestP50 = requests.p50;
    top.requestP99 = requests.p99;
    m_requests.clear();

    for (auto& [label, ended] : m_ended) {
        const Distribution scopes = Distribute(ended.durations);
        top.labels.push_back({std::string(m_names[label]), scopes.count, ended.total, scopes.p50,
                              scopes.p99, scopes.max});
    }
    m_ended.clear();
    std::sort(top.labels.begin(), top.labels.end(), [](const Top::Label& a, const Top::Label& b) {
        return a.total != b.total ? a.total > b.total : a.label < b.label;
    });

    for (const auto& [id, context] : m_live) {
        if (!context.isOpen && id != m_client)
            ++top.waiting;
        if (context.isOpen && IsRequest(id, context))
            top.inFlight.push_back({id, std::string(m_names[context.name]),
                                    context.scopes.empty()
                                        ? std::string()
                                        : std::string(m_names[context.scopes.back().label]),
                                    m_now - std::min(m_now, context.opened)});
    }
    std::sort(top.inFlight.begin(), top.inFlight.end(),
              [](const Top::InFlight& a, const Top::InFlight& b) {
                  return a.age != b.age ? a.age > b.age : a.context < b.context;
              });
    return top;
}

} // namespace Metrics::tools
