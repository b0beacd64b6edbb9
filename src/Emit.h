#ifndef METRICS_SRC_EMIT_H
#define METRICS_SRC_EMIT_H

#include "EventQueue.h"

#include <memory>

namespace Metrics::detail {

/// The way of an event, on the thread where it happens: accepted or dropped by the mask, stamped,
/// shown to the synchronous consumers, appended to the thread's own queue.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: that of a stamp and of EventQueue::Append; allocates for a text longer than copiedText.
/// @throws std::bad_alloc, and what a synchronous consumer throws; the event is lost then.
void Emit(const EventHead& head, const Argument& first, const Argument& second);

/// The same for an event that the application has made.
void Emit(std::shared_ptr<MetricsEvent>&& event);

/// A Shutdown event of the application's: passes whatever the mask, and ends the delivery.
void EmitShutdown(MetricsEvent& event);

/// Shows the library's own Shutdown event to the synchronous consumers, and drops what they throw.
void ShowShutdown() noexcept;

/// The value itself; what the argument may be moved from, is.
/// @throws std::bad_alloc
MetricsValue ToValue(const Argument& argument);

} // namespace Metrics::detail

#endif // METRICS_SRC_EMIT_H
