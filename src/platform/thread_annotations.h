// What the compiler checks of locks: clang's -Wthread-safety (the preset "clang") sees to it that what a lock guards is
// touched under it alone, and that nobody takes it twice. For other compilers these words mean nothing.
//
// The public functions of a class with a lock take it (EXCLUDES: the caller must not hold it); its private ones are
// called with it (REQUIRES). A lambda is a function of its own to the compiler: one that runs under a lock says so with
// AssertHeld.
#pragma once

#if defined(__clang__)
#define LUMBRA_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define LUMBRA_THREAD_ANNOTATION(annotation)
#endif

// Of classes: a lock, and what holds one until the end of a scope.
#define CAPABILITY(kind) LUMBRA_THREAD_ANNOTATION(capability(kind))
#define SCOPED_CAPABILITY LUMBRA_THREAD_ANNOTATION(scoped_lockable)

// Of members: touched only with the lock.
#define GUARDED_BY(lock) LUMBRA_THREAD_ANNOTATION(guarded_by(lock))

// Of functions: what their callers hold, or do not hold.
#define REQUIRES(...) LUMBRA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) LUMBRA_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) LUMBRA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// Of functions: what they do with a lock.
#define ACQUIRE(...) LUMBRA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) LUMBRA_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) LUMBRA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) LUMBRA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) LUMBRA_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(lock) LUMBRA_THREAD_ANNOTATION(assert_capability(lock))
#define ASSERT_SHARED_CAPABILITY(lock) LUMBRA_THREAD_ANNOTATION(assert_shared_capability(lock))

// The compiler cannot follow this function; the reason stands beside it.
#define NO_THREAD_SAFETY_ANALYSIS LUMBRA_THREAD_ANNOTATION(no_thread_safety_analysis)
