#ifndef METRICS_OPTIONS_H
#define METRICS_OPTIONS_H

#include <cstdint>
#include <string>

namespace Metrics {

/// What becomes of an event when the queues have reached the bound of
/// MetricsManager::SetQueueLimit.
enum class MetricsQueuePolicy : std::uint8_t {
    /// The event is dropped.
    DropNewest,
    /// The oldest queued events are dropped to make room. What they held is destroyed on the
    /// emitting thread. An emitter that is stopped in the middle of that, by a debugger say, holds
    /// the delivery up: the one case in which it waits for one.
    DropOldest,
    /// The emitter waits for room, and drops the event when the time is up. It does not wait inside
    /// of a consumer call. The only policy under which an emitter is held.
    Wait
};

/// How a consumer is registered, beside its mask.
///
/// Thread-safety: one thread at a time for each object.
struct MetricsConsumerOptions {
    /// For statistics and error messages. Empty: the name of its class.
    std::string name;
    /// After so many exceptions in a row it is set aside: not called any more, though its
    /// registration stays. 0: never.
    std::uint32_t maxExceptions = 0;
    /// A call that takes longer has it set aside. While an asynchronous consumer is in such a call,
    /// a second delivery thread goes on behind it with the others; other asynchronous registrations
    /// of the same listener are set aside with it. 0: never.
    std::uint32_t maxCallMilliseconds = 0;
};

} // namespace Metrics

#endif // METRICS_OPTIONS_H
