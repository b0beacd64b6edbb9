#ifndef METRICS_SRC_EVENT_QUEUE_H
#define METRICS_SRC_EVENT_QUEUE_H

#include "ChunkPool.h"
#include "QueueLimit.h"
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
#include <vector>

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
        std::size_t length; // of Characters; of a Value: the Outside that it holds
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

/// Memory that a record holds outside of the queue: how many bytes, and whether the QueueLimit has
/// been charged for them.
class Outside {
public:
    constexpr Outside() noexcept = default;
    constexpr Outside(std::size_t bytes, bool isCharged) noexcept
        : m_word((bytes << 1) | (isCharged ? 1 : 0)) {}
    static constexpr Outside FromWord(std::size_t word) noexcept {
        Outside outside;
        outside.m_word = word;
        return outside;
    }
    std::size_t Word() const noexcept { return m_word; }
    std::size_t Bytes() const noexcept { return m_word >> 1; }
    std::size_t Charged() const noexcept { return (m_word & 1) != 0 ? Bytes() : 0; }

private:
    std::size_t m_word = 0;
};

/// What a dropped record held, to be destroyed where code of the application may run.
struct Remains {
    std::vector<MetricsValue> values;
    std::vector<std::shared_ptr<MetricsEvent>> events;
};

/// Chunks that were read to their ends. They go back to the pool a few at once, since emitters and
/// the delivery thread pass its top to one another, from core to core; and at the end of a batch.
///
/// Thread-safety: one thread at a time, which is the reader of all queues.
class EmptiedChunks {
public:
    constexpr EmptiedChunks() noexcept = default;

    void Add(Chunk& chunk) noexcept;
    void PutBack() noexcept;

private:
    alignas(64) Chunk* m_first = nullptr; // linked by `next`
    std::uint32_t m_count = 0;
};

extern constinit EmptiedChunks s_emptied;

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
/// 3. A chunk is among s_emptied when m_read has left it. The last chunk stays with the thread.
/// 4. Where m_published stands at the end of a chunk, the next record stands at the beginning of
///    the next chunk; no record begins at the end of one.
/// 5. A queue changes hands only when it is empty and its owner has ended (ThreadTable).
class EventQueue {
public:
    // Owner ------------------------------------------------------------------------------------

    /// Appends an event with two values, none of which is longer than copiedText. The length of a
    /// value that is a MetricsValue is the word of its Outside.
    /// Cost: stores only, but for a chunk from the pool once in 31 events of two numbers.
    /// @return false at the queue limit; nothing was appended and nothing moved from then.
    /// @throws std::bad_alloc; the same.
    bool Append(const Stamp& stamp, const EventHead& head, const Argument& first,
                const Argument& second);

    /// Appends an event that somebody shares. The same otherwise.
    bool Append(const Stamp& stamp, std::shared_ptr<MetricsEvent>&& event, Outside outside);

    /// Behind an Append of values that hold so much.
    void CountOutside(Outside outside) noexcept {
        m_outside.store(m_outside.load(std::memory_order_relaxed) + outside.Bytes(),
                        std::memory_order_relaxed);
    }

    // Delivery thread --------------------------------------------------------------------------

    /// Up to where there are records. Acquire: pairs with the release in Publish.
    std::byte* Published() const noexcept { return m_published.load(std::memory_order_acquire); }

    /// The next record before `end`, which Published has returned; null when there is none.
    Record* Front(const std::byte* end) noexcept {
        std::byte* at = Read();
        if (at == end)
            return nullptr;
        if (Chunk::RoomAt(at) == 0 || Record::At(at)->size == 0) [[unlikely]]
            at = EnterNextChunk();
        return Record::At(at);
    }

    /// Goes on behind the record at the front, whose contents were taken out or destroyed.
    void Pop() noexcept {
        std::byte* const at = Read();
        // Another core has written what follows: it comes while what is before is delivered.
        if (Chunk::RoomAt(at) > fetchedAhead) [[likely]]
            __builtin_prefetch(at + fetchedAhead);
        if (at == Chunk::Of(at)->Begin()) [[unlikely]]
            FetchFollowing(*Chunk::Of(at));
        m_read.store(at + Record::At(at)->size, std::memory_order_relaxed);
        CountTaken(m_taken.load(std::memory_order_relaxed) + 1);
    }
    /// Of a record at the front that holds memory outside: it is being taken out.
    void CountOutsideTaken(Outside outside) noexcept;
    /// Tells the queue limit how far the queue was read.
    void GiveBack() noexcept;

    /// Destroys what Front has returned, without having looked at it.
    void Destroy(Record& record) noexcept;

    /// The same, but what is to be destroyed is left to the caller.
    /// @throws std::bad_alloc; the record is as it was.
    void Destroy(Record& record, Remains& remains);

    /// Drops all records before `end`: whole chunks unread, unless something in them is to be
    /// destroyed. Code of the application may run then.
    void Discard(const std::byte* end) noexcept;

    /// Whether everything that was appended was taken out.
    bool IsEmpty() const noexcept { return Read() == Published(); }

    /// Of an empty queue without an owner: gives the last chunk back.
    void Release() noexcept;

    // Any thread -------------------------------------------------------------------------------

    /// How many records were ever taken out, and ever appended. Read in this order, the first is
    /// not above the second.
    std::uint64_t Taken() const noexcept { return m_taken.load(std::memory_order_acquire); }
    std::uint64_t Appended() const noexcept { return m_appended.load(std::memory_order_relaxed); }

    /// The memory that waiting records take, in the chunks and outside. Exact while nobody appends
    /// or takes. For the one who takes it is off by a chunk at most; for anybody else it may be
    /// larger by what came and went in between.
    std::size_t QueuedBytes() const noexcept;

private:
    static constexpr std::size_t fetchedAhead = 8 * sizeof(Record);

    Record* Reserve(const Stamp& stamp, std::size_t size);
    std::byte* MakeRoom(std::byte* at, std::size_t size);
    std::byte* MakeLimitedRoom(std::byte* at, std::size_t size);
    std::byte* BeginNextChunk(std::byte* at);
    void Publish(Record& record) noexcept;
    std::byte* EnterNextChunk() noexcept;
    static void FetchFollowing(const Chunk& chunk) noexcept;
    std::byte* Read() const noexcept { return m_read.load(std::memory_order_relaxed); }
    void CountTaken(std::uint64_t taken) noexcept {
        // Release: pairs with Taken; what was taken had been appended.
        m_taken.store(taken, std::memory_order_release);
    }

    std::uint64_t PublishedPosition() const noexcept;
    std::byte* RoomEnd() const noexcept { return m_roomEnd.load(std::memory_order_relaxed); }
    void SetRoomEnd(std::byte* end) noexcept { m_roomEnd.store(end, std::memory_order_relaxed); }

    /// Where a pointer into the chunks stands, in bytes from the queue's very beginning.
    static std::uint64_t Position(const std::byte* at, std::uint64_t chunks) noexcept {
        return at == nullptr ? 0 : chunks * Chunk::size - Chunk::RoomAt(at);
    }

    // Written by the owner, read by whoever wants figures. Relaxed, but for the first one.
    std::atomic<std::byte*> m_published{nullptr};
    // Up to where may be written: the chunk's end, or what is granted. Atomic, since whoever takes
    // the queue from an ended thread does not know when that one looked at it last.
    std::atomic<std::byte*> m_roomEnd{nullptr};
    std::atomic<std::uint64_t> m_appended{0};  // records, ever
    std::atomic<const Chunk*> m_last{nullptr}; // which m_published may not have reached yet
    std::atomic<std::uint64_t> m_begun{0};     // chunks, ever, m_last included
    std::atomic<std::uint64_t> m_outside{0};   // bytes, ever
    Chunk* m_first = nullptr;                  // published by the first record

    // Written by the delivery thread, and on another cache line.
    alignas(64) std::atomic<std::byte*> m_read{nullptr};
    std::atomic<std::uint64_t> m_taken{0};
    std::atomic<std::uint64_t> m_entered{0};
    std::atomic<std::uint64_t> m_outsideTaken{0};
    std::size_t m_givenBack = 0; // of the chunk in which m_read stands
};

inline Record* EventQueue::Reserve(const Stamp& stamp, std::size_t size) {
    // Relaxed: the thread's own.
    std::byte* at = m_published.load(std::memory_order_relaxed);
    if (stamp.ticket != 0) [[unlikely]]
        size += sizeof stamp.ticket;
    if (static_cast<std::size_t>(RoomEnd() - at) < size) [[unlikely]] {
        at = MakeRoom(at, size);
        if (at == nullptr)
            return nullptr;
    }
    Record& record = *Record::At(at);
    record.size = size & 0x7FFF; // at most that of a chunk
    record.hasTicket = 0;
    record.ticks = stamp.ticks;
    record.wall = stamp.wall;
    if (stamp.ticket != 0) [[unlikely]] {
        record.hasTicket = 1;
        std::memcpy(at + size - sizeof stamp.ticket, &stamp.ticket, sizeof stamp.ticket);
    }
    return &record;
}

inline void EventQueue::Publish(Record& record) noexcept {
    // Not an addition of its own: nobody else writes it.
    m_appended.store(m_appended.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
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
        slot.length = argument.length;
        ::new (tail) MetricsValue(std::move(*argument.value));
        Chunk::Of(tail)->MarkObjects();
    } else {
        form = static_cast<Record::Form>(argument.form);
        slot.integer = argument.integer; // all eight bytes, whichever number it is
        return tail;
    }
    return tail + TailOf(argument);
}

inline bool EventQueue::Append(const Stamp& stamp, const EventHead& head, const Argument& first,
                               const Argument& second) {
    const bool areNumbers =
        first.form < Argument::Form::Characters && second.form < Argument::Form::Characters;
    Record* const reserved =
        Reserve(stamp, sizeof(Record) + (areNumbers ? 0 : TailOf(first) + TailOf(second)));
    if (reserved == nullptr) [[unlikely]]
        return false;
    Record& record = *reserved;
    record.type = static_cast<std::int32_t>(head.type);
    record.sourceId = head.sourceId;
    record.contextId = head.contextId;
    record.bits = head.bits;
    std::byte* const tail = PutArgument(first, record.first, record.slots[0], record.Tail());
    PutArgument(second, record.second, record.slots[1], tail);
    Publish(record);
    return true;
}

} // namespace Metrics::detail

#endif // METRICS_SRC_EVENT_QUEUE_H
