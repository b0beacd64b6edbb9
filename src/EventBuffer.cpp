#include "EventBuffer.h"

#ifndef METRICS_PLAIN_MALLOC
#include <oneapi/tbb/cache_aligned_allocator.h>
#include <oneapi/tbb/scalable_allocator.h>
#endif

#include <algorithm>

namespace Metrics::detail {

namespace {

// The sanitizers do not see into TBB's allocator, so their builds use the ordinary one.
#ifdef METRICS_PLAIN_MALLOC
template <class T>
using ChunkAllocator = std::allocator<T>;
#else
template <class T>
using ChunkAllocator = tbb::cache_aligned_allocator<T>;
#endif

template <class T>
T* NewChunk() {
    ChunkAllocator<T> allocator;
    return ::new (allocator.allocate(1)) T; // the slots' constructors do not throw
}

template <class T>
void DeleteChunk(T* chunk) noexcept {
    ChunkAllocator<T> allocator;
    allocator.deallocate(chunk, 1); // every slot is empty
}

} // namespace

EventBuffer::~EventBuffer() {
    Walk([](const MetricsEvent&) { return true; }, [] {});
    Trim(0);
}

EventBuffer::Chunk& EventBuffer::FindOrAllocate(std::size_t number) {
    // Whoever finds something missing makes it and offers it. Several may at once; one offer is
    // taken and the others are dropped, so that nobody waits for a thread that was interrupted.
    const Place place = PlaceOf(number);
    auto* level = m_firstLevel.data();
    if (place.level > 0) {
        level = m_levels[place.level].load(std::memory_order_acquire);
        if (level == nullptr) {
            auto* const made = new ChunkPtr[LevelSize(place.level)]();
            // Release: the zeroed level. Acquire: the level of the thread that came first.
            if (m_levels[place.level].compare_exchange_strong(level, made,
                                                              std::memory_order_acq_rel))
                level = made;
            else
                delete[] made;
        }
    }
    Chunk* chunk = level[place.offset].load(std::memory_order_acquire);
    if (chunk == nullptr) {
        auto* const made = NewChunk<Chunk>();
        // As above, for the emptied slots.
        if (level[place.offset].compare_exchange_strong(chunk, made, std::memory_order_acq_rel))
            chunk = made;
        else
            DeleteChunk(made);
    }
    return *chunk;
}

EventBuffer::ChunkPtr* EventBuffer::Find(std::size_t number) noexcept {
    // Relaxed, here and in Trim: the walk waited for every append.
    const Place place = PlaceOf(number);
    ChunkPtr* const level = place.level == 0
                                ? m_firstLevel.data()
                                : m_levels[place.level].load(std::memory_order_relaxed);
    return level == nullptr ? nullptr : level + place.offset;
}

void EventBuffer::AppendShutdown() noexcept {
    // Relaxed, as in Claim: the end of the append section publishes both.
    const std::size_t index = m_size.fetch_add(1, std::memory_order_relaxed);
    std::size_t first = m_shutdown.load(std::memory_order_relaxed);
    while (index < first &&
           !m_shutdown.compare_exchange_weak(first, index, std::memory_order_relaxed)) {}
}

std::size_t EventBuffer::Trim(std::size_t events) noexcept {
    const std::size_t keep = (events + slotsPerChunk - 1) / slotsPerChunk;
    std::size_t freed = 0;
    m_chunkCount = 0;
    for (std::size_t level = 0, number = 0; level < levelCount; ++level) {
        ChunkPtr* const chunks =
            level == 0 ? m_firstLevel.data() : m_levels[level].load(std::memory_order_relaxed);
        if (chunks == nullptr) {
            number += LevelSize(level);
            continue;
        }
        const bool keepLevel = level == 0 || number < keep;
        for (std::size_t i = 0; i < LevelSize(level); ++i, ++number) {
            Chunk* const chunk = chunks[i].load(std::memory_order_relaxed);
            if (chunk == nullptr)
                continue;
            if (number < keep) {
                ++m_chunkCount;
                continue;
            }
            DeleteChunk(chunk);
            chunks[i].store(nullptr, std::memory_order_relaxed);
            ++freed;
        }
        if (!keepLevel) {
            m_levels[level].store(nullptr, std::memory_order_relaxed);
            delete[] chunks;
        }
    }
    return freed * slotsPerChunk;
}

void EventBuffer::ReturnMemory() noexcept {
    // For the whole process: a host that uses this allocator gets its unused memory returned, too.
#ifndef METRICS_PLAIN_MALLOC
    scalable_allocation_command(TBBMALLOC_CLEAN_ALL_BUFFERS, nullptr);
#endif
}

} // namespace Metrics::detail
