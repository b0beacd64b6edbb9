#ifndef METRICS_TESTS_TRANSCRIPT_H
#define METRICS_TESTS_TRANSCRIPT_H

#include <metrics/Metrics.h>

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace Metrics::Testing {

constexpr unsigned int forever = 60'000; // ms; only a test that fails waits that long
constexpr std::uint64_t everyBit = ~std::uint64_t{0};

inline MetricsManager& Manager() {
    return *MetricsManager::GetInstance();
}

inline void Flush() {
    Manager().WaitUntilWritesFlushed(forever);
}

/// Emits an event that carries two numbers. @return it.
inline auto Send(std::uint64_t first, std::uint64_t second = 0, std::uint64_t bits = 0,
                 MetricsEventType type = MetricsEventType::Custom) {
    const auto event = MakeMetricsEvent();
    event->eventType = type;
    event->bits = bits;
    event->param1 = first;
    event->param2 = second;
    Manager().EmitEvent(event);
    return event;
}

struct Consumer final : IMetricsListener {
    using Call = std::function<void(const MetricsEvent&)>;
    explicit Consumer(Call function) : call(std::move(function)) {}
    void OnMetricsEvent(const MetricsEvent& event) override { call(event); }
    const Call call;
};

/// Switches the library on and registers the function. A test to whose variables it refers ends
/// with Disable, since it would be called once more at exit.
inline MetricsListenerPtr Consume(bool synchronous, Consumer::Call call) {
    Manager().Enable();
    Manager().SetBitsAbsolute(everyBit);
    const MetricsListenerPtr consumer = korsys::MakeRefCnt<Consumer>(std::move(call));
    EXPECT_TRUE(Manager().AddConsumer(consumer, everyBit, synchronous));
    return consumer;
}

} // namespace Metrics::Testing

#endif // METRICS_TESTS_TRANSCRIPT_H
