#ifndef METRICS_SRC_EVENT_QUEUE_H
#define METRICS_SRC_EVENT_QUEUE_H

#include "ChunkPool.h"
#include "StampClock.h"

#include <metrics/MetricsArgument.h>
#include <metrics/MetricsEvent.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace Metrics::detail {

/// memcpy(3) without the call for what labels and names usually are.
inline void CopyCharacters(void* to, const char* from, std::size_t length) noexcept {
    const auto copy = [=](auto word) { // the first and the last one, which may overlap
        std::memcpy(&word, from, sizeof word);
        auto last = word;
        std::memcpy(&last, from + length - sizeof word, sizeof word);
        std::memcpy(to, &word, sizeof word);
        std::memcpy(static_cast<char*>(to) + length - sizeof word, &last, sizeof word);
    };
    if (length > 16)
        std::memcpy(to, from, length);
    else if (length >= 8)
        copy(std::uint64_t{});
    else if (length >= 4)
        copy(std::uint32_t{});
    else if (length >= 2)
        copy(std::uint16_t{});
    else if (length == 1)
        *static_cast<char*>(to) = *from;
}

/// What an event says beside its stamps and values.
struct EventHead {
    MetricsEventType type;
    std::uint64_t sourceId;
    std::uint64_t contextId;
    std::uint64_t bits;
};

/// One event in a queue. What does not fit into the two slots follows behind it: first the
/// characters or MetricsValues of the two values, then the ticket, if events are ordered by one.
struct Record {
    enum class Form : std::uint8_t {
        Integer = 0,
        Boolean = 1,
        Double = 2,
        Characters,
        Value,
        Shared
    };

    // A record of size 0 marks the end of a chunk that is not full to the last byte.
    std::uint16_t size : 15;
    std::uint16_t hasTicket : 1;
    Form first; // Shared: an event of the application's, whose shared pointer fills both slots
    Form second;
    std::int32_t type;
    std::uint64_t ticks; // steady clock, ns
    std::uint64_t wall;  // wall clock since 1970, ns
    std::uint64_t sourceId;
    std::uint64_t contextId;
    std::uint64_t bits;
    union Slot {
        std::int64_t integer;
        double number;
        std::size_t length; // of Characters
    } slots[2];

    std::byte* Tail() noexcept { return reinterpret_cast<std::byte*>(this + 1); }
    static Record* At(std::byte* byte) noexcept { return reinterpret_cast<Record*>(byte); }

    std::shared_ptr<MetricsEvent>& SharedEvent() noexcept {
        return *std::launder(reinterpret_cast<std::shared_ptr<MetricsEvent>*>(slots));
    }
    /// By what the events of all threads are merged.
    std::uint64_t Order() const noexcept {
        if (hasTicket == 0) [[likely]]
            return ticks;
        std::uint64_t ticket = 0;
        std::memcpy(&ticket, reinterpret_cast<const std::byte*>(this) + size - sizeof ticket,
                    sizeof ticket);
        return ticket;
    }
};

static_assert(
    sizeof(Record) == 64 && sizeof(Chunk) == 64,
    "an event of two numbers is one cache line, and begins at one where no text came before");
static_assert(sizeof(std::shared_ptr<MetricsEvent>) <= sizeof(Record::slots));

/// What waits of one thread's events: records in chunks, of which only that thread writes and only
/// the delivery thread reads, neither ever waiting for the other.
///
///     first chunk            next                     next
///     +--------------------+ ---> +------------------+ ---> +-----------------+
///     | read | read | A | B |     | C | D | E |(end) |      | F | G |  free   |
///     +--------------------+      +------------------+      +-----------------+
///                    ^ m_read                                        ^ m_published
///
/// Invariants:
/// 1. Only the owning thread appends. It writes a record behind m_published, and then moves
///    m_published behind the record with one release store: that alone makes the record, the link
///    to its chunk and the end mark before that chunk visible. A thread that is stopped or ends
///    before that store has appended nothing.
/// 2. Only the delivery thread moves m_read, up to a value of m_published that it has acquired. It
///    follows the link of a chunk only when m_read has not reached that value, so the link is
///    there.
/// 3. A chunk goes back to the pool when m_read has left it. The last one stays with the thread.
/// 4. Where m_published stands at the end of a chunk, the next record stands at the beginning of
///    the next chunk; no record begins at the end of one.
/// 5. A queue changes hands only when it is empty and its owner has ended (ThreadTable).
class EventQueue {
public:
    // Owner ------------------------------------------------------------------------------------

    /// Appends an event with two values, none of which is longer than copiedText.
    /// Cost: stores only, but for a chunk from the pool once in 31 events of two numbers.
    /// @throws std::bad_alloc; nothing was appended and nothing moved from then.
    void Append(const Stamp& stamp, const EventHead& head, const Argument& first,
                const Argument& second);

    /// Appends an event that somebody shares.
    /// @throws std::bad_alloc; nothing was appended and nothing moved from then.
    void Append(const Stamp& stamp, std::shared_ptr<MetricsEvent>&& event);

    // Delivery thread --------------------------------------------------------------------------

    /// Up to where there are records. Acquire: pairs with the release in Publish.
    std::byte* Published() const noexcept { return m_published.load(std::memory_order_acquire); }

    /// The next record before `end`, which Published has returned; null when there is none.
    Record* Front(const std::byte* end) noexcept {
        if (m_read == end)
            return nullptr;
        if (Chunk::RoomAt(m_read) == 0 || Record::At(m_read)->size == 0) [[unlikely]]
            EnterNextChunk();
        return Record::At(m_read);
    }

    /// Goes on behind the record at the front, whose contents were taken out or destroyed.
    void Pop() noexcept { m_read += Record::At(m_read)->size; }

    /// Destroys what Front has returned, without having looked at it.
    static void Destroy(Record& record) noexcept;

    /// Drops all records before `end`: whole chunks unread, unless something in them is to be
    /// destroyed. Code of the application may run then.
    void Discard(const std::byte* end) noexcept;

    /// Whether everything that was appended was taken out.
    bool IsEmpty() const noexcept { return m_read == Published(); }

    /// Of an empty queue without an owner: gives the last chunk back.
    void Release() noexcept;

private:
    Record& Reserve(const Stamp& stamp, std::size_t size);
    std::byte* BeginNextChunk(std::byte* at);
    void Publish(Record& record) noexcept;
    void EnterNextChunk() noexcept;

    // Written by the owner. What it has no need to publish it derives from m_published.
    std::atomic<std::byte*> m_published{nullptr};
    Chunk* m_first = nullptr; // published by the first record

    // Written by the delivery thread, and on another cache line.
    alignas(64) std::byte* m_read = nullptr;
};

inline Record& EventQueue::Reserve(const Stamp& stamp, std::size_t size) {
    // Relaxed: the thread's own.
    std::byte* at = m_published.load(std::memory_order_relaxed);
    if (stamp.ticket != 0) [[unlikely]]
        size += sizeof stamp.ticket;
    if (Chunk::RoomAt(at) < size) [[unlikely]]
        at = BeginNextChunk(at);
    Record& record = *Record::At(at);
    record.size = size & 0x7FFF; // at most that of a chunk
    record.hasTicket = 0;
    record.ticks = stamp.ticks;
    record.wall = stamp.wall;
    if (stamp.ticket != 0) [[unlikely]] {
        record.hasTicket = 1;
        std::memcpy(at + size - sizeof stamp.ticket, &stamp.ticket, sizeof stamp.ticket);
    }
    return record;
}

inline void EventQueue::Publish(Record& record) noexcept {
    // Release: invariant 1.
    m_published.store(reinterpret_cast<std::byte*>(&record) + record.size,
                      std::memory_order_release);
}

/// What an argument takes behind the record.
inline std::size_t TailOf(const Argument& argument) noexcept {
    if (argument.form == Argument::Form::Characters)
        return (argument.length + 7) & ~std::size_t{7};
    return argument.form == Argument::Form::Value ? sizeof(MetricsValue) : 0;
}

/// Puts an argument into its slot, and what does not fit there to `tail`. @return its end.
[[gnu::always_inline]] inline std::byte* PutArgument(const Argument& argument, Record::Form& form,
                                                     Record::Slot& slot, std::byte* tail) noexcept {
    if (argument.form == Argument::Form::Characters) {
        form = Record::Form::Characters;
        slot.length = argument.length;
        CopyCharacters(tail, argument.characters, argument.length);
    } else if (argument.form == Argument::Form::Value) {
        form = Record::Form::Value;
        ::new (tail) MetricsValue(std::move(*argument.value));
        Chunk::Of(tail)->MarkObjects();
    } else {
        form = static_cast<Record::Form>(argument.form);
        slot.integer = argument.integer; // all eight bytes, whichever number it is
        return tail;
    }
    return tail + TailOf(argument);
}

inline void EventQueue::Append(const Stamp& stamp, const EventHead& head, const Argument& first,
                               const Argument& second) {
    const bool areNumbers =
        first.form < Argument::Form::Characters && second.form < Argument::Form::Characters;
    Record& record =
        Reserve(stamp, sizeof(Record) + (areNumbers ? 0 : TailOf(first) + TailOf(second)));
    record.type = static_cast<std::int32_t>(head.type);
    record.sourceId = head.sourceId;
    record.contextId = head.contextId;
    record.bits = head.bits;
    std::byte* const tail = PutArgument(first, record.first, record.slots[0], record.Tail());
    PutArgument(second, record.second, record.slots[1], tail);
    Publish(record);
}

} // namespace Metrics::detail

#endif // METRICS_SRC_EVENT_QUEUE_H
