#ifndef METRICS_SRC_EVENT_BUFFER_H
#define METRICS_SRC_EVENT_BUFFER_H

#include <metrics/MetricsEvent.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace Metrics::detail {

/// An append-only buffer of events. Any number of threads append, none of them ever waiting for
/// another; later one thread walks what was appended, in order, and empties it.
///
/// The manager has two of them, and a pointer to the one that emitters append to:
///
///              Enable                 swap               no append in it left
///     free ---------------> filling ---------> swapped --------------------> draining
///      ^                    (m_queue)                                            |
///      +-------------------------------------------------------------------------+
///                                   walked and emptied
///
/// Invariants:
/// 1. From the start to the end of the delivery, only its thread moves a buffer from one state to
///    another; at most one is filling.
/// 2. A thread appends only inside its append section (ThreadTable), to the buffer that m_queue
///    named after it had entered. So once m_queue names another buffer and every section that was
///    entered before is left, no append into the old one is in progress, and none can begin.
/// 3. A buffer is walked and emptied only when draining, that is after 2.
/// 4. An append takes its index before it returns, from one counter: of two appends of which one
///    began after the other had returned, the later one has the higher index, or stands in a buffer
///    that is filled later.
/// 5. A slot is empty until its appender fills it. A slot stays empty for good when its chunk could
///    not be allocated; only that event is lost.
/// 6. Nothing from the first Shutdown on is walked. Shutdown takes an index and no slot, so that it
///    cannot be lost.
class EventBuffer {
public:
    EventBuffer() noexcept = default;
    ~EventBuffer();
    EventBuffer(const EventBuffer&) = delete;
    EventBuffer& operator=(const EventBuffer&) = delete;

    /// Appends an event that is built in place: its fields and values are moved in.
    ///
    /// Wait-free but for the allocation of a chunk, once in slotsPerChunk events at the most.
    /// @throws std::bad_alloc; the event is lost then, and nothing else.
    void Append(MetricsEventType type, std::uint64_t sourceId, std::uint64_t contextId,
                std::uint64_t bits, std::uint64_t timestamp, std::uint64_t unixSeconds,
                std::uint32_t unixMicroseconds, MetricsValue&& param1, MetricsValue&& param2) {
        Slot& slot = Claim();
        ::new (&slot.event) MetricsEvent{type,
                                         sourceId,
                                         contextId,
                                         bits,
                                         timestamp,
                                         unixSeconds,
                                         unixMicroseconds,
                                         std::move(param1),
                                         std::move(param2)};
        slot.content = Content::Event;
    }

    /// Appends an event that somebody shares.
    /// @throws std::bad_alloc; the event is lost then, and nothing else.
    void Append(std::shared_ptr<MetricsEvent>&& event) {
        Slot& slot = Claim();
        ::new (&slot.shared) std::shared_ptr<MetricsEvent>(std::move(event));
        slot.content = Content::Shared;
    }

    /// Appends the end: nothing behind it is walked.
    void AppendShutdown() noexcept;

    /// Whether nothing was appended since the last walk.
    bool IsEmpty() const noexcept { return Size() == 0; }

    /// The number of appends since the last walk, failed ones included.
    std::size_t Size() const noexcept { return m_size.load(std::memory_order_relaxed); }

    /// Draining only: calls `deliver` with each event in order, up to Shutdown, and empties the
    /// buffer. Events are freed a chunk at a time, after a call of `beforeFreeing`: code of the
    /// application may run then. Neither function throws. When `deliver` returns false, the walk
    /// ends at once and leaves all as it is.
    /// @return whether Shutdown was reached.
    template <class Deliver, class BeforeFreeing>
    bool Walk(Deliver deliver, BeforeFreeing beforeFreeing);

    /// Draining or free only: gives memory back, so that room for about `events` is kept.
    /// @return the number of events for which there is no room any more.
    std::size_t Trim(std::size_t events) noexcept;

    /// Has the allocator return to the system what Trim gave back to it. Takes milliseconds when
    /// that is much.
    static void ReturnMemory() noexcept;

    /// Delivery thread only: the number of events that had room after the last walk.
    std::size_t Capacity() const noexcept { return m_chunkCount * slotsPerChunk; }

    static constexpr std::size_t slotsPerChunk = 256;

private:
    enum class Content : std::uint32_t { Nothing, Event, Shared };

    struct alignas(32) Slot {
        Slot() noexcept {}
        ~Slot() {}
        union {
            MetricsEvent event;
            std::shared_ptr<MetricsEvent> shared;
        };
        Content content = Content::Nothing;
    };
    // Slots of three whole cache lines measured no faster with two threads, and a fifth larger.
    static_assert(sizeof(Slot) == 160, "an event and a word");

    using Chunk = std::array<Slot, slotsPerChunk>;
    using ChunkPtr = std::atomic<Chunk*>;

    // Chunks are found through a directory: a first level here, and further ones, each as large as
    // all before it, on the heap.
    static constexpr std::size_t firstLevelChunks = 256;
    static constexpr std::size_t levelCount = 40;

    Slot& Claim() {
        // Relaxed: the index alone orders the appends. What is in the slots is published by the
        // end of the append section, on which the walk waits.
        const std::size_t index = m_size.fetch_add(1, std::memory_order_relaxed);
        const std::size_t number = index / slotsPerChunk;
        Chunk* chunk = nullptr;
        if (number < firstLevelChunks) [[likely]]
            // Acquire: pairs with the release of the thread that allocated the chunk.
            chunk = m_firstLevel[number].load(std::memory_order_acquire);
        if (chunk == nullptr) [[unlikely]]
            chunk = &FindOrAllocate(number);
        return (*chunk)[index % slotsPerChunk];
    }

    struct Place {
        std::size_t level;  // 0: the first level
        std::size_t offset; // within it
    };
    static constexpr Place PlaceOf(std::size_t number) noexcept {
        const auto level = static_cast<std::size_t>(std::bit_width(number / firstLevelChunks));
        const std::size_t base = level == 0 ? 0 : firstLevelChunks << (level - 1);
        return {level, number - base};
    }
    static constexpr std::size_t LevelSize(std::size_t level) noexcept {
        return level == 0 ? firstLevelChunks : firstLevelChunks << (level - 1);
    }

    Chunk& FindOrAllocate(std::size_t number);
    ChunkPtr* Find(std::size_t number) noexcept;
    static void Clear(Slot& slot) noexcept;

    static constexpr std::size_t noShutdown = std::numeric_limits<std::size_t>::max();

    // Written by every appender, and alone on its cache line.
    alignas(64) std::atomic<std::size_t> m_size{0};

    // Written when the buffer grows; read by every appender.
    alignas(64) std::array<ChunkPtr, firstLevelChunks> m_firstLevel{};
    std::array<std::atomic<ChunkPtr*>, levelCount> m_levels{}; // element 0 is unused
    std::atomic<std::size_t> m_shutdown{noShutdown};           // index of the first Shutdown
    std::size_t m_chunkCount = 0; // delivery thread: chunks that were there after the last walk
};

inline void EventBuffer::Clear(Slot& slot) noexcept {
    switch (std::exchange(slot.content, Content::Nothing)) {
    case Content::Event:
        slot.event.~MetricsEvent();
        break;
    case Content::Shared:
        slot.shared.~shared_ptr();
        break;
    case Content::Nothing:
        break;
    }
}

template <class Deliver, class BeforeFreeing>
bool EventBuffer::Walk(Deliver deliver, BeforeFreeing beforeFreeing) {
    // Relaxed: every append has ended before (invariants 2 and 3).
    const std::size_t size = m_size.load(std::memory_order_relaxed);
    const std::size_t end = m_shutdown.load(std::memory_order_relaxed);
    for (std::size_t first = 0; first < size; first += slotsPerChunk) {
        ChunkPtr* const place = Find(first / slotsPerChunk);
        Chunk* const chunk = place == nullptr ? nullptr : place->load(std::memory_order_relaxed);
        if (chunk == nullptr)
            continue;
        const std::size_t filled = std::min(slotsPerChunk, size - first);
        for (std::size_t i = 0; i < filled && first + i < end; ++i) {
            const Slot& slot = (*chunk)[i];
            if (slot.content == Content::Nothing)
                continue;
            if (!deliver(slot.content == Content::Event ? slot.event : std::as_const(*slot.shared)))
                return false;
        }
        beforeFreeing();
        for (std::size_t i = 0; i < filled; ++i)
            Clear((*chunk)[i]);
    }
    m_size.store(0, std::memory_order_relaxed);
    m_shutdown.store(noShutdown, std::memory_order_relaxed);
    return end < size;
}

} // namespace Metrics::detail

#endif // METRICS_SRC_EVENT_BUFFER_H
