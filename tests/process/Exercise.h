#ifndef METRICS_TESTS_PROCESS_EXERCISE_H
#define METRICS_TESTS_PROCESS_EXERCISE_H

#include <metrics/Metrics.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Metrics::test {

/// A consumer that does what it is told.
class Listener final : public IMetricsListener {
public:
    explicit Listener(std::function<void(const MetricsEvent&)> handle)
        : m_handle(std::move(handle)) {}
    void OnMetricsEvent(const MetricsEvent& event) override { m_handle(event); }

private:
    std::function<void(const MetricsEvent&)> m_handle;
};

inline MetricsListenerPtr MakeListener(std::function<void(const MetricsEvent&)> handle) {
    return korsys::MakeRefCnt<Listener>(std::move(handle));
}

inline MetricsManager& Manager() {
    return *MetricsManager::GetInstance();
}

/// Switches everything on.
inline MetricsManager& Start() {
    Manager().Enable();
    Manager().SetBits(~std::uint64_t{0});
    return Manager();
}

/// The library in use; taken down before what the consumers refer to, when declared behind it.
struct Session {
    Session() { Start(); }
    ~Session() { MetricsManager::ShutdownAndFreeInstance(); }
};

/// Emits one Custom event by the shortest way.
inline void EmitOne(MetricsValue first, MetricsValue second = {}, std::uint64_t bits = 0) {
    const auto event = MakeMetricsEvent();
    event->eventType = MetricsEventType::Custom;
    event->bits = bits;
    event->param1 = std::move(first);
    event->param2 = std::move(second);
    Manager().EmitEvent(event);
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
    EmitOne(text);
}

/// Whether every operation does nothing, as it must once the library is off.
inline bool IsInert() {
    bool called = false;
    const auto listener = MakeListener([&called](const MetricsEvent&) { called = true; });
    MetricsManager& manager = Manager();
    manager.Enable();
    const bool accepts = manager.AddConsumer(listener, ~std::uint64_t{0}, true) ||
                         manager.RemoveConsumer(listener) || manager.Disable() ||
                         manager.SetBits(1) != 0 || manager.GetNextContextId() != 0 ||
                         Context::Create(true) != 0;
    const Context context(0, 1);
    UseEverything("late");
    manager.WaitUntilWritesFlushed(1000 * 1000);
    return !accepts && !called && manager.GetCurrentThreadContext() == nullptr &&
           !TestBitsAndContext(0) && manager.GetThreadContext()->GetCurrentContext() == nullptr;
}

} // namespace Metrics::test

#endif // METRICS_TESTS_PROCESS_EXERCISE_H
