#ifndef KORSYS_TREAD_WRITE_LOCK_H
#define KORSYS_TREAD_WRITE_LOCK_H

#include <korsys/Export.h>

#include <pthread.h>

namespace korsys {

/// Reader-writer lock that prefers writers: a reader that arrives while a writer waits stands
/// behind it, so that a steady stream of readers cannot keep a writer out.
///
/// It does not know its readers: a thread that already reads and locks again behind a waiting
/// writer deadlocks. See pthread_rwlockattr_setkind_np(3), PREFER_WRITER_NONRECURSIVE.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one atomic operation to lock and one to unlock while nobody else writes.
class KORSYS_EXPORT TReadWriteLock {
public:
    /// The argument is reserved; pass 0.
    explicit TReadWriteLock(unsigned int reserved) noexcept;
    ~TReadWriteLock();
    TReadWriteLock(const TReadWriteLock&) = delete;
    TReadWriteLock& operator=(const TReadWriteLock&) = delete;

    /// Takes the lock for writing: waits until nobody reads or writes.
    void Lock() noexcept;
    /// Ends what Lock began, on the same thread.
    void Unlock() noexcept;
    /// Takes the lock for reading: waits until nobody writes or waits to write.
    void LockRead() noexcept;
    /// Like LockRead, but does not wait. @return false when it would have had to.
    bool TryLockRead() noexcept;
    /// Ends what LockRead or TryLockRead began, on the same thread.
    void UnlockRead() noexcept;

private:
    pthread_rwlock_t m_lock;
};

} // namespace korsys

#endif // KORSYS_TREAD_WRITE_LOCK_H
