#ifndef METRICS_SRC_TRACE_FORMAT_H
#define METRICS_SRC_TRACE_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Metrics::detail {

// What a trace is made of; docs/trace-format.md says it in words.

inline constexpr std::uint32_t traceMagic = 0xC1FC1FC1;

using TraceUuid = std::array<unsigned char, 16>;

/// What every packet begins with: the format's packet header, and from packetBits on its context.
struct TracePacketHeader {
    std::uint32_t magic;
    TraceUuid uuid;
    std::uint32_t streamId;
    std::uint64_t streamInstanceId;
    std::uint64_t packetBits; // with what is unused at its end; written last, see TraceFile
    std::uint64_t contentBits;
    std::uint64_t begin;
    std::uint64_t end;
    std::uint64_t discarded; // events, since the trace was opened
    std::uint64_t number;    // of the packet, from 0
    std::uint64_t lagBase;   // nanoseconds
    std::int64_t wallBase;   // microseconds
};

static_assert(sizeof(TracePacketHeader) == 96 && offsetof(TracePacketHeader, packetBits) == 32,
              "as the description says");

/// How a value stands in an event.
enum class TraceKind : unsigned { Integer, Boolean, Double, Text, Other };
inline constexpr unsigned traceKinds = 5;

inline constexpr unsigned traceTypes = 8; // 0: one without a name; 1 to 7: event types 2 to 8

/// The number of the event's layout: what happened, and of which kinds its values are.
constexpr std::uint8_t TraceEventId(unsigned type, TraceKind first, TraceKind second) noexcept {
    return static_cast<std::uint8_t>((type * traceKinds + static_cast<unsigned>(first)) *
                                         traceKinds +
                                     static_cast<unsigned>(second));
}

static_assert(traceTypes * traceKinds * traceKinds <= 256, "one byte");

/// The text that describes a trace to its readers. `offset` is what the wall clock is ahead of the
/// up-time, in nanoseconds.
std::string DescribeTrace(const TraceUuid& uuid, std::int64_t offset);

} // namespace Metrics::detail

#endif // METRICS_SRC_TRACE_FORMAT_H
