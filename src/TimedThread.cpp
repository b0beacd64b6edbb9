#include "TimedThread.h"

#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>

namespace Metrics::detail {

void TimedThread::Start(void (*run)(void*), void* argument) {
    m_run = run;
    m_argument = argument;

    // The new thread inherits the mask, so that no signal reaches it at any moment.
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
        sigdelset(&blocked, synchronous);
    // The ordinary policy, whatever the starting thread has: a consumer is no work for real time,
    // and one that shares a processor with a thread of higher priority may never get its turn.
    pthread_attr_t attributes; // none of these calls can fail, pthread_attr_init(3)
    pthread_attr_init(&attributes);
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attributes, SCHED_OTHER);
    const sched_param ordinary{};
    pthread_attr_setschedparam(&attributes, &ordinary);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const int error = pthread_create(
        &m_thread, &attributes,
        [](void* self) -> void* {
            pthread_setname_np(pthread_self(), "metrics");
            const auto* const thread = static_cast<TimedThread*>(self);
            thread->m_run(thread->m_argument);
            return nullptr;
        },
        this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    if (error != 0)
        throw std::system_error(error, std::generic_category());
    m_started = true;
}

bool TimedThread::JoinUntil(std::chrono::steady_clock::time_point deadline) noexcept {
    // The thread has signalled its end before, so that a few looks do; pthread_clockjoin_np would
    // wait as well, but ThreadSanitizer does not know it.
    int result = 0;
    while ((result = pthread_tryjoin_np(m_thread, nullptr)) == EBUSY &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    m_started = result != 0;
    return !m_started;
}

void TimedThread::Detach() noexcept {
    pthread_detach(m_thread);
    m_started = false;
}

} // namespace Metrics::detail
