#ifndef METRICS_ARGUMENT_H
#define METRICS_ARGUMENT_H

#include <metrics/MetricsEvent.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Metrics::detail {

/// Texts of up to this many characters are copied into the queue; longer ones are allocated.
inline constexpr std::size_t copiedText = 256;

/// One value of an emitting call, as it was given: a number, characters that belong to the caller,
/// or a text or MetricsValue that may be moved from. It refers to what it was made of, and is used
/// up before the call returns. So a short text goes straight into the queue, without an allocation.
///
/// Thread-safety: one thread at a time for each object.
class Argument {
public:
    /// The first three are numbered as the kinds of a MetricsValue.
    enum class Form : std::uint8_t {
        Integer = 0,
        Boolean = 1,
        Double = 2,
        Characters,
        String,
        Value
    };

    /// The empty value: Integer 0.
    Argument() noexcept : integer(0) {}

    template <class T, std::enable_if_t<
                           std::is_arithmetic_v<T> && sizeof(T) <= sizeof(std::int64_t), int> = 0>
    explicit Argument(T scalar) noexcept {
        if constexpr (std::is_same_v<T, bool>) {
            form = Form::Boolean;
            integer = scalar ? 1 : 0; // the whole slot, of which a reader takes the first byte
        } else if constexpr (std::is_floating_point_v<T>) {
            form = Form::Double;
            number = static_cast<double>(scalar);
        } else {
            integer = static_cast<std::int64_t>(scalar);
        }
    }

    /// Null is the empty text.
    explicit Argument(const char* text) noexcept
        : Argument(text == nullptr ? std::string_view() : std::string_view(text)) {}
    explicit Argument(std::string_view text) noexcept
        : form(Form::Characters), length(text.size()), characters(text.data()) {}
    explicit Argument(const std::string& text) noexcept : Argument(std::string_view(text)) {}
    /// A short text is copied, a longer one moved from when the event is accepted.
    explicit Argument(std::string&& taken) noexcept : Argument(std::string_view(taken)) {
        if (length > copiedText) {
            form = Form::String;
            string = &taken;
        }
    }

    /// The value is moved from when the event is accepted.
    explicit Argument(MetricsValue&& taken) noexcept : form(Form::Value), value(&taken) {}

    Form form = Form::Integer;
    std::size_t length = 0; // of Characters
    union {
        std::int64_t integer;
        double number;
        const char* characters;
        std::string* string;
        MetricsValue* value;
    };
};

template <class T>
using Bare = std::remove_cv_t<std::remove_reference_t<T>>;

/// What an Argument is made of without a MetricsValue in between.
template <class T>
inline constexpr bool isPlainArgument =
    (std::is_arithmetic_v<T> && sizeof(T) <= sizeof(std::int64_t)) ||
    std::is_same_v<std::decay_t<T>, const char*> || std::is_same_v<std::decay_t<T>, char*> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>;

/// The value itself where an Argument can refer to it, else a MetricsValue made of it.
template <class T>
decltype(auto) AsArgument(const T& value) {
    if constexpr (isPlainArgument<T>)
        return (value);
    else
        return MetricsValue(value);
}

/// What a gate hands on: an array of characters up to its first NUL, which of a literal the
/// compiler knows, and all else as it is.
template <class T>
const T& WithLength(const T& value) noexcept {
    return value;
}
template <std::size_t size>
std::string_view WithLength(const char (&text)[size]) noexcept {
    return text;
}

/// What the caller gives away.
template <class T>
inline constexpr bool isGivenAway =
    std::is_same_v<T, std::string> || std::is_same_v<T, MetricsValue>;

template <class T, std::enable_if_t<isGivenAway<T>, int> = 0>
T&& AsArgument(T&& value) noexcept {
    return static_cast<T&&>(value);
}

} // namespace Metrics::detail

#endif // METRICS_ARGUMENT_H
