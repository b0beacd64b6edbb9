#ifndef METRICS_TOOLS_EXPORT_TEXT_H
#define METRICS_TOOLS_EXPORT_TEXT_H

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

/// Pieces of text that the formats have in common. All append to a string.
namespace Metrics::tools {

template <class Number>
void AppendNumber(std::string& out, Number number) {
    char digits[32];
    const auto result = std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, result.ptr);
}

/// 16 lower-case digits.
void AppendHex(std::string& out, std::uint64_t number);

/// The text as valid UTF-8: U+FFFD for each byte that is in no character.
void AppendUtf8(std::string& out, std::string_view text);

/// A string of JSON, with its quotes and valid UTF-8.
void AppendJsonString(std::string& out, std::string_view text);

/// A value as it was before it was written. A text that is written as a number would be is one.
using Value = std::variant<std::string_view, std::int64_t, bool, double>;
Value ToValue(std::string_view text);

/// A number of JSON, from which the same double can be read; it is finite.
void AppendJsonDouble(std::string& out, double number);

void AppendJsonValue(std::string& out, const Value& value);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_TEXT_H
