#ifndef METRICS_TESTS_SUPPORT_EXERCISE_H
#define METRICS_TESTS_SUPPORT_EXERCISE_H

#include <metrics/Metrics.h>

#include <atomic>
#include <functional>
#include <string>

/// The library, used in the shortest way.
namespace Metrics::test {

constexpr unsigned int forever = 60'000; // ms; only a test that fails waits that long
constexpr std::uint64_t everyBit = ~std::uint64_t{0};

inline MetricsManager& Manager() {
    return *MetricsManager::GetInstance();
}

inline void Flush() {
    Manager().WaitUntilWritesFlushed(forever);
}

inline MetricsManager& Start() {
    Manager().Enable();
    Manager().SetBits(everyBit);
    return Manager();
}

/// The library in use; taken down before what the consumers refer to, when declared behind it.
struct Session {
    Session() { Start(); }
    ~Session() { MetricsManager::ShutdownAndFreeInstance(); }
};

using Handle = std::function<void(const MetricsEvent&)>;

/// A consumer that does what it is told.
struct Listener final : IMetricsListener {
    explicit Listener(Handle handle) : m_handle(std::move(handle)) {}
    void OnMetricsEvent(const MetricsEvent& event) override { m_handle(event); }
    const Handle m_handle;
};

inline MetricsListenerPtr MakeListener(Handle handle) {
    return korsys::MakeRefCnt<Listener>(std::move(handle));
}

/// Starts the library and registers a new consumer. @return it, or none when it was refused.
inline MetricsListenerPtr Consume(bool synchronous, Handle handle) {
    const auto listener = MakeListener(std::move(handle));
    return Start().AddConsumer(listener, everyBit, synchronous) ? listener : nullptr;
}

/// Emits one event. @return it.
inline auto Send(MetricsValue first, MetricsValue second = {}, std::uint64_t bits = 0,
                 MetricsEventType type = MetricsEventType::Custom) {
    const auto event = MakeMetricsEvent();
    event->eventType = type;
    event->bits = bits;
    event->param1 = std::move(first);
    event->param2 = std::move(second);
    Manager().EmitEvent(event);
    return event;
}

inline bool Open(MetricsRawClient& client, const std::string& path) {
    client.SetOutputFileName(path);
    return client.Open();
}

/// Every way to make contexts, scopes, attributes and events, once.
inline void UseEverything(const std::string& text) {
    Context root(0, Context::Create(true));
    root.SetName(text.c_str());
    root.Emit(text, 1);
    const Scope scope(text, MetricsBits::act);
    scope.Emit(2.5);
    Attribute("name", text, MetricsBits::net);
    if (const auto child = UniqueMetricsContext(true).Open())
        child->AddAttribute("of the child", text);
    if (const auto child = SharedMetricsContext(true).Open())
        child->Emit(true);
    Send(text);
}

/// Whether every operation does nothing, as it must once the library is off.
inline bool IsInert() {
    bool called = false;
    const auto listener = MakeListener([&called](const MetricsEvent&) { called = true; });
    Manager().Enable();
    const bool accepts = Manager().AddConsumer(listener, everyBit, true) ||
                         Manager().RemoveConsumer(listener) || Manager().Disable() ||
                         Manager().SetBits(1) != 0 || Manager().GetNextContextId() != 0 ||
                         Context::Create(true) != 0;
    const Context context(0, 1);
    UseEverything("late");
    Manager().WaitUntilWritesFlushed(1000 * 1000);
    return !accepts && !called && Manager().GetCurrentThreadContext() == nullptr &&
           !TestBitsAndContext(0) && Manager().GetThreadContext()->GetCurrentContext() == nullptr;
}

} // namespace Metrics::test

#endif // METRICS_TESTS_SUPPORT_EXERCISE_H
