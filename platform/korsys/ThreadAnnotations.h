#ifndef KORSYS_THREAD_ANNOTATIONS_H
#define KORSYS_THREAD_ANNOTATIONS_H

/// What a lock protects and who must hold it, in words that `clang++ -Wthread-safety` checks. Other
/// compilers see nothing. See https://clang.llvm.org/docs/ThreadSafetyAnalysis.html.
///
/// Not installed: only the library's own sources include it.

#if defined(__clang__)
#define KORSYS_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define KORSYS_THREAD_ANNOTATION(annotation)
#endif

/// A class whose objects are locks; `name` is what messages call them.
#define KORSYS_CAPABILITY(name) KORSYS_THREAD_ANNOTATION(capability(name))
/// A class whose objects hold a lock for as long as they live.
#define KORSYS_SCOPED_CAPABILITY KORSYS_THREAD_ANNOTATION(scoped_lockable)

/// A member that is read and written only under the lock.
#define KORSYS_GUARDED_BY(lock) KORSYS_THREAD_ANNOTATION(guarded_by(lock))
/// A pointer, what it points to is read and written only under the lock.
#define KORSYS_PT_GUARDED_BY(lock) KORSYS_THREAD_ANNOTATION(pt_guarded_by(lock))

/// A function that is called with the locks held, and leaves them so.
#define KORSYS_REQUIRES(...) KORSYS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// A function that is called without the locks, since it takes them itself.
#define KORSYS_EXCLUDES(...) KORSYS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// A function that takes the locks (without an argument: its own object) and keeps them.
#define KORSYS_ACQUIRE(...) KORSYS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/// A function that gives the locks (without an argument: its own object) back.
#define KORSYS_RELEASE(...) KORSYS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// A function that takes the lock when it returns the first argument.
#define KORSYS_TRY_ACQUIRE(...) KORSYS_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/// A function that the check cannot follow; say why where it stands.
#define KORSYS_NO_THREAD_SAFETY_ANALYSIS KORSYS_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif // KORSYS_THREAD_ANNOTATIONS_H
