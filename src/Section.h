#ifndef METRICS_SRC_SECTION_H
#define METRICS_SRC_SECTION_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace Metrics::detail {

/// Says whether its thread is inside a stretch of code: odd inside, even outside.
///
/// Written by one thread, read by the one that waits for it. Every stretch has a number of its own,
/// so that the waiter tells a stretch that lasts from a thread that keeps coming back.
class Section {
public:
    /// @return false when the thread is inside already; only the outermost Enter is left.
    bool Enter() noexcept {
        const std::uint32_t count = m_count.load(std::memory_order_relaxed);
        if ((count & 1) != 0)
            return false;
        // Sequentially consistent, as are the load that follows it and both sides of the waiter:
        // the thread marks itself and looks, the waiter changes what is looked at and reads the
        // marks. At least one of them sees the other. It costs less than 1 ns beside the two clock
        // reads.
        m_count.store(count + 1, std::memory_order_seq_cst);
        return true;
    }

    /// Release: what was done inside comes before what the waiter does once it sees the end.
    void Leave() noexcept {
        m_count.store(m_count.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    /// The waiter's look. Sequentially consistent (thus acquire): pairs with Enter and with Leave.
    std::uint32_t Read() const noexcept { return m_count.load(std::memory_order_seq_cst); }

    static bool IsInside(std::uint32_t count) noexcept { return (count & 1) != 0; }

    /// Begins the use by another thread; ends a stretch that an ended thread never left. Acquires
    /// what that one released last: its appends come before the new owner's, its stack may be
    /// freed.
    void TakeOver() noexcept {
        if (IsInside(Read()))
            Leave();
    }

private:
    std::atomic<std::uint32_t> m_count{0};
};

/// Looks again and again until something has happened that nobody signals: often at first, and then
/// less and less. @return false when it had not by the deadline.
template <class HasHappened>
bool PollUntil(std::chrono::steady_clock::time_point deadline, HasHappened hasHappened) {
    std::chrono::microseconds pause{50};
    while (!hasHappened()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, std::chrono::microseconds(10'000));
    }
    return true;
}

/// Enters a section for the length of a block; nested blocks cost a load.
class SectionGuard {
public:
    explicit SectionGuard(Section& section) noexcept
        : m_section(section.Enter() ? &section : nullptr) {}
    ~SectionGuard() {
        if (m_section != nullptr)
            m_section->Leave();
    }
    SectionGuard(const SectionGuard&) = delete;
    SectionGuard& operator=(const SectionGuard&) = delete;

private:
    Section* m_section;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_SECTION_H
