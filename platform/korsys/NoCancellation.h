#ifndef KORSYS_NO_CANCELLATION_H
#define KORSYS_NO_CANCELLATION_H

#include <pthread.h>

namespace korsys {

/// Keeps pthread_cancel(3) from ending the calling thread until the end of the block: a request
/// that comes meanwhile stays pending and acts at the thread's next cancellation point after it.
/// Wherever a `noexcept` function waits or does input and output, this must stand before: the
/// unwinding of a cancelled thread would end the process there. May be nested. Not installed.
///
/// Thread-safety: one thread at a time for each object, the one that made it.
/// Cost: two exchanges of a word of the thread's own; no lock, no allocation, no system call.
class NoCancellation {
public:
    /// From here on nothing cancels the thread.
    NoCancellation() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    /// As it was before.
    ~NoCancellation() { pthread_setcancelstate(m_before, nullptr); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    int m_before = 0;
};

} // namespace korsys

#endif // KORSYS_NO_CANCELLATION_H
