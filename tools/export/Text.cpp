#include "Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <type_traits>

namespace Metrics::tools {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr std::string_view replacement = "\xef\xbf\xbd"; // U+FFFD

unsigned char Byte(std::string_view text, std::size_t i) {
    return static_cast<unsigned char>(text[i]);
}

/// @return how many bytes the character has that the text begins with; 0 when there is none. No
/// surrogates, nothing above U+10FFFF, and nothing that is longer than it need be.
std::size_t CharacterLength(std::string_view text) {
    const unsigned char first = Byte(text, 0);
    if (first < 0x80)
        return 1;
    if (first < 0xc2 || first > 0xf4)
        return 0;
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (text.size() < length)
        return 0;
    const unsigned char low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    const unsigned char high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    if (Byte(text, 1) < low || Byte(text, 1) > high)
        return 0;
    for (std::size_t i = 2; i < length; ++i)
        if ((Byte(text, i) & 0xc0) != 0x80)
            return 0;
    return length;
}

/// @return how many bytes at the beginning are ASCII, and neither control bytes nor such as JSON
/// escapes.
std::size_t PlainLength(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size()) {
        const unsigned char c = Byte(text, length);
        if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\')
            break;
        ++length;
    }
    return length;
}

template <class AppendAscii>
void Append(std::string& out, std::string_view text, AppendAscii appendAscii) {
    while (!text.empty()) {
        const std::size_t plain = PlainLength(text);
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty())
            break;
        const std::size_t length = CharacterLength(text);
        if (length == 1)
            appendAscii(text.front());
        else
            out.append(length == 0 ? replacement : text.substr(0, length));
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
}

bool IsInteger(std::string_view text) {
    if (text.starts_with('-') && text != "-0")
        text.remove_prefix(1);
    return !text.empty() && (text == "0" || text.front() != '0') &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// With six digits behind the point, and one in front of it at least.
bool IsDouble(std::string_view text) {
    const std::size_t point = text.find('.');
    if (point == std::string_view::npos || text.size() - point != 7)
        return false;
    const std::string_view fraction = text.substr(point + 1);
    const std::string_view whole = text.substr(0, point);
    return (IsInteger(whole) || whole == "-0") &&
           std::all_of(fraction.begin(), fraction.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

template <class Number>
bool Read(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

} // namespace

void AppendHex(std::string& out, std::uint64_t number) {
    std::array<char, 16> digits{};
    for (std::size_t i = digits.size(); i-- > 0; number >>= 4)
        digits[i] = hexDigits[number & 15];
    out.append(digits.data(), digits.size());
}

void AppendUtf8(std::string& out, std::string_view text) {
    Append(out, text, [&](char c) { out += c; });
}

void AppendJsonString(std::string& out, std::string_view text) {
    out += '"';
    Append(out, text, [&](char c) {
        switch (c) {
        case '"':
        case '\\':
            out += '\\';
            out += c;
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        default: // control bytes
            out += "\\u00";
            out += hexDigits[static_cast<unsigned char>(c) >> 4];
            out += hexDigits[static_cast<unsigned char>(c) & 15];
        }
    });
    out += '"';
}

Value ToValue(std::string_view text) {
    if (text == "true" || text == "false")
        return text == "true";
    std::int64_t integer = 0;
    if (IsInteger(text) && Read(text, integer))
        return integer;
    double number = 0;
    if (IsDouble(text) && Read(text, number) && std::isfinite(number))
        return number;
    return text;
}

void AppendJsonDouble(std::string& out, double number) {
    const std::size_t begin = out.size();
    AppendNumber(out, number);
    if (out.find_first_of(".e", begin) == std::string::npos)
        out += ".0"; // readers shall see what it is
}

void AppendJsonValue(std::string& out, const Value& value) {
    std::visit(
        [&](auto held) {
            using Held = decltype(held);
            if constexpr (std::is_same_v<Held, std::string_view>)
                AppendJsonString(out, held);
            else if constexpr (std::is_same_v<Held, std::int64_t>)
                AppendNumber(out, held);
            else if constexpr (std::is_same_v<Held, bool>)
                out += held ? "true" : "false";
            else
                AppendJsonDouble(out, held);
        },
        value);
}

} // namespace Metrics::tools
