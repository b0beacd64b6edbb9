#include "EventQueue.h"

#include <algorithm>

namespace Metrics::detail {

static_assert(sizeof(Record) + 2 * copiedText + sizeof(std::uint64_t) <=
                  Chunk::size - sizeof(Chunk),
              "any record fits into a chunk");
static_assert(2 * sizeof(MetricsValue) <= 2 * copiedText);
static_assert(alignof(MetricsValue) == 8 && alignof(Record) == 8,
              "records stand at multiples of 8");
static_assert((Chunk::size - sizeof(Chunk)) / sizeof(Record) == 31);

constinit EmptiedChunks s_emptied;

void EmptiedChunks::Add(Chunk& chunk) noexcept {
    constexpr std::uint32_t most = 8;
    chunk.next.store(m_first, std::memory_order_relaxed);
    m_first = &chunk;
    ++m_count;
    // They are not charged any more: a small limit is not exceeded by much for their sake.
    const std::uint64_t limit = s_queueLimit.Bytes();
    if (m_count == most || (limit != 0 && m_count * Chunk::size > limit / 64))
        PutBack();
}

void EmptiedChunks::PutBack() noexcept {
    if (m_count != 0)
        s_chunks.Put(*std::exchange(m_first, nullptr), std::exchange(m_count, 0));
}

std::byte* EventQueue::BeginNextChunk(std::byte* at) {
    Chunk& chunk = s_chunks.Take(); // may throw, before anything has changed
    // Relaxed, here and below: published by the first record of the new chunk.
    chunk.next.store(nullptr, std::memory_order_relaxed);
    chunk.hasObjects.store(false, std::memory_order_relaxed);
    chunk.charged.store(0, std::memory_order_relaxed);
    if (at == nullptr) {
        m_first = &chunk;
    } else {
        Chunk* const full = Chunk::Of(at - 1);
        full->appended = m_appended.load(std::memory_order_relaxed);
        full->next.store(&chunk, std::memory_order_relaxed);
        if (Chunk::RoomAt(at) != 0)
            Record::At(at)->size = 0; // the end mark
    }
    // Release: whoever sees that it has begun sees which one it is.
    m_last.store(&chunk, std::memory_order_relaxed);
    m_begun.store(m_begun.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    SetRoomEnd(reinterpret_cast<std::byte*>(&chunk) + Chunk::size);
    return chunk.Begin();
}

std::byte* EventQueue::MakeRoom(std::byte* at, std::size_t size) {
    if (s_queueLimit.IsSet()) [[unlikely]]
        return MakeLimitedRoom(at, size);
    const std::size_t room = Chunk::RoomAt(at);
    if (room < size)
        return BeginNextChunk(at);
    SetRoomEnd(at + room); // there was a limit when the last grant was made
    return at;
}

std::byte* EventQueue::MakeLimitedRoom(std::byte* at, std::size_t size) {
    for (;;) {
        const std::size_t room = Chunk::RoomAt(at);
        const auto granted = static_cast<std::size_t>(RoomEnd() - at); // less than is needed
        const bool isNew = room < size;
        // What stays unused at the end of a chunk is taken as well, and so is the head of the next.
        const std::size_t fixed = isNew ? room - granted + sizeof(Chunk) : 0;
        const std::size_t least = fixed + size - (isNew ? 0 : granted);
        const std::size_t wanted =
            std::max(least, std::min(isNew ? fixed + Chunk::size - sizeof(Chunk) : room - granted,
                                     fixed + s_queueLimit.Grant()));
        std::size_t taken = wanted;
        if (!s_queueLimit.Take(wanted)) {
            taken = least;
            if (!s_queueLimit.TakeOrMakeRoom(least))
                return nullptr;
        }
        // Relaxed: the thread's own. Code of the application may have run, and emitted.
        if (std::byte* const now = m_published.load(std::memory_order_relaxed); now != at)
            [[unlikely]] {
            s_queueLimit.Give(taken);
            if (static_cast<std::size_t>(RoomEnd() - now) >= size)
                return now;
            at = now;
            continue;
        }
        if (!isNew) {
            std::atomic<std::uint32_t>& charged = Chunk::Of(at - 1)->charged;
            charged.store(charged.load(std::memory_order_relaxed) +
                              static_cast<std::uint32_t>(taken),
                          std::memory_order_relaxed);
            SetRoomEnd(RoomEnd() + taken);
            return at;
        }
        std::byte* begin = nullptr;
        try {
            begin = BeginNextChunk(at);
        } catch (...) {
            s_queueLimit.Give(taken);
            throw;
        }
        const std::size_t rest = room - granted;
        if (rest != 0) {
            std::atomic<std::uint32_t>& charged = Chunk::Of(at - 1)->charged;
            charged.store(charged.load(std::memory_order_relaxed) +
                              static_cast<std::uint32_t>(rest),
                          std::memory_order_relaxed);
        }
        Chunk::Of(begin)->charged.store(static_cast<std::uint32_t>(taken - rest),
                                        std::memory_order_relaxed);
        SetRoomEnd(begin + (taken - rest - sizeof(Chunk)));
        return begin;
    }
}

bool EventQueue::Append(const Stamp& stamp, std::shared_ptr<MetricsEvent>&& event,
                        Outside outside) {
    Record* const reserved = Reserve(stamp, sizeof(Record));
    if (reserved == nullptr)
        return false;
    Record& record = *reserved;
    record.type = static_cast<std::int32_t>(event->eventType);
    record.first = record.second = Record::Form::Shared;
    record.bits = outside.Word();
    ::new (record.slots) std::shared_ptr<MetricsEvent>(std::move(event));
    Chunk::Of(record.Tail() - 1)->MarkObjects();
    Publish(record);
    CountOutside(outside);
    return true;
}

std::byte* EventQueue::EnterNextChunk() noexcept {
    std::byte* const at = Read();
    Chunk* const left = at == nullptr ? nullptr : Chunk::Of(at - 1);
    // Relaxed: published with a record behind it, which was seen.
    Chunk* const next = left == nullptr ? m_first : left->next.load(std::memory_order_relaxed);
    m_entered.store(m_entered.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    m_read.store(next->Begin(), std::memory_order_release);
    if (left != nullptr) { // behind that: what others are granted of it is not counted as queued
        s_queueLimit.Give(left->charged.load(std::memory_order_relaxed) - m_givenBack);
        m_givenBack = 0;
        s_emptied.Add(*left);
    }
    return next->Begin();
}

void EventQueue::FetchFollowing(const Chunk& chunk) noexcept {
    // Relaxed: nothing is read through it here, and it is null while there is none.
    Chunk* const next = chunk.next.load(std::memory_order_relaxed);
    for (std::size_t i = 0; next != nullptr && i <= fetchedAhead / sizeof(Record); ++i)
        __builtin_prefetch(next + i); // with its own link
}

void EventQueue::GiveBack() noexcept {
    const std::byte* const at = Read();
    if (at == nullptr)
        return;
    // What the owner is granted meanwhile lies behind.
    const std::size_t charged = Chunk::Of(at - 1)->charged.load(std::memory_order_relaxed);
    const std::size_t done = std::min(charged, Chunk::size - Chunk::RoomAt(at));
    if (done > m_givenBack)
        s_queueLimit.Give(done - std::exchange(m_givenBack, done));
}

void EventQueue::CountOutsideTaken(Outside outside) noexcept {
    if (outside.Bytes() == 0)
        return;
    s_queueLimit.Give(outside.Charged());
    m_outsideTaken.store(m_outsideTaken.load(std::memory_order_relaxed) + outside.Bytes(),
                         std::memory_order_relaxed);
}

std::size_t EventQueue::QueuedBytes() const noexcept {
    const auto below = [](std::uint64_t taken, std::uint64_t all) {
        return static_cast<std::size_t>(all > taken ? all - taken : 0);
    };
    // What was taken first, so that the difference is rather too large than too small. Acquire:
    // once the queue was released, nothing of before is seen as appended.
    const std::byte* const read = m_read.load(std::memory_order_acquire);
    const std::uint64_t taken = Position(read, m_entered.load(std::memory_order_acquire));
    const std::uint64_t outsideTaken = m_outsideTaken.load(std::memory_order_relaxed);
    return below(taken, PublishedPosition()) +
           below(outsideTaken, m_outside.load(std::memory_order_relaxed));
}

std::uint64_t EventQueue::PublishedPosition() const noexcept {
    // A chunk begins before anything in it is published. Never too much, then: what is published is
    // in the last of the chunks that had begun before, or in the one before that.
    const std::uint64_t begun = m_begun.load(std::memory_order_acquire);
    const std::byte* const at = Published();
    if (at == nullptr || begun == 0)
        return 0;
    const bool isInLast = Chunk::Of(at - 1) == m_last.load(std::memory_order_relaxed);
    return Position(at, isInLast ? begun : begun - 1);
}

namespace {

/// Calls `see(value, outside)` for each MetricsValue in the record.
template <class See>
void ForEachValue(Record& record, See see) {
    std::byte* tail = record.Tail();
    const auto look = [&](Record::Form form, const Record::Slot& slot) {
        if (form == Record::Form::Characters) {
            tail += (slot.length + 7) & ~std::size_t{7};
        } else if (form == Record::Form::Value) {
            see(*std::launder(reinterpret_cast<MetricsValue*>(tail)),
                Outside::FromWord(slot.length));
            tail += sizeof(MetricsValue);
        }
    };
    look(record.first, record.slots[0]);
    look(record.second, record.slots[1]);
}

} // namespace

void EventQueue::Destroy(Record& record) noexcept {
    if (record.first == Record::Form::Shared) {
        CountOutsideTaken(Outside::FromWord(record.bits));
        record.SharedEvent().~shared_ptr();
        return;
    }
    ForEachValue(record, [this](MetricsValue& value, Outside outside) {
        CountOutsideTaken(outside);
        value.~MetricsValue();
    });
}

void EventQueue::Destroy(Record& record, Remains& remains) {
    if (record.first == Record::Form::Shared) {
        remains.events.push_back(record.SharedEvent());
    } else {
        // Or it throws in the middle. Twice as much: as much as needed would be copied each time.
        if (remains.values.capacity() - remains.values.size() < 2)
            remains.values.reserve(2 * remains.values.capacity() + 2);
        ForEachValue(record, [&remains](MetricsValue& value, Outside) {
            remains.values.push_back(std::move(value));
        });
    }
    Destroy(record);
}

void EventQueue::Discard(const std::byte* end) noexcept {
    while (Read() != end) {
        Record& front = *Front(end); // enters the chunk
        std::byte* const at = Read();
        Chunk* const chunk = Chunk::Of(at);
        const bool isWhole = chunk != Chunk::Of(end - 1) && at == chunk->Begin();
        if (isWhole && !chunk->hasObjects.load(std::memory_order_relaxed)) {
            // Its end: the next one follows.
            m_read.store(reinterpret_cast<std::byte*>(chunk) + Chunk::size,
                         std::memory_order_relaxed);
            CountTaken(chunk->appended);
            continue;
        }
        Destroy(front);
        Pop();
    }
}

void EventQueue::Release() noexcept {
    std::byte* const at = Read();
    if (at == nullptr)
        return;
    Chunk* const last = Chunk::Of(at - 1);
    s_queueLimit.Give(last->charged.load(std::memory_order_relaxed) - m_givenBack);
    m_givenBack = 0;
    s_chunks.Put(*last);
    m_first = nullptr;
    SetRoomEnd(nullptr);
    // What was appended first: see QueuedBytes.
    m_published.store(nullptr, std::memory_order_relaxed);
    m_begun.store(0, std::memory_order_relaxed);
    m_entered.store(0, std::memory_order_release);
    m_read.store(nullptr, std::memory_order_release);
}

} // namespace Metrics::detail
