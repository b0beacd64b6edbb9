#include "CsvLine.h"

#include <array>
#include <charconv>
#include <cstring>

namespace Metrics::detail {

namespace {

constexpr std::size_t usualCapacity = 65536;

// The longest number is a double: sign, 309 digits, point, 6 digits.
using NumberBuffer = std::array<char, 320>;

/// Writes into a buffer that is known to be large enough.
class Writer {
public:
    explicit Writer(NumberBuffer& buffer) : m_buffer(buffer), m_end(buffer.data()) {}

    template <class Number, class... Format>
    Writer& Put(Number number, Format... format) {
        m_end = std::to_chars(m_end, m_buffer.data() + m_buffer.size(), number, format...).ptr;
        return *this;
    }

    Writer& Put(char c) {
        if (m_end != m_buffer.data() + m_buffer.size())
            *m_end++ = c;
        return *this;
    }

    /// Six digits, with zeros on the left.
    Writer& PutMicroseconds(std::uint32_t microseconds) {
        for (int i = 5; i >= 0; --i, microseconds /= 10)
            m_end[i] = static_cast<char>('0' + microseconds % 10);
        m_end += 6;
        return *this;
    }

    std::string_view Text() const {
        return {m_buffer.data(), static_cast<std::size_t>(m_end - m_buffer.data())};
    }

private:
    NumberBuffer& m_buffer;
    char* m_end;
};

bool IsTrue(const bool& flag) {
    unsigned char byte = 0; // any byte but 0 is true, though a bool holds two of them only
    std::memcpy(&byte, &flag, sizeof byte);
    return byte != 0;
}

} // namespace

std::string_view CsvLine::Render(const MetricsEvent& event) {
    NumberBuffer buffer;
    Writer head(buffer);
    head.Put(event.timestamp).Put(',');
    head.Put(event.unixSeconds).Put('.').PutMicroseconds(event.unixMicroseconds).Put(',');
    head.Put(event.contextId).Put(',');
    head.Put(static_cast<std::int32_t>(event.eventType)).Put(',');
    m_line.assign(head.Text());
    AppendValue(event.param1);
    m_line += ',';
    AppendValue(event.param2);
    m_line += '\n';
    return m_line;
}

void CsvLine::Shrink() noexcept {
    if (m_line.capacity() > usualCapacity)
        m_line = std::string();
}

void CsvLine::AppendValue(const MetricsValue& value) {
    NumberBuffer buffer;
    switch (value.kind) {
    case MetricsValue::Kind::Integer:
        m_line += Writer(buffer).Put(value.integer).Text();
        break;
    case MetricsValue::Kind::Boolean:
        m_line += IsTrue(value.boolean) ? "true" : "false";
        break;
    case MetricsValue::Kind::Double:
        m_line += Writer(buffer).Put(value.number, std::chars_format::fixed, 6).Text();
        break;
    case MetricsValue::Kind::String:
        if (value.text != nullptr)
            AppendText(std::string_view(*value.text).substr(0, value.text->find('\0')));
        break;
    }
}

void CsvLine::AppendText(std::string_view text) {
    // Apostrophes go, all of them, when the text begins with one. Double quotes and line feeds
    // become two double quotes each, and the field is quoted when there was one.
    const bool dropApostrophes = !text.empty() && text.front() == '\'';
    const bool quote =
        text.find('"') != std::string_view::npos || text.find('\n') != std::string_view::npos;
    if (!dropApostrophes && !quote) {
        m_line += text;
        return;
    }
    if (quote)
        m_line += '"';
    for (const char c : text) {
        if (c == '"' || c == '\n')
            m_line += "\"\"";
        else if (c != '\'' || !dropApostrophes)
            m_line += c;
    }
    if (quote)
        m_line += '"';
}

} // namespace Metrics::detail
