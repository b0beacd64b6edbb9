#ifndef METRICS_SRC_FAULTS_H
#define METRICS_SRC_FAULTS_H

#include "NeverDestroyed.h"
#include "Section.h"

#include <metrics/MetricsError.h>

#include <korsys/Mutex.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Metrics::detail {

/// What went wrong and nobody was told, until the delivery thread tells the application's handler.
/// Of each reason the first one is kept, and how many there were; without a handler nothing is.
///
/// Thread-safety: safe from any thread at any time; Tell is the delivery thread's.
class Faults {
public:
    using Handler = std::function<void(const MetricsError&)>;

    constexpr Faults() noexcept = default;

    /// See MetricsManager::SetErrorHandler. Waits for a call of the former one that is in progress.
    void SetHandler(Handler&& handler, unsigned int lagMilliseconds) KORSYS_EXCLUDES(m_lock);

    /// A consumer threw what is being handled.
    void NoteException(const std::string& consumer) noexcept;
    void NoteSetAside(const std::string& consumer) noexcept;
    void NoteFailedWrite(const std::string& path, int number) noexcept;
    /// The totals so far, by reason from LostToLimit on; delivery thread only.
    static constexpr std::size_t lossReasons = 4;
    void NoteLosses(const std::array<std::uint64_t, lossReasons>& totals) noexcept;
    /// How long the oldest event has waited; delivery thread only.
    void NoteLag(std::uint64_t nanoseconds) noexcept;

    /// Whether somebody wants to know.
    bool HasHandler() const noexcept { return m_hasHandler.load(std::memory_order_relaxed); }

    /// Calls the handler for what was noted, at most once a second for each reason. What it throws
    /// is dropped.
    void Tell() KORSYS_EXCLUDES(m_lock);
    /// The same without regard to the time, and lets the handler go.
    void TellLast() KORSYS_EXCLUDES(m_lock);

    /// In a forked child.
    void ResetLock() noexcept;

private:
    static constexpr std::size_t reasons =
        static_cast<std::size_t>(MetricsError::Reason::DeliveryLags) + 1;

    /// What waits to be told of one reason.
    struct Pending {
        bool isThere = false;
        MetricsError first;
        std::uint64_t toldAt = 0; // ticks; 0: never
    };
    struct State {
        Handler handler;
        std::array<Pending, reasons> pending; // the lock
    };

    template <class Fill>
    void Note(MetricsError::Reason reason, std::uint64_t count, Fill fill) noexcept
        KORSYS_EXCLUDES(m_lock);
    void TellAfter(std::uint64_t pause) KORSYS_EXCLUDES(m_lock);

    korsys::Mutex m_lock;
    NeverDestroyed<std::shared_ptr<State>> m_state KORSYS_GUARDED_BY(m_lock);
    std::atomic<bool> m_hasHandler{false};
    std::atomic<std::uint64_t> m_lag{0}; // ns; 0: not to be told
    std::array<std::uint64_t, lossReasons> m_noted{};
    Section m_telling; // the delivery thread is calling the handler
};

extern constinit Faults s_faults;

} // namespace Metrics::detail

#endif // METRICS_SRC_FAULTS_H
