// Names for clang's thread-safety analysis; they vanish with other compilers.
#pragma once

#if defined(__clang__)
#define OS_ANNOTATE(x) __attribute__((x))
#else
#define OS_ANNOTATE(x)
#endif

#define OS_CAPABILITY(x) OS_ANNOTATE(capability(x))
#define OS_SCOPED_CAPABILITY OS_ANNOTATE(scoped_lockable)
#define OS_GUARDED_BY(x) OS_ANNOTATE(guarded_by(x))
#define OS_ACQUIRE(...) OS_ANNOTATE(acquire_capability(__VA_ARGS__))
#define OS_RELEASE(...) OS_ANNOTATE(release_capability(__VA_ARGS__))
#define OS_REQUIRES(...) OS_ANNOTATE(requires_capability(__VA_ARGS__))
#define OS_EXCLUDES(...) OS_ANNOTATE(locks_excluded(__VA_ARGS__))
#define OS_RETURN_CAPABILITY(x) OS_ANNOTATE(lock_returned(x))
#define OS_NO_THREAD_SAFETY_ANALYSIS OS_ANNOTATE(no_thread_safety_analysis)
