#include <metrics/MetricsEvent.h>

#include <cstddef>

namespace Metrics {

static_assert(offsetof(MetricsValue, integer) == 8 && offsetof(MetricsValue, text) == 16 &&
              offsetof(MetricsValue, extra) == 32);
static_assert(offsetof(MetricsEvent, timestamp) == 32 && offsetof(MetricsEvent, param1) == 56);

// Texts and events are made here, and nowhere in a user's code: the code that frees them must stay
// for as long as the library does.

MetricsValue::MetricsValue(const char* value)
    : MetricsValue(value == nullptr ? std::string_view() : std::string_view(value)) {}

MetricsValue::MetricsValue(std::string_view value)
    : kind(Kind::String), text(std::make_shared<const std::string>(value)) {}

MetricsValue::MetricsValue(const std::string& value)
    : kind(Kind::String), text(std::make_shared<const std::string>(value)) {}

MetricsValue::MetricsValue(std::string&& value)
    : kind(Kind::String), text(std::make_shared<const std::string>(std::move(value))) {}

std::shared_ptr<MetricsEvent> MakeMetricsEvent() {
    return std::make_shared<MetricsEvent>();
}

IMetricsListener::~IMetricsListener() = default;

} // namespace Metrics
