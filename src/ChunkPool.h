#ifndef METRICS_SRC_CHUNK_POOL_H
#define METRICS_SRC_CHUNK_POOL_H

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace Metrics::detail {

/// A block of memory that one thread fills with records; see EventQueue.
struct alignas(64) Chunk {
    static constexpr std::size_t size = 2048;

    // While it is filled: the chunk that follows in the same queue. While it is free: the one below
    // it in the pool. Atomic, since whoever takes a chunk from the pool may read the link of one
    // that was taken a moment before.
    std::atomic<Chunk*> next;
    std::atomic<std::uint32_t> below; // free: how many lie below it
    std::atomic<bool> hasObjects;     // in use: something in it must be destroyed
    std::uint64_t appended; // full: how many records its queue had come to; published as `next` is
    std::atomic<std::uint32_t> charged; // in use: how much of it the QueueLimit has been charged

    /// Relaxed: published with the record that holds the object.
    void MarkObjects() noexcept { hasObjects.store(true, std::memory_order_relaxed); }

    std::byte* Begin() noexcept { return reinterpret_cast<std::byte*>(this + 1); }

    /// The chunk in which a byte stands.
    static Chunk* Of(std::byte* byte) noexcept {
        return reinterpret_cast<Chunk*>(byte -
                                        (reinterpret_cast<std::uintptr_t>(byte) & (size - 1)));
    }
    static const Chunk* Of(const std::byte* byte) noexcept {
        return reinterpret_cast<const Chunk*>(
            byte - (reinterpret_cast<std::uintptr_t>(byte) & (size - 1)));
    }
    /// How many bytes there are from here to the end of the chunk; 0 at its end, and for null.
    static std::size_t RoomAt(const std::byte* byte) noexcept {
        return -reinterpret_cast<std::uintptr_t>(byte) & (size - 1);
    }
};

/// Where all chunks come from and go back to: emptied ones lie on top, so that whoever takes one
/// next finds it in the caches. Memory comes from mmap(2), in slabs; what was free for long goes
/// back to the system by madvise(2), page by page, while the addresses stay ours.
///
///          Take (mapped first)          Put
///     fresh ---------> in use --------------------> free (warm)
///                       ^  ^        Take             |      |
///                       |  +-------------------------+      | Trim
///                       |           Take                    v
///                       +-------------------------------- cold
///
/// Invariants:
/// 1. A slab stays mapped until Unmap. So the link of any chunk may be read at any time; what is
///    read of one that is not free any more is not used, since the tag of m_top has changed.
/// 2. m_top changes its tag with every change, so that a thread that was held up inside of Take
///    notices that others came by. That the tag comes round to the very same value and chunk
///    meanwhile, after a multiple of 2^28 changes, is the one chance that is taken.
/// 3. Nobody waits: every loop goes on only when another thread has got further.
///
/// Thread-safety: safe from any thread at any time; Trim, KeepWarm and Unmap one thread at a time.
class ChunkPool {
public:
    constexpr ChunkPool() noexcept = default;

    /// A chunk for the calling thread, a warm one if there is any.
    /// Cost: one locked instruction, as Put; maps a slab when there is none.
    /// @throws std::bad_alloc
    Chunk& Take();

    /// Gives a chunk back.
    void Put(Chunk& chunk) noexcept { Put(chunk, 1); }
    /// Gives `count` chunks back, at least one, that are linked by `next`.
    void Put(Chunk& first, std::uint32_t count) noexcept;

    /// Chunks that are in somebody's hands.
    std::size_t InUse() const noexcept;
    /// Chunks that are free and warm.
    std::size_t Free() const noexcept;

    /// Sees to it that some chunks are free and their pages there, so that an emitter is not the
    /// first to touch them.
    void KeepWarm(std::size_t chunks) noexcept;

    /// Gives memory back to the system until about `chunks` are free and warm.
    void Trim(std::size_t chunks) noexcept;

    /// Gives all memory and addresses back; nothing of it may be used any more.
    void Unmap() noexcept;

private:
    struct Slab;

    // The topmost free chunk and a tag, in one word.
    static constexpr int tagShift = 36;
    static Chunk* TopOf(std::uint64_t word) noexcept {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a pointer and a tag fit into one word only so
        return reinterpret_cast<Chunk*>((word & ((std::uint64_t{1} << tagShift) - 1)) *
                                        Chunk::size);
    }
    static std::uint64_t Changed(std::uint64_t word, const Chunk* top) noexcept {
        return (((word >> tagShift) + 1) << tagShift) |
               reinterpret_cast<std::uintptr_t>(top) / Chunk::size;
    }

    Chunk* Pop() noexcept;
    Chunk* TakeCold() noexcept;
    Chunk* TakeFresh() noexcept;
    Chunk& TakeUntouched();

    alignas(64) std::atomic<std::uint64_t> m_top{0};
    alignas(64) std::atomic<Slab*> m_slabs{nullptr}; // newest first
    std::atomic<std::size_t> m_fresh{0};             // chunks ever taken from slabs
    std::atomic<std::size_t> m_cold{0};
};

static_assert(std::countr_zero(Chunk::size) + 36 >= 47,
              "any user-space address fits beside the tag");

extern constinit ChunkPool s_chunks;

} // namespace Metrics::detail

#endif // METRICS_SRC_CHUNK_POOL_H
