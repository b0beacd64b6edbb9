#ifndef METRICS_TESTS_SUPPORT_HELD_STREAM_H
#define METRICS_TESTS_SUPPORT_HELD_STREAM_H

#include "Exercise.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// What queues, loses and delivers, while a consumer holds the delivery.
namespace Metrics::test {

using Reason = MetricsError::Reason;
using Numbers = std::vector<std::int64_t>;

inline MetricsStatistics Statistics() {
    return Manager().GetStatistics();
}

/// The consumer of this name, as the statistics describe it; empty when there is none.
inline MetricsConsumerStatistics Describe(const std::string& name) {
    for (const MetricsConsumerStatistics& consumer : Statistics().consumers)
        if (consumer.name == name)
            return consumer;
    return {};
}

inline MetricsListenerPtr Register(bool synchronous, const MetricsConsumerOptions& options,
                                   Handle handle) {
    const auto listener = MakeListener(std::move(handle));
    EXPECT_TRUE(Start().AddConsumer(listener, everyBit, synchronous, options));
    return listener;
}

inline bool IsNotice(const MetricsEvent& event) {
    return event.eventType == MetricsEventType::Custom && event.param1.text != nullptr &&
           *event.param1.text == "lost" && event.bits == 0 && event.contextId == 0 &&
           event.sourceId == 0;
}

/// Holds the delivery inside of its first event, number -1, and notes what comes behind: each
/// event's number, and -1000 less the number of a notice.
class HeldStream {
public:
    explicit HeldStream(const std::string& name = "") {
        Register(false, {name, 0, 0}, [this](const MetricsEvent& event) {
            if (event.param1.integer == -1) {
                m_entered.Signal();
                m_release.Wait(forever);
                return;
            }
            m_numbers.push_back(IsNotice(event) ? -1000 - event.param2.integer
                                                : event.param1.integer);
            m_ordered = m_ordered && event.timestamp >= std::exchange(m_last, event.timestamp) &&
                        event.unixSeconds + 3600 >= std::exchange(m_lastSecond, event.unixSeconds);
        });
        Hold();
    }
    void Hold() {
        m_entered.Reset();
        m_release.Reset();
        AttributeImpl(-1, 0, 0);
        EXPECT_TRUE(m_entered.Wait(20'000));
    }
    void Release() { m_release.Signal(); }
    Numbers Take() {
        Release();
        Flush();
        EXPECT_TRUE(m_ordered) << "a notice is not in its place";
        return std::exchange(m_numbers, {});
    }

private:
    korsys::TEvent m_entered{false}, m_release{false};
    Numbers m_numbers;
    std::uint64_t m_last = 0, m_lastSecond = 0; // which a clock that is set may take back
    bool m_ordered = true;
};

constexpr std::int64_t tooMany = 1000;

inline void EmitTooMany() {
    for (std::int64_t i = 0; i < tooMany; ++i)
        AttributeImpl(i, 0, 0);
}

inline Numbers From(std::int64_t first, std::int64_t end) {
    Numbers numbers;
    for (; first < end; ++first)
        numbers.push_back(first);
    return numbers;
}

} // namespace Metrics::test

#endif // METRICS_TESTS_SUPPORT_HELD_STREAM_H
