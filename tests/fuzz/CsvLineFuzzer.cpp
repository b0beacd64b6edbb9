// Any event becomes one line: six fields, numbers as printf writes them, texts quoted when needed.

#include "CsvLine.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

using namespace Metrics;

namespace {

void Check(bool good) {
    if (!good)
        std::abort();
}

/// What no rule changes: the bytes before the first NUL that are neither quotes nor line feeds.
std::string Kept(std::string_view text) {
    std::string kept(text.substr(0, text.find('\0')));
    std::erase_if(kept, [](char c) { return c == '"' || c == '\n' || c == '\''; });
    return kept;
}

void CheckField(std::string_view field, const MetricsValue& value) {
    char number[400] = "";
    if (value.kind == MetricsValue::Kind::Integer)
        std::snprintf(number, sizeof number, "%" PRId64, value.integer);
    if (value.kind == MetricsValue::Kind::Boolean)
        std::snprintf(number, sizeof number, "%s", value.boolean ? "true" : "false");
    if (value.kind == MetricsValue::Kind::Double)
        std::snprintf(number, sizeof number, "%f", value.number);
    if (value.kind != MetricsValue::Kind::String || value.text == nullptr)
        return Check(field == number);
    const std::string_view text = *value.text;
    const bool isQuoted = field.starts_with('"');
    Check(Kept(field) == Kept(text) && field.find('\n') == field.npos);
    Check(!text.starts_with('\'') || field.find('\'') == field.npos);
    Check(isQuoted == (text.substr(0, text.find('\0')).find_first_of("\"\n") != text.npos));
    const auto quotes = std::count(field.begin(), field.end(), '"');
    Check(isQuoted ? quotes % 2 == 0 && quotes >= 4 && field.ends_with('"') : quotes == 0);
}

MetricsValue AnyValue(FuzzedDataProvider& input) {
    MetricsValue value(input.ConsumeIntegral<std::int64_t>());
    const int kind = input.ConsumeIntegralInRange(-1, 4);
    if (kind == 3 && input.ConsumeBool())
        return MetricsValue(input.ConsumeRandomLengthString());
    if (kind == 1)
        return MetricsValue(value.integer % 2 == 0);
    value.kind = static_cast<MetricsValue::Kind>(kind);
    return value;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    MetricsEvent event;
    event.timestamp = input.ConsumeIntegral<std::uint64_t>();
    event.unixSeconds = input.ConsumeIntegral<std::uint64_t>();
    event.unixMicroseconds = input.ConsumeIntegralInRange(0u, 999'999u);
    event.contextId = input.ConsumeIntegral<std::uint64_t>();
    event.eventType = static_cast<MetricsEventType>(input.ConsumeIntegral<std::int32_t>());
    const bool isFirst = input.ConsumeBool(); // the other one is empty, so that fields part clearly
    (isFirst ? event.param1 : event.param2) = AnyValue(input);

    char head[120];
    std::snprintf(head, sizeof head, "%" PRIu64 ",%" PRIu64 ".%06u,%" PRIu64 ",%d,%s",
                  event.timestamp, event.unixSeconds, event.unixMicroseconds, event.contextId,
                  static_cast<int>(event.eventType), isFirst ? "" : "0,");
    const std::string_view tail = isFirst ? ",0\n" : "\n";
    detail::CsvLine writer;
    std::string_view line = writer.Render(event);
    Check(line.starts_with(head) && line.ends_with(tail));
    line.remove_prefix(std::string_view(head).size());
    CheckField(line.substr(0, line.size() - tail.size()), isFirst ? event.param1 : event.param2);
    return 0;
}
