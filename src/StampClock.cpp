#include "StampClock.h"

namespace Metrics::detail {

constinit StampClock s_stampClock;

void StampClock::Measure() noexcept {
    constexpr int tries = 100;
    bool fit = true;
    bool tie = false;
    for (int i = 0; i < tries; ++i) {
        WallOffset learnt = 0;
        m_learns.store(true, std::memory_order_relaxed);
        ReadWall(learnt);
        const std::uint64_t before = Read(CLOCK_MONOTONIC);
        const std::uint64_t wall = Read(CLOCK_REALTIME);
        const std::uint64_t after = Read(CLOCK_MONOTONIC);
        // A tick in the middle of it has left nothing learnt, and says nothing.
        fit = fit && (learnt == 0 || (before + learnt <= wall && wall <= after + learnt));
        // Two reads in a row are closer to each other than a message from thread to thread.
        tie = tie || before == after || Read(CLOCK_MONOTONIC) == after;
    }
    m_learns.store(fit, std::memory_order_relaxed);
    m_drawsTickets.store(tie, std::memory_order_relaxed);
}

std::uint64_t StampClock::ReadWall(WallOffset& known) noexcept {
    const std::uint64_t wall = Read(CLOCK_REALTIME);
    if (m_learns.load(std::memory_order_relaxed)) {
        const std::uint64_t before = Read(CLOCK_MONOTONIC_COARSE);
        const std::uint64_t coarse = Read(CLOCK_REALTIME_COARSE);
        if (before == Read(CLOCK_MONOTONIC_COARSE)) // no tick in between
            known = coarse - before;
    }
    return wall;
}

void StampClock::DrawTicket(Stamp& stamp) noexcept {
    // Acquire and release: whoever draws a later one, and whoever reads the number in Now, sees
    // what was published before this one was drawn.
    stamp.ticket = m_tickets.fetch_add(1, std::memory_order_acq_rel) + 1;
}

std::uint64_t StampClock::Now() noexcept {
    if (m_drawsTickets.load(std::memory_order_relaxed))
        return m_tickets.load(std::memory_order_acquire);
    const std::uint64_t now = Ticks();
    // The processor may do a later load before it has read its counter, which is no memory.
#if defined(__x86_64__)
    __builtin_ia32_lfence();
#endif
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return now;
}

} // namespace Metrics::detail
