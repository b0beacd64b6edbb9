#include "ChunkPool.h"

#include <sys/mman.h>

#include <array>
#include <new>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define METRICS_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define METRICS_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef METRICS_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace Metrics::detail {

constinit ChunkPool s_chunks;

namespace {

constexpr std::size_t pageSize = 4096;

/// AddressSanitizer takes a record that is read after its chunk was given back for the fault that
/// it is.
void Forbid([[maybe_unused]] Chunk& chunk) noexcept {
#ifdef METRICS_ADDRESS_SANITIZER
    ASAN_POISON_MEMORY_REGION(chunk.Begin(), Chunk::size - sizeof(Chunk));
#endif
}
void Allow([[maybe_unused]] Chunk& chunk) noexcept {
#ifdef METRICS_ADDRESS_SANITIZER
    ASAN_UNPOISON_MEMORY_REGION(chunk.Begin(), Chunk::size - sizeof(Chunk));
#endif
}

} // namespace

/// One mapping. The first chunk's place is taken by this.
struct ChunkPool::Slab {
    static constexpr std::size_t size = std::size_t{1} << 20;
    static constexpr std::uint32_t chunks = size / Chunk::size;
    using Bits = std::array<std::atomic<std::uint64_t>, chunks / 64>;

    Slab* next;                         // never changes
    std::atomic<std::uint32_t> used{1}; // chunks that were taken at least once; may run beyond
    Bits cold{};                        // chunks whose pages were given back
    std::array<std::uint64_t, chunks / 64> idle{}; // Trim: chunks that it looks at

    explicit Slab(Slab* n) noexcept : next(n) {}

    Chunk* At(std::uint32_t number) noexcept {
        return reinterpret_cast<Chunk*>(reinterpret_cast<std::byte*>(this) + number * Chunk::size);
    }
    static Slab* Of(Chunk* chunk) noexcept {
        return reinterpret_cast<Slab*>(reinterpret_cast<std::byte*>(chunk) -
                                       (reinterpret_cast<std::uintptr_t>(chunk) & (size - 1)));
    }
    static std::uint32_t NumberOf(const Chunk* chunk) noexcept {
        return static_cast<std::uint32_t>((reinterpret_cast<std::uintptr_t>(chunk) & (size - 1)) /
                                          Chunk::size);
    }

    static Slab* Map(Slab* next) noexcept {
        // Twice as much as needed, since it must begin at a multiple of its size.
        void* const room = mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (room == MAP_FAILED)
            return nullptr;
        auto* const begin = static_cast<std::byte*>(room);
        const std::size_t before = -reinterpret_cast<std::uintptr_t>(begin) & (size - 1);
        std::byte* const aligned = begin + before;
        if (before != 0)
            munmap(begin, before);
        munmap(aligned + size, size - before);
        // A huge page is zeroed whole by whoever touches it first: by an emitter, that is.
        madvise(aligned, size, MADV_NOHUGEPAGE);
        return ::new (aligned) Slab(next);
    }
};

Chunk* ChunkPool::Pop() noexcept {
    // Acquire: what was done with the chunk before it was put here.
    std::uint64_t word = m_top.load(std::memory_order_acquire);
    for (;;) {
        Chunk* const chunk = TopOf(word);
        if (chunk == nullptr)
            return nullptr;
        // Relaxed: used only when the chunk was still on top, and then it was written before that.
        Chunk* const next = chunk->next.load(std::memory_order_relaxed);
        if (m_top.compare_exchange_weak(word, Changed(word, next), std::memory_order_acq_rel,
                                        std::memory_order_acquire)) {
            __builtin_prefetch(next); // another core has written it
            Allow(*chunk);
            return chunk;
        }
    }
}

void ChunkPool::Put(Chunk& first, std::uint32_t count) noexcept {
    Chunk* last = &first;
    Forbid(first);
    for (std::uint32_t i = 1; i < count; ++i) {
        last = last->next.load(std::memory_order_relaxed);
        Forbid(*last);
    }
    std::uint64_t word = m_top.load(std::memory_order_acquire);
    do {
        Chunk* const top = TopOf(word);
        last->next.store(top, std::memory_order_relaxed);
        std::uint32_t below =
            count + (top == nullptr ? 0 : top->below.load(std::memory_order_relaxed) + 1);
        for (Chunk* chunk = &first; chunk != top;
             chunk = chunk->next.load(std::memory_order_relaxed))
            chunk->below.store(--below, std::memory_order_relaxed);
        // Release: all that was done with the chunks. Acquire: the chunk that was on top.
    } while (!m_top.compare_exchange_weak(word, Changed(word, &first), std::memory_order_acq_rel,
                                          std::memory_order_acquire));
}

Chunk* ChunkPool::TakeCold() noexcept {
    if (m_cold.load(std::memory_order_relaxed) == 0)
        return nullptr;
    for (Slab* slab = m_slabs.load(std::memory_order_acquire); slab != nullptr; slab = slab->next) {
        for (std::size_t i = 0; i < slab->cold.size(); ++i) {
            // Acquire: pairs with the release in Trim, which has done with the page.
            std::uint64_t bits = slab->cold[i].load(std::memory_order_acquire);
            while (bits != 0) {
                if (!slab->cold[i].compare_exchange_weak(bits, bits & (bits - 1),
                                                         std::memory_order_acquire))
                    continue;
                m_cold.fetch_sub(1, std::memory_order_relaxed);
                Chunk* const chunk = slab->At(static_cast<std::uint32_t>(64 * i) +
                                              static_cast<std::uint32_t>(std::countr_zero(bits)));
                Allow(*chunk);
                return chunk;
            }
        }
    }
    return nullptr;
}

Chunk* ChunkPool::TakeFresh() noexcept {
    // Acquire: pairs with the release of whoever mapped the slab.
    Slab* slab = m_slabs.load(std::memory_order_acquire);
    for (;;) {
        if (slab != nullptr) {
            // Relaxed: the number alone is drawn here.
            // Looked at before, so that it does not go round where no further slab can be had.
            const std::uint32_t number = slab->used.load(std::memory_order_relaxed) < Slab::chunks
                                             ? slab->used.fetch_add(1, std::memory_order_relaxed)
                                             : Slab::chunks;
            if (number < Slab::chunks) {
                m_fresh.fetch_add(1, std::memory_order_relaxed);
                return slab->At(number);
            }
        }
        Slab* const made = Slab::Map(slab);
        if (made == nullptr)
            return nullptr;
        if (m_slabs.compare_exchange_strong(slab, made, std::memory_order_acq_rel,
                                            std::memory_order_acquire))
            slab = made;
        else
            munmap(made, Slab::size); // another thread's stands there now
    }
}

Chunk& ChunkPool::TakeUntouched() {
    Chunk* chunk = TakeCold();
    if (chunk == nullptr)
        chunk = TakeFresh();
    if (chunk == nullptr)
        throw std::bad_alloc();
    return *chunk; // zeros, which is what an empty chunk is
}

Chunk& ChunkPool::Take() {
    Chunk* const chunk = Pop();
    return chunk != nullptr ? *chunk : TakeUntouched();
}

std::size_t ChunkPool::Free() const noexcept {
    const Chunk* const top = TopOf(m_top.load(std::memory_order_acquire));
    return top == nullptr ? 0 : top->below.load(std::memory_order_relaxed) + std::size_t{1};
}

std::size_t ChunkPool::InUse() const noexcept {
    const std::size_t away = Free() + m_cold.load(std::memory_order_relaxed);
    const std::size_t all = m_fresh.load(std::memory_order_relaxed);
    return all > away ? all - away : 0; // read one after the other, so they may not fit together
}

void ChunkPool::KeepWarm(std::size_t chunks) noexcept {
    for (std::size_t free = Free(); free < chunks; ++free) {
        try {
            Put(TakeUntouched()); // which writes to its page
        } catch (...) {
            return; // no memory: the emitters will see
        }
    }
}

void ChunkPool::Trim(std::size_t chunks) noexcept {
    static_assert(pageSize == 2 * Chunk::size, "two neighbours make a page");
    // The lowest ones are the coldest, but only the topmost can be had: those that stay go back.
    const std::size_t free = Free();
    if (free <= chunks)
        return;
    for (std::size_t i = chunks; i < free; ++i) {
        Chunk* const chunk = Pop();
        if (chunk == nullptr)
            break;
        const std::uint32_t number = Slab::NumberOf(chunk);
        Slab::Of(chunk)->idle[number / 64] |= std::uint64_t{1} << (number % 64);
    }
    for (Slab* slab = m_slabs.load(std::memory_order_acquire); slab != nullptr; slab = slab->next) {
        for (std::size_t i = 0; i < slab->idle.size(); ++i) {
            const std::uint64_t idle = std::exchange(slab->idle[i], 0);
            constexpr std::uint64_t evens = 0x5555555555555555;
            const std::uint64_t pairs = idle & (idle >> 1) & evens;
            const std::uint64_t cold = pairs | (pairs << 1);
            const auto first = static_cast<std::uint32_t>(64 * i);
            for (std::uint64_t rest = idle & ~cold; rest != 0; rest &= rest - 1)
                Put(*slab->At(first + static_cast<std::uint32_t>(std::countr_zero(rest))));
            if (cold == 0)
                continue;
            for (std::uint64_t rest = cold; rest != 0;) { // run by run
                const int begin = std::countr_zero(rest);
                const int length = std::countr_one(rest >> begin);
                madvise(slab->At(first + static_cast<std::uint32_t>(begin)),
                        static_cast<std::size_t>(length) * Chunk::size, MADV_DONTNEED);
                rest &= length == 64 ? 0 : ~(((std::uint64_t{1} << length) - 1) << begin);
            }
            m_cold.fetch_add(static_cast<std::size_t>(std::popcount(cold)),
                             std::memory_order_relaxed);
            slab->cold[i].fetch_or(cold, std::memory_order_release);
        }
    }
}

void ChunkPool::Unmap() noexcept {
    m_top.store(0, std::memory_order_relaxed);
    m_fresh.store(0, std::memory_order_relaxed);
    m_cold.store(0, std::memory_order_relaxed);
    Slab* slab = m_slabs.exchange(nullptr, std::memory_order_acquire);
    while (slab != nullptr) {
        Slab* const next = slab->next;
#ifdef METRICS_ADDRESS_SANITIZER
        ASAN_UNPOISON_MEMORY_REGION(slab, Slab::size);
#endif
        munmap(slab, Slab::size);
        slab = next;
    }
}

} // namespace Metrics::detail
