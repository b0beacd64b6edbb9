// A consumer of its own: finds the scopes that took longest.

#include <metrics/Metrics.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

using namespace Metrics;

class SlowScopes final : public IMetricsListener {
public:
    void OnMetricsEvent(const MetricsEvent& event) override {
        if (event.eventType == MetricsEventType::ScopeOpened)
            m_opened[event.sourceId] = event.timestamp;
        else if (event.eventType == MetricsEventType::ScopeClosed)
            if (const auto opened = m_opened.extract(event.sourceId); !opened.empty())
                m_spans.emplace(event.timestamp - opened.mapped(), event.param1);
    }

    /// For when the listener is registered no longer: until then the spans are the delivery's.
    void Print(std::size_t count) const {
        for (auto span = m_spans.begin(); span != m_spans.end() && count > 0; ++span, --count)
            std::printf("%10.3f ms  %s\n", static_cast<double>(span->first) / 1e6,
                        span->second.text != nullptr ? span->second.text->c_str() : "?");
    }

private:
    std::unordered_map<std::uint64_t, std::uint64_t> m_opened;          // when, by scope
    std::multimap<std::uint64_t, MetricsValue, std::greater<>> m_spans; // label, longest first
};

int main() {
    MetricsManager* const manager = MetricsManager::GetInstance();
    manager->Enable();
    manager->SetBits(MetricsBits::all);
    const auto slowScopes = korsys::MakeRefCnt<SlowScopes>();
    manager->AddConsumer(slowScopes, MetricsBits::all, false);
    {
        Context context(0, Context::Create(true));
        for (const std::size_t count : {1000UL, 1000000UL, 100000UL}) {
            const Scope scope("sort " + std::to_string(count), MetricsBits::act);
            std::vector<unsigned> numbers(count);
            std::generate(numbers.begin(), numbers.end(), [n = 1U]() mutable { return n *= 9U; });
            std::sort(numbers.begin(), numbers.end());
        }
    }
    manager->WaitUntilWritesFlushed(1000);
    manager->RemoveConsumer(slowScopes);
    slowScopes->Print(4);
    MetricsManager::ShutdownAndFreeInstance();
}
