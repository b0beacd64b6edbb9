#include "Emit.h"

#include "Consumers.h"
#include "Delivery.h"
#include "Lifecycle.h"

#include <metrics/MetricsFilter.h>

#include <utility>

namespace Metrics::detail {

namespace {

void PutStamp(const Stamp& stamp, MetricsEvent& event) noexcept {
    event.timestamp = UpTimeAt(stamp.ticks);
    event.unixSeconds = stamp.wall / 1'000'000'000;
    event.unixMicroseconds = static_cast<std::uint32_t>(stamp.wall % 1'000'000'000 / 1000);
}

bool IsLong(const Argument& argument) noexcept {
    return argument.length > copiedText;
}

/// A value that holds no object travels as a number.
Argument FromValue(MetricsValue& value) noexcept {
    const bool isNumber = value.text == nullptr && value.extra == nullptr &&
                          value.kind >= MetricsValue::Kind::Integer &&
                          value.kind <= MetricsValue::Kind::Double;
    if (!isNumber)
        return Argument(std::move(value));
    Argument number(value.integer);
    number.form = static_cast<Argument::Form>(value.kind);
    return number;
}

MetricsEvent MakeEvent(const EventHead& head, const Argument& first, const Argument& second) {
    return {head.type, head.sourceId,  head.contextId, head.bits, 0, 0,
            0,         ToValue(first), ToValue(second)};
}

/// With synchronous consumers: the event is made here, shown to them, and its values handed over.
[[gnu::noinline]] void EmitToSynchronousConsumers(ThreadRecord& record, const Stamp& stamp,
                                                  const EventHead& head, const Argument& first,
                                                  const Argument& second) {
    MetricsEvent event = MakeEvent(head, first, second);
    PutStamp(stamp, event);
    s_consumers.CallSynchronous(record, event);
    // A consumer may have forked, and this be the child; or have ended the library.
    if (s_life.Accepts())
        record.queue.Append(stamp, head, FromValue(event.param1), FromValue(event.param2));
}

/// With a text that is not copied into the queue, or a MetricsValue.
[[gnu::noinline]] void EmitValues(ThreadRecord& record, const Stamp& stamp, const EventHead& head,
                                  const Argument& first, const Argument& second) {
    MetricsValue values[2];
    const auto convert = [](const Argument& argument, MetricsValue& value) {
        if (argument.form == Argument::Form::Value)
            return FromValue(*argument.value);
        if (!IsLong(argument))
            return argument;
        value = ToValue(argument);
        return Argument(std::move(value));
    };
    const Argument a = convert(first, values[0]);
    const Argument b = convert(second, values[1]);
    record.queue.Append(stamp, head, a, b);
}

} // namespace

MetricsValue ToValue(const Argument& argument) {
    switch (argument.form) {
    case Argument::Form::Boolean:
        return {(argument.integer & 1) != 0};
    case Argument::Form::Double:
        return {argument.number};
    case Argument::Form::Characters:
        return {std::string_view(argument.characters, argument.length)};
    case Argument::Form::String:
        return {std::move(*argument.string)};
    case Argument::Form::Value:
        return {std::move(*argument.value)};
    case Argument::Form::Integer:
        break;
    }
    return {argument.integer};
}

void Emit(const EventHead& head, const Argument& first, const Argument& second) {
    if (!s_life.Accepts())
        return;
    if (head.type == MetricsEventType::Shutdown) [[unlikely]] {
        MetricsEvent event = MakeEvent(head, first, second);
        return EmitShutdown(event);
    }
    if (!PassesLiveMask(head.bits))
        return;
    ThreadRecord& record = s_threads.Current();
    const Stamp stamp = s_stampClock.Take(t_thread.wallOffset);
    if (s_consumers.HasSynchronous()) [[unlikely]]
        return EmitToSynchronousConsumers(record, stamp, head, first, second);
    if (first.form > Argument::Form::Characters || second.form > Argument::Form::Characters ||
        IsLong(first) || IsLong(second)) [[unlikely]]
        return EmitValues(record, stamp, head, first, second);
    record.queue.Append(stamp, head, first, second);
}

void Emit(std::shared_ptr<MetricsEvent>&& event) {
    if (!s_life.Accepts())
        return;
    if (event->eventType == MetricsEventType::Shutdown)
        return EmitShutdown(*event);
    if (!PassesLiveMask(event->bits))
        return;
    ThreadRecord& record = s_threads.Current();
    const Stamp stamp = s_stampClock.Take(t_thread.wallOffset);
    PutStamp(stamp, *event);
    if (s_consumers.HasSynchronous()) [[unlikely]] {
        s_consumers.CallSynchronous(record, *event);
        if (!s_life.Accepts())
            return;
    }
    record.queue.Append(stamp, std::move(event));
}

void EmitShutdown(MetricsEvent& event) {
    if (!s_life.Accepts())
        return;
    ThreadRecord& record = s_threads.Current();
    PutStamp(s_stampClock.Take(t_thread.wallOffset), event);
    s_consumers.CallSynchronous(record, event);
    Delivery* const delivery = FindDelivery();
    if (delivery != nullptr && !InForkedChild())
        delivery->EndHere(); // behind what the consumers have emitted
}

void ShowShutdown() noexcept {
    if (!s_life.Accepts() || !s_consumers.HasSynchronous())
        return;
    try {
        ThreadRecord& record = s_threads.Current();
        MetricsEvent event;
        event.eventType = MetricsEventType::Shutdown;
        PutStamp(s_stampClock.Take(t_thread.wallOffset), event);
        s_consumers.CallSynchronousQuietly(record, event);
    } catch (const std::bad_alloc&) {
        // No memory for this thread's record: nobody is told.
    }
}

} // namespace Metrics::detail
