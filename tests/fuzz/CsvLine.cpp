// Any two values make exactly one line: the four columns before them, then at least one comma and
// balanced quotes.

#include "CsvLine.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace Metrics;

/// The first byte chooses the kinds, 8 bytes are the number of either, and the rest are the texts,
/// halved.
extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
    std::int64_t number = 0;
    if (size < 1 + sizeof number)
        return 0;
    std::memcpy(&number, data + 1, sizeof number);
    const std::string_view rest(data + 1 + sizeof number, size - 1 - sizeof number);
    MetricsEvent event;
    event.param1 = rest.substr(0, rest.size() / 2);
    event.param2 = rest.substr(rest.size() / 2);
    event.param1.kind = static_cast<MetricsValue::Kind>(data[0] & 7);
    event.param2.kind = static_cast<MetricsValue::Kind>(data[0] >> 3 & 7);
    event.param1.integer = event.param2.integer = number;
    event.timestamp = event.contextId = event.unixSeconds = static_cast<std::uint64_t>(number);
    detail::CsvLine renderer;
    const std::string_view line = renderer.Render(event);
    const std::string digits = std::to_string(event.timestamp);
    const std::string head = digits + ',' + digits + ".000000," + digits + ",0,";
    const std::string_view values = line.substr(std::min(head.size(), line.size()));
    if (!line.starts_with(head) || values.find(',') == values.npos ||
        line.find('\n') != line.size() - 1 || std::count(line.begin(), line.end(), '"') % 2 != 0)
        std::abort();
    return 0;
}
