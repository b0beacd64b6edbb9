#ifndef METRICS_SRC_LIFECYCLE_H
#define METRICS_SRC_LIFECYCLE_H

#include <metrics/MetricsStatistics.h>

#include <korsys/Mutex.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

namespace Metrics::detail {

/// How far the library is in its life, which goes one way only:
///
///             Enable              an application's Shutdown event
///     Idle -----------> Enabled -----------------------------------> Ended
///      |                   |                                            |
///      | Disable           | Disable                                    | Disable
///      +-------------------+-------------------> Off <------------------+
///
///     and from anywhere but Idle, in a child that is forked:  Forked, which is Off as well
///
/// Enabled: events and consumers are let in. Ended: they are not any more, but contexts still get
/// ids. Off: nothing does anything.
enum class Phase : std::uint8_t { Idle, Enabled, Ended, Off, Forked };

/// The library's life: every flag of it, and its beginning and end. Constant-initialised and never
/// destroyed, so that calls before the first static initialiser and after the last destructor are
/// as good as any other.
///
/// Locks: m_lock is held while a delivery thread is started, and while an end is claimed; only the
/// one of Delivery::Watch is taken under it, and nothing of the application is called.
///
/// Thread-safety: safe from any thread at any time.
class Lifecycle {
public:
    constexpr Lifecycle() noexcept = default;

    // Relaxed: a call that races with a change may go either way, and what it uses is never freed
    // under it.
    // Acquire: what was measured of the clocks before.
    bool Accepts() const noexcept {
        return m_phase.load(std::memory_order_acquire) == Phase::Enabled;
    }
    bool IsOff() const noexcept { return Now() >= Phase::Off; }
    bool IsForkedChild() const noexcept { return Now() == Phase::Forked; }
    /// The process id.
    int Process() const noexcept { return m_process.load(std::memory_order_relaxed); }

    /// See MetricsManager::GetInstance.
    void NeedInstance() noexcept {
        if (!m_isMade.load(std::memory_order_relaxed)) [[unlikely]]
            MakeInstance();
    }
    /// See MetricsManager::Enable.
    void Enable() KORSYS_EXCLUDES(m_lock);
    /// For a consumer that may take so long for a call: see Delivery::Watch.
    void Watch(std::uint32_t milliseconds) KORSYS_EXCLUDES(m_lock);
    /// See MetricsManager::SetThreadInitFunction.
    void SetThreadInitFunction(std::function<void()>&& function) KORSYS_EXCLUDES(m_lock);
    /// See MetricsManager::Disable.
    bool Disable() noexcept KORSYS_EXCLUDES(m_lock);
    /// See MetricsManager::Shutdown.
    MetricsShutdownReport Shutdown(unsigned int milliseconds) noexcept KORSYS_EXCLUDES(m_lock);
    /// See MetricsManager::ShutdownAndFreeInstance.
    void ShutDown() noexcept KORSYS_EXCLUDES(m_lock);

    /// The delivery has ended: events are not let in any more.
    void EndDelivery() noexcept;
    /// The delivery thread is the last one of the process, which ends with it.
    void SwitchOff() noexcept;

    /// Slow paths call this first: a child that was made without the handlers of fork(2), by a bare
    /// clone(2) say, is noticed here.
    void NoticeFork() noexcept;

    /// The constructor and the destructor of a static object; between them the library is loaded.
    void Load() noexcept;
    void ExitOrUnload() noexcept KORSYS_EXCLUDES(m_lock);
    void MarkUnloading() noexcept { m_isUnloading = true; }

private:
    enum class End : std::uint8_t { NotBegun, Begun, Done };

    Phase Now() const noexcept { return m_phase.load(std::memory_order_relaxed); }
    void MakeInstance() noexcept KORSYS_EXCLUDES(m_lock);
    void RegisterForkHandler() noexcept;
    bool ClaimEnd() noexcept;
    bool EndUntil(std::chrono::steady_clock::time_point& deadline) noexcept KORSYS_EXCLUDES(m_lock);
    void ContinueInChild() noexcept;

    // Read by every call, written a few times in a life.
    alignas(64) std::atomic<Phase> m_phase{Phase::Idle};
    std::atomic<bool> m_isMade{false}; // somebody has asked for the manager

    alignas(64) std::atomic<End> m_end{End::NotBegun};               // who switches it off
    std::atomic<std::chrono::steady_clock::time_point> m_deadline{}; // of the end that has begun
    std::atomic<bool> m_isStuck{false};     // a thread goes on in our code: nothing is freed
    std::atomic<bool> m_isExiting{false};   // the process exits, and other threads may go on
    std::atomic<bool> m_isUnloading{false}; // or it exits, when m_isExiting was set before
    std::atomic<int> m_process{0};          // the process that all of this is of
    bool m_hasForkHandler = false;          // written at load, then under m_lock

    korsys::Mutex m_lock;
    bool m_hasExitHandler KORSYS_GUARDED_BY(m_lock) = false;
};

extern constinit Lifecycle s_life;

inline bool IsOff() noexcept {
    return s_life.IsOff();
}
inline bool InForkedChild() noexcept {
    return s_life.IsForkedChild();
}

} // namespace Metrics::detail

#endif // METRICS_SRC_LIFECYCLE_H
