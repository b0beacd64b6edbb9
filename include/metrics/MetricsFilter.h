#ifndef METRICS_FILTER_H
#define METRICS_FILTER_H

#include <metrics/MetricsExport.h>

#include <atomic>
#include <cstdint>

namespace Metrics {

namespace detail {

/// The manager's mask, on a cache line of its own. It is exported so that a call whose category is
/// off ends in the caller's own code, after one load; change it through the manager only.
struct alignas(64) LiveMask {
    std::atomic<std::uint64_t> m_bits{0};
};

static_assert(sizeof(LiveMask) == 64, "nothing else on its cache line");

extern METRICS_EXPORT LiveMask s_liveMask;

/// The condition, which the compiler takes for false.
inline bool Unlikely(bool condition) noexcept {
    return __builtin_expect(static_cast<long>(condition), 0) != 0;
}

/// TestBits(eventBits, mask), in the caller's own code.
inline bool PassesMask(std::uint64_t eventBits, std::uint64_t mask) noexcept {
    constexpr std::uint64_t categories = ~std::uint64_t{0xFFF};
    return (eventBits & categories) == 0 || (eventBits & categories & mask) != 0;
}

/// TestBits(eventBits), in the caller's own code. What is recorded costs much more than a jump,
/// what is not must cost nothing.
inline bool PassesLiveMask(std::uint64_t eventBits) noexcept {
    // Relaxed: the mask guards nothing. A call that races with a change may go either way.
    const std::uint64_t mask = s_liveMask.m_bits.load(std::memory_order_relaxed);
    // The shared category first: then a constant category costs one test.
    constexpr std::uint64_t categories = ~std::uint64_t{0xFFF};
    return Unlikely((eventBits & mask & categories) != 0 ||
                    (mask != 0 && (eventBits & categories) == 0));
}

} // namespace detail

/// Whether an event of category mask `eventBits` passes a consumer of mask `consumerBits`: true
/// when the event has no category (bits 12 to 63 all clear), else when the two share one.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one call and a few instructions; takes no lock and allocates nothing.
METRICS_EXPORT bool TestBits(std::uint64_t eventBits, std::uint64_t consumerBits) noexcept;

/// Whether the process records events of category mask `eventBits` at all: false while the
/// manager's mask is 0, else the same test against that mask.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one call, a relaxed load and a test; takes no lock and allocates nothing.
METRICS_EXPORT bool TestBits(std::uint64_t eventBits) noexcept;

} // namespace Metrics

#endif // METRICS_FILTER_H
