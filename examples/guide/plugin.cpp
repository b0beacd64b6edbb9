// A plug-in that may come and go while its host runs. It cleans up after itself, and leaves the
// library on: other plug-ins may be using it, and once off it is off for good.

#include <metrics/Metrics.h>

#include <atomic>
#include <cstdio>
#include <exception>

// [snippet: plugin]
namespace {

/// Counts what this plug-in was asked for. Its code is the plug-in's, so it must not be registered
/// any more when the plug-in goes.
class Requests final : public Metrics::IMetricsListener {
public:
    void OnMetricsEvent(const Metrics::MetricsEvent& event) override {
        if (event.eventType == Metrics::MetricsEventType::Custom)
            m_count.fetch_add(1, std::memory_order_relaxed);
    }
    unsigned Count() const { return m_count.load(std::memory_order_relaxed); }

private:
    std::atomic<unsigned> m_count{0};
};

korsys::RefCntPtr<Requests> s_requests;

} // namespace

extern "C" bool PluginStart() noexcept try {
    auto& manager = *Metrics::MetricsManager::GetInstance();
    manager.Enable(); // does nothing when somebody else did before
    manager.SetBits(Metrics::MetricsBits::query);
    s_requests = korsys::MakeRefCnt<Requests>();
    return manager.AddConsumer(s_requests, Metrics::MetricsBits::query, true);
} catch (const std::exception&) {
    return false;
}

extern "C" void PluginHandle(const char* request) {
    Metrics::Context context(0, Metrics::Context::Create(true));
    const Metrics::Scope scope("handle", Metrics::MetricsBits::query);
    scope.Emit("request", request);
}

extern "C" void PluginStop() {
    // Once this returns no call of it is in progress, and none will come.
    Metrics::MetricsManager::GetInstance()->RemoveConsumer(s_requests);
    std::printf("requests: %u\n", s_requests->Count());
    s_requests = nullptr;
}
// [end]
