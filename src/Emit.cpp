#include "Emit.h"

#include "Consumers.h"
#include "DeliveredEvent.h"
#include "Delivery.h"
#include "Lifecycle.h"
#include "QueueLimit.h"

#include <metrics/MetricsFilter.h>

#include <utility>

namespace Metrics::detail {

namespace {

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

/// The memory of a value that travels as it is. What an `extra` holds is not known.
std::size_t BytesOf(const MetricsValue& value) noexcept {
    constexpr std::size_t shared = 64; // the string itself, and the count of its holders
    return value.text == nullptr ? 0 : value.text->capacity() + shared;
}

std::size_t BytesOf(const Argument& argument) noexcept {
    return argument.form == Argument::Form::Value ? BytesOf(*argument.value) : 0;
}

/// Does what needs memory, and counts the event as lost when there is none.
template <class Do>
auto OrLost(ThreadRecord& record, Do what) {
    try {
        return what();
    } catch (const std::bad_alloc&) {
        Count(record.losses.toMemory);
        throw;
    }
}

/// Charges the queue limit for memory outside of the queue, and takes it back unless it was kept.
class OutsideCharge {
public:
    explicit OutsideCharge(std::size_t bytes) noexcept : m_bytes(bytes) {
        m_isCharged = bytes != 0 && s_queueLimit.IsSet();
        m_isRefused = m_isCharged && !s_queueLimit.TakeOrMakeRoom(bytes);
    }
    ~OutsideCharge() {
        if (m_isCharged && !m_isRefused && !m_isKept)
            s_queueLimit.Give(m_bytes);
    }
    OutsideCharge(const OutsideCharge&) = delete;
    OutsideCharge& operator=(const OutsideCharge&) = delete;

    bool IsRefused() const noexcept { return m_isRefused; }
    Outside For(std::size_t bytes) const noexcept { return {bytes, m_isCharged}; }
    void Keep() noexcept { m_isKept = true; }

private:
    std::size_t m_bytes;
    bool m_isCharged = false;
    bool m_isRefused = false;
    bool m_isKept = false;
};

/// Appends an event of values that may hold memory outside of the queue.
void AppendValues(ThreadRecord& record, const Stamp& stamp, const EventHead& head, Argument first,
                  Argument second) {
    const std::size_t bytes = BytesOf(first) + BytesOf(second);
    OutsideCharge charge(bytes);
    if (charge.IsRefused())
        return record.losses.CountToLimit(stamp);
    for (Argument* const argument : {&first, &second})
        if (argument->form == Argument::Form::Value)
            argument->length = charge.For(BytesOf(*argument)).Word();
    if (!OrLost(record, [&] { return record.queue.Append(stamp, head, first, second); }))
        return record.losses.CountToLimit(stamp);
    record.queue.CountOutside(charge.For(bytes));
    charge.Keep();
}

/// @return whether the event goes on from there.
bool ShowToSynchronousConsumers(ThreadRecord& record, const Stamp& stamp,
                                const MetricsEvent& event) {
    try {
        s_consumers.CallSynchronous(record, event, stamp.ticks);
    } catch (...) {
        Count(record.losses.toException);
        throw;
    }
    // A consumer may have forked, and this be the child; or have ended the library.
    const bool goesOn = s_life.Accepts(); // asked once, or it might be neither lost nor queued
    if (!goesOn)
        Count(record.losses.toShutdown);
    return goesOn;
}

/// With synchronous consumers: the event is made here, shown to them, and its values handed over.
[[gnu::noinline]] void EmitToSynchronousConsumers(ThreadRecord& record, const Stamp& stamp,
                                                  const EventHead& head, const Argument& first,
                                                  const Argument& second) {
    MetricsEvent event = OrLost(record, [&] { return MakeEvent(head, first, second); });
    PutStamp(stamp.ticks, stamp.wall, event);
    if (ShowToSynchronousConsumers(record, stamp, event))
        AppendValues(record, stamp, head, FromValue(event.param1), FromValue(event.param2));
}

/// With a text that is not copied into the queue, or a MetricsValue.
[[gnu::noinline]] void EmitValues(ThreadRecord& record, const Stamp& stamp, const EventHead& head,
                                  const Argument& first, const Argument& second) {
    MetricsValue values[2];
    const auto convert = [&record](const Argument& argument, MetricsValue& value) {
        if (argument.form == Argument::Form::Value)
            return FromValue(*argument.value);
        if (!IsLong(argument))
            return argument;
        value = OrLost(record, [&argument] { return ToValue(argument); });
        return Argument(std::move(value));
    };
    const Argument a = convert(first, values[0]);
    const Argument b = convert(second, values[1]);
    AppendValues(record, stamp, head, a, b);
}

/// The calling thread's record, for an event that is accepted.
ThreadRecord& RecordOfEmitter() {
    try {
        return s_threads.Current();
    } catch (const std::bad_alloc&) {
        s_threads.CountLostWithoutRecord();
        throw;
    }
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
    ThreadRecord& record = RecordOfEmitter();
    const Stamp stamp = s_stampClock.Take(t_thread.wallOffset);
    if (s_consumers.HasSynchronous()) [[unlikely]]
        return EmitToSynchronousConsumers(record, stamp, head, first, second);
    if (first.form > Argument::Form::Characters || second.form > Argument::Form::Characters ||
        IsLong(first) || IsLong(second)) [[unlikely]]
        return EmitValues(record, stamp, head, first, second);
    if (!OrLost(record, [&] { return record.queue.Append(stamp, head, first, second); }))
        [[unlikely]]
        record.losses.CountToLimit(stamp);
}

void Emit(std::shared_ptr<MetricsEvent>&& event) {
    if (!s_life.Accepts())
        return;
    if (event->eventType == MetricsEventType::Shutdown)
        return EmitShutdown(*event);
    if (!PassesLiveMask(event->bits))
        return;
    ThreadRecord& record = RecordOfEmitter();
    const Stamp stamp = s_stampClock.Take(t_thread.wallOffset);
    PutStamp(stamp.ticks, stamp.wall, *event);
    if (s_consumers.HasSynchronous() && !ShowToSynchronousConsumers(record, stamp, *event))
        [[unlikely]]
        return;
    const std::size_t bytes =
        sizeof(MetricsEvent) + BytesOf(event->param1) + BytesOf(event->param2);
    OutsideCharge charge(bytes);
    if (charge.IsRefused() || !OrLost(record, [&] {
            return record.queue.Append(stamp, std::move(event), charge.For(bytes));
        }))
        return record.losses.CountToLimit(stamp);
    charge.Keep();
}

void EmitShutdown(MetricsEvent& event) {
    if (!s_life.Accepts())
        return;
    ThreadRecord& record = s_threads.Current();
    const Stamp stamp = s_stampClock.Take(t_thread.wallOffset);
    PutStamp(stamp.ticks, stamp.wall, event);
    s_consumers.CallSynchronous(record, event, stamp.ticks);
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
        const Stamp stamp = s_stampClock.Take(t_thread.wallOffset);
        PutStamp(stamp.ticks, stamp.wall, event);
        s_consumers.CallSynchronousQuietly(record, event, stamp.ticks);
    } catch (const std::bad_alloc&) {
        // No memory for this thread's record: nobody is told.
    }
}

} // namespace Metrics::detail
