#ifndef METRICS_SRC_NO_WRITE_SIGNALS_H
#define METRICS_SRC_NO_WRITE_SIGNALS_H

#include <cerrno>
#include <csignal>
#include <ctime>

namespace Metrics::detail {

/// Keeps the signals by which the system tells of a failed write from the calling thread, and takes
/// away those that a write has caused. One that was pending before stays so.
class NoWriteSignals {
public:
    NoWriteSignals() noexcept {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGPIPE);
        sigaddset(&m_signals, SIGXFSZ);
        sigpending(&m_pendingBefore);
        pthread_sigmask(SIG_BLOCK, &m_signals, &m_maskBefore);
    }
    ~NoWriteSignals() { pthread_sigmask(SIG_SETMASK, &m_maskBefore, nullptr); }
    NoWriteSignals(const NoWriteSignals&) = delete;
    NoWriteSignals& operator=(const NoWriteSignals&) = delete;

    /// Takes away the signal of a write that has failed with this error, if it has one. The system
    /// sends it to the thread that writes, before the write returns.
    void TakeAway(int error) noexcept {
        const int signal = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0;
        if (signal == 0 || sigismember(&m_pendingBefore, signal) != 0)
            return;
        sigset_t caused;
        sigemptyset(&caused);
        sigaddset(&caused, signal);
        const timespec atOnce{};
        while (sigtimedwait(&caused, nullptr, &atOnce) < 0 && errno == EINTR)
            ;
    }

private:
    sigset_t m_signals{};
    sigset_t m_pendingBefore{};
    sigset_t m_maskBefore{};
};

} // namespace Metrics::detail

#endif // METRICS_SRC_NO_WRITE_SIGNALS_H
