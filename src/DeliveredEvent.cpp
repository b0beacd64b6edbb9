#include "DeliveredEvent.h"

#include <utility>

namespace Metrics::detail {

namespace {

constexpr std::size_t usualText = 1024; // longer ones do not keep their memory

/// Whether nobody else holds the string, and whoever did has done with it.
bool IsOurs(const std::shared_ptr<std::string>& text) noexcept {
    if (text.use_count() != 1)
        return false;
        // The last other holder gave it up by a release; this is the acquire that the count lacks.
#if defined(__SANITIZE_THREAD__)
    const std::shared_ptr<std::string> once(text); // ThreadSanitizer does not know fences
#else
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    return true;
}

} // namespace

void DeliveredEvent::Prepare(Text& text, const char* characters, std::size_t length) {
    if (text.spare == nullptr)
        text.spare = std::make_shared<std::string>();
    text.spare->assign(characters, length);
}

const MetricsEvent& DeliveredEvent::Make(Record& record, EventQueue& queue) {
    if (record.first == Record::Form::Shared) [[unlikely]] {
        queue.CountOutsideTaken(Outside::FromWord(record.bits));
        m_shared = std::move(record.SharedEvent());
        record.SharedEvent().~shared_ptr();
        m_holdsObjects = true;
        return *m_shared;
    }
    std::byte* tails[2] = {record.Tail(), record.Tail()};
    if (record.first == Record::Form::Characters)
        tails[1] += (record.slots[0].length + 7) & ~std::size_t{7};
    else if (record.first == Record::Form::Value)
        tails[1] += sizeof(MetricsValue);

    const std::array<Record::Form, 2> forms{record.first, record.second};
    for (std::size_t i = 0; i < 2; ++i) // what may fail comes first
        if (forms[i] == Record::Form::Characters)
            Prepare(m_texts[i], reinterpret_cast<const char*>(tails[i]), record.slots[i].length);

    m_event.eventType = static_cast<MetricsEventType>(record.type);
    m_event.sourceId = record.sourceId;
    m_event.contextId = record.contextId;
    m_event.bits = record.bits;
    PutStamp(record.ticks, record.wall, m_event);
    const std::array<MetricsValue*, 2> values{&m_event.param1, &m_event.param2};
    for (std::size_t i = 0; i < 2; ++i) {
        MetricsValue& value = *values[i];
        switch (forms[i]) {
        case Record::Form::Characters:
            value.kind = MetricsValue::Kind::String;
            value.integer = 0;
            value.text = std::move(m_texts[i].spare);
            m_texts[i].isInUse = true;
            m_hasTexts = true;
            break;
        case Record::Form::Value: {
            auto* const taken = std::launder(reinterpret_cast<MetricsValue*>(tails[i]));
            queue.CountOutsideTaken(Outside::FromWord(record.slots[i].length));
            value = std::move(*taken);
            taken->~MetricsValue();
            m_holdsObjects = true;
            break;
        }
        default:
            value.kind = static_cast<MetricsValue::Kind>(forms[i]);
            value.integer = record.slots[i].integer;
        }
    }
    return m_event;
}

void DeliveredEvent::Return(Text& text, MetricsValue& value) noexcept {
    if (std::exchange(text.isInUse, false)) {
        // Not const by birth: Prepare has made it.
        auto string = std::const_pointer_cast<std::string>(std::move(value.text));
        if (string->capacity() <= usualText && IsOurs(string))
            text.spare = std::move(string);
    }
    value.text = nullptr;
    value.extra = nullptr;
}

void DeliveredEvent::Clear() noexcept {
    if (!m_hasTexts && !m_holdsObjects) [[likely]]
        return;
    m_hasTexts = m_holdsObjects = false;
    m_shared = nullptr;
    Return(m_texts[0], m_event.param1);
    Return(m_texts[1], m_event.param2);
}

} // namespace Metrics::detail
