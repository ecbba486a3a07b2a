#pragma once

/// Thread-safety annotations, checked by clang's -Wthread-safety and ignored by other compilers.
#if defined(__clang__)
#define VESK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VESK_THREAD_ATTRIBUTE(x)
#endif

/// A type that is a lock.
#define VESK_CAPABILITY(name) VESK_THREAD_ATTRIBUTE(capability(name))
/// A type that holds a lock for as long as it lives.
#define VESK_SCOPED_CAPABILITY VESK_THREAD_ATTRIBUTE(scoped_lockable)
/// A member that is read and written only while the named lock is held.
#define VESK_GUARDED_BY(lock) VESK_THREAD_ATTRIBUTE(guarded_by(lock))
/// A pointer whose target is read and written only while the named lock is held.
#define VESK_PT_GUARDED_BY(lock) VESK_THREAD_ATTRIBUTE(pt_guarded_by(lock))
/// A function that is called with the named locks held.
#define VESK_REQUIRES(...) VESK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// A function that is called without the named locks, since it takes them itself.
#define VESK_EXCLUDES(...) VESK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VESK_ACQUIRE(...) VESK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VESK_TRY_ACQUIRE(...) VESK_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define VESK_RELEASE(...) VESK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VESK_ACQUIRED_BEFORE(...) VESK_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define VESK_RETURN_CAPABILITY(lock) VESK_THREAD_ATTRIBUTE(lock_returned(lock))
#define VESK_NO_THREAD_SAFETY_ANALYSIS VESK_THREAD_ATTRIBUTE(no_thread_safety_analysis)
