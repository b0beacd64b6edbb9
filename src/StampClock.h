#ifndef METRICS_SRC_STAMP_CLOCK_H
#define METRICS_SRC_STAMP_CLOCK_H

#include <atomic>
#include <cstdint>
#include <ctime>

namespace Metrics::detail {

/// When an event was accepted.
struct Stamp {
    std::uint64_t ticks;  // steady clock, ns; UpTimeAt makes the up-time of it
    std::uint64_t wall;   // wall clock since 1970, ns; see CurrentUnixTime
    std::uint64_t ticket; // by what events of different threads are put in order; 0: by the ticks
};

/// What turns the steady clock into the wall clock: nanoseconds to be added. One for each thread,
/// so that learning it anew writes to nobody else's cache line. 0: not known.
using WallOffset = std::uint64_t;

/// The clock of the events' stamps: both times for little more than one read of the steady clock.
///
/// The kernel derives its clocks from one counter, so that between two settings of the wall clock
/// the two differ by the very same number of nanoseconds (slewing moves both). The coarse variants,
/// which hold what the last timer tick has stored and cost a tenth, differ by that number too, when
/// no tick comes between the two reads. So the number that the thread knows is right for as long as
/// the coarse clocks differ by it. Otherwise the wall clock itself is read, and the number learnt
/// anew. See clock_gettime(2).
///
/// Where the coarse clocks are not like that, both clocks are read. Where two reads of the steady
/// clock may return the same time although one thread has heard from the other in between, events
/// are put in order by a ticket, drawn from one counter, in place of the clock.
///
/// Thread-safety: safe from any thread at any time.
class StampClock {
public:
    constexpr StampClock() noexcept = default;

    /// Looks what this machine's clocks are like; before the first stamp is taken.
    void Measure() noexcept;

    /// The present time.
    /// Cost: one read of the steady clock and two of a coarse one; no lock, no allocation, and no
    /// system call where the kernel offers the clocks without one (vdso(7)).
    Stamp Take(WallOffset& known) noexcept {
        Stamp stamp; // NOLINT(cppcoreguidelines-pro-type-member-init): all of it is set below
        stamp.ticks = Ticks();
        stamp.ticket = 0;
        const std::uint64_t difference = Read(CLOCK_REALTIME_COARSE) - Read(CLOCK_MONOTONIC_COARSE);
        if (difference == known) [[likely]]
            stamp.wall = stamp.ticks + difference;
        else
            stamp.wall = ReadWall(known);
        // Relaxed: written when the library is enabled, before anything is stamped.
        if (m_drawsTickets.load(std::memory_order_relaxed)) [[unlikely]]
            DrawTicket(stamp);
        return stamp;
    }

    /// The order that all stamps taken from now on are behind or equal to, and that every stamp is
    /// before or equal to whose taking has ended. No load that follows is done before.
    std::uint64_t Now() noexcept;

    /// Nanoseconds of the steady clock.
    static std::uint64_t Ticks() noexcept { return Read(CLOCK_MONOTONIC); }

private:
    static std::uint64_t Read(clockid_t clock) noexcept {
        timespec now; // NOLINT(cppcoreguidelines-pro-type-member-init): set by the call
        clock_gettime(clock, &now); // cannot fail with these clocks and a valid buffer
        return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
               static_cast<std::uint64_t>(now.tv_nsec);
    }
    std::uint64_t ReadWall(WallOffset& known) noexcept;
    void DrawTicket(Stamp& stamp) noexcept;

    // Written by Measure.
    std::atomic<bool> m_drawsTickets{false};
    std::atomic<bool> m_learns{false};
    // Written by every emitter where tickets are drawn; otherwise untouched.
    alignas(64) std::atomic<std::uint64_t> m_tickets{0};
};

extern constinit StampClock s_stampClock;

/// What AppUpTime returned when the steady clock showed this.
std::uint64_t UpTimeAt(std::uint64_t ticks) noexcept;

} // namespace Metrics::detail

#endif // METRICS_SRC_STAMP_CLOCK_H
