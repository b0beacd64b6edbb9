#include <korsys/TReadWriteLock.h>

namespace korsys {

TReadWriteLock::TReadWriteLock(unsigned int /*reserved*/) noexcept {
    // None of these calls can fail for a process-private lock (glibc, pthread_rwlock_init(3p)).
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&m_lock, &attributes);
    pthread_rwlockattr_destroy(&attributes);
}

TReadWriteLock::~TReadWriteLock() {
    pthread_rwlock_destroy(&m_lock);
}

void TReadWriteLock::Lock() noexcept {
    pthread_rwlock_wrlock(&m_lock);
}

void TReadWriteLock::Unlock() noexcept {
    pthread_rwlock_unlock(&m_lock);
}

void TReadWriteLock::LockRead() noexcept {
    // EAGAIN (2^32 readers) cannot happen with the threads of one process.
    pthread_rwlock_rdlock(&m_lock);
}

bool TReadWriteLock::TryLockRead() noexcept {
    return pthread_rwlock_tryrdlock(&m_lock) == 0;
}

void TReadWriteLock::UnlockRead() noexcept {
    pthread_rwlock_unlock(&m_lock);
}

} // namespace korsys
