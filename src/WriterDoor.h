#ifndef METRICS_SRC_WRITER_DOOR_H
#define METRICS_SRC_WRITER_DOOR_H

#include <korsys/TEvent.h>

#include <atomic>
#include <chrono>
#include <utility>

namespace Metrics::detail {

/// The door of what one thread writes and another one closes, at any moment and without waiting for
/// a write longer than it likes. Whoever is last, the writer that is still inside or the one that
/// closes, tidies up: once, and when nobody writes any more.
///
///     Open ── Enter ──> Inside ── Leave ──> Open
///      │                  │
///      │ Close            │ Close
///      v                  v
///    Closed <── Leave ── Closing
///
/// Thread-safety: Enter and Leave are one thread's; Close is another's, one thread at a time.
/// Cost: to enter and to leave are one atomic operation each; no lock.
class WriterDoor {
public:
    /// @return false once it is closed; only who has entered leaves.
    bool Enter() noexcept {
        State expected = State::Open;
        // Acquire and release: what one stretch inside leaves behind, the next one or the tidying
        // finds.
        return m_state.compare_exchange_strong(expected, State::Inside, std::memory_order_acquire);
    }

    /// Inside: whether the door was closed meanwhile.
    bool IsClosing() const noexcept {
        return m_state.load(std::memory_order_relaxed) == State::Closing;
    }

    /// Calls `tidy` when the door was closed meanwhile.
    template <class Tidy>
    void Leave(Tidy&& tidy) {
        State expected = State::Inside;
        if (m_state.compare_exchange_strong(expected, State::Open, std::memory_order_release))
            return;
        tidy();
        m_state.store(State::Closed, std::memory_order_release);
        m_tidied.Signal();
    }

    /// Nobody enters any more. Calls `tidy` when nobody is inside; otherwise waits until whoever is
    /// has done so. @return false when that was not before the deadline.
    template <class Tidy>
    bool CloseUntil(std::chrono::steady_clock::time_point deadline, Tidy&& tidy) {
        State expected = State::Open;
        if (m_state.compare_exchange_strong(expected, State::Closed, std::memory_order_acq_rel)) {
            tidy();
            m_tidied.Signal();
            return true;
        }
        if (expected == State::Inside &&
            !m_state.compare_exchange_strong(expected, State::Closing, std::memory_order_acq_rel))
            return CloseUntil(deadline, std::forward<Tidy>(tidy)); // it has just left
        return m_tidied.WaitUntil(deadline);
    }

private:
    enum class State : unsigned char { Open, Inside, Closing, Closed };
    std::atomic<State> m_state{State::Open};
    korsys::TEvent m_tidied{false};
};

} // namespace Metrics::detail

#endif // METRICS_SRC_WRITER_DOOR_H
