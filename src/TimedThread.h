#ifndef METRICS_SRC_TIMED_THREAD_H
#define METRICS_SRC_TIMED_THREAD_H

#include <pthread.h>

#include <chrono>

namespace Metrics::detail {

/// One thread that can be joined until a deadline. The C++ thread can only be joined without one,
/// and its last instructions stand in the library that started it; this one's stand in libc.
///
/// Thread-safety: one thread at a time for each object.
class TimedThread {
public:
    /// Starts `run(argument)` on a new thread, named "metrics", that blocks all signals but the
    /// synchronous ones from its first instruction on.
    /// @throws std::system_error
    void Start(void (*run)(void*), void* argument);

    /// Whether it was started, and neither joined nor detached since.
    bool IsStarted() const noexcept { return m_started; }

    /// Waits for the end of the thread. @return false after the deadline.
    bool JoinUntil(std::chrono::steady_clock::time_point deadline) noexcept;

    /// Leaves the thread to itself.
    void Detach() noexcept;

private:
    pthread_t m_thread{};
    bool m_started = false;
    void (*m_run)(void*) = nullptr;
    void* m_argument = nullptr;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_TIMED_THREAD_H
