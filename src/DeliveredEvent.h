#ifndef METRICS_SRC_DELIVERED_EVENT_H
#define METRICS_SRC_DELIVERED_EVENT_H

#include "EventQueue.h"

#include <metrics/MetricsEvent.h>

#include <array>
#include <memory>
#include <string>

namespace Metrics::detail {

/// Both times of an event.
inline void PutStamp(std::uint64_t ticks, std::uint64_t wall, MetricsEvent& event) noexcept {
    event.timestamp = UpTimeAt(ticks);
    event.unixSeconds = wall / 1'000'000'000;
    event.unixMicroseconds = static_cast<std::uint32_t>(wall % 1'000'000'000 / 1000);
}

/// The event that consumers see, made in place from one record after the other. A text is copied
/// into a string that is used again for the next one, unless a consumer has kept the value: then
/// the string is the consumer's, and the next text gets a new one.
///
/// Thread-safety: one thread at a time for each object.
class DeliveredEvent {
public:
    /// The event of a queue's front record, valid until Clear. What the record held is taken out of
    /// it.
    /// @throws std::bad_alloc; the record is as it was.
    const MetricsEvent& Make(Record& record, EventQueue& queue);

    /// Whether code of the application may run when the event is let go of.
    bool HoldsObjects() const noexcept { return m_holdsObjects; }
    /// Lets go of what the event holds.
    void Clear() noexcept;

private:
    struct Text {
        std::shared_ptr<std::string> spare; // nobody else's, ready for the next text
        bool isInUse = false;               // it stands in the event
    };

    void Prepare(Text& text, const char* characters, std::size_t length);
    static void Return(Text& text, MetricsValue& value) noexcept;

    MetricsEvent m_event;
    std::shared_ptr<MetricsEvent> m_shared;
    std::array<Text, 2> m_texts;
    bool m_hasTexts = false;
    bool m_holdsObjects = false;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_DELIVERED_EVENT_H
