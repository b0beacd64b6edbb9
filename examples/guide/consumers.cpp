// Two consumers: one that is called at once, one that is called behind the application's back.

#include <metrics/Metrics.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <unordered_map>

namespace MetricsBits = Metrics::MetricsBits;
using Metrics::MetricsEvent;
using Metrics::MetricsEventType;

namespace {

// [snippet: synchronous]
/// How many contexts are open at this moment. A synchronous consumer: it is called on the threads
/// that open and close contexts, several at once, and they wait for it. Hence the atomic.
class OpenContexts final : public Metrics::IMetricsListener {
public:
    void OnMetricsEvent(const MetricsEvent& event) override {
        if (event.eventType == MetricsEventType::ContextOpened)
            m_count.fetch_add(1, std::memory_order_relaxed);
        else if (event.eventType == MetricsEventType::ContextClosed)
            m_count.fetch_sub(1, std::memory_order_relaxed);
    }

    int Count() const { return m_count.load(std::memory_order_relaxed); }

private:
    std::atomic<int> m_count{0};
};
// [end]

// [snippet: asynchronous]
/// For how long the slowest context was open. An asynchronous consumer: it is called on the
/// delivery thread alone, one event after the other, so it needs no lock of its own. Nobody else
/// looks at its members before it is removed.
class SlowestContext final : public Metrics::IMetricsListener {
public:
    void OnMetricsEvent(const MetricsEvent& event) override {
        if (event.eventType == MetricsEventType::ContextOpened)
            m_openedAt[event.sourceId] = event.timestamp;
        else if (event.eventType == MetricsEventType::ContextClosed)
            if (const auto opened = m_openedAt.extract(event.sourceId); !opened.empty())
                m_nanoseconds = std::max(m_nanoseconds, event.timestamp - opened.mapped());
    }

    std::uint64_t Nanoseconds() const { return m_nanoseconds; }

private:
    std::unordered_map<std::uint64_t, std::uint64_t> m_openedAt; // by id
    std::uint64_t m_nanoseconds = 0;
};
// [end]

} // namespace

int main() {
    Metrics::MetricsManager& manager = *Metrics::MetricsManager::GetInstance();
    // [snippet: thread]
    // Called on the delivery thread, first thing. On Linux this makes that one thread polite.
    manager.SetThreadInitFunction([] { setpriority(PRIO_PROCESS, 0, 10); });
    manager.Enable();
    // [end]

    // [snippet: register]
    manager.SetBits(MetricsBits::act); // while no bit is on, nothing is recorded at all

    const auto open = korsys::MakeRefCnt<OpenContexts>();
    const auto slowest = korsys::MakeRefCnt<SlowestContext>();
    manager.AddConsumer(open, MetricsBits::all, true);     // synchronous
    manager.AddConsumer(slowest, MetricsBits::all, false); // asynchronous
    // [end]
    {
        const Metrics::Context outer(0, Metrics::Context::Create(true));
        const Metrics::Context inner(outer.GetContextId(), Metrics::Context::Create(false));
        std::printf("open: %d\n", open->Count());
    }
    std::printf("open: %d\n", open->Count());

    // [snippet: remove]
    manager.WaitUntilWritesFlushed(1000); // until what was emitted so far is delivered, or 1000 ms
    manager.RemoveConsumer(slowest);      // no call of it is in progress any more, none will come
    std::printf("slowest: %.3f ms\n", static_cast<double>(slowest->Nanoseconds()) / 1e6);
    // [end]
    manager.RemoveConsumer(open);
    Metrics::MetricsManager::ShutdownAndFreeInstance();
    return slowest->Nanoseconds() > 0 ? 0 : 1;
}
