#include "DeliveryThread.h"

#include <csignal>
#include <system_error>

namespace Metrics::detail {

void DeliveryThread::Start(void (*run)(void*), void* argument) {
    m_run = run;
    m_argument = argument;

    // The new thread inherits the mask, so that no signal reaches it at any moment.
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
        sigdelset(&blocked, synchronous);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const int error = pthread_create(
        &m_thread, nullptr,
        [](void* self) -> void* {
            pthread_setname_np(pthread_self(), "metrics");
            const auto* const thread = static_cast<DeliveryThread*>(self);
            thread->m_run(thread->m_argument);
            return nullptr;
        },
        this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0)
        throw std::system_error(error, std::generic_category());
    m_started = true;
}

bool DeliveryThread::JoinUntil(std::chrono::steady_clock::time_point deadline) noexcept {
    if (pthread_equal(m_thread, pthread_self()) != 0)
        return false;
    const auto time = deadline.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    timespec until{};
    until.tv_sec = seconds.count();
    until.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(time - seconds).count();
    m_started = pthread_clockjoin_np(m_thread, nullptr, CLOCK_MONOTONIC, &until) != 0;
    return !m_started;
}

void DeliveryThread::Detach() noexcept {
    pthread_detach(m_thread);
    m_started = false;
}

} // namespace Metrics::detail
