// Clang thread-safety annotations. With clang, -Wthread-safety checks at compile time that a
// field marked GUARDED_BY is touched only with its lock held; with other compilers they vanish.
#pragma once

#if defined(__clang__)
#define BAS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define BAS_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) BAS_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY BAS_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) BAS_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) BAS_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) BAS_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define REQUIRES(...) BAS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) BAS_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) BAS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) BAS_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) BAS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) BAS_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) BAS_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) BAS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS BAS_THREAD_ANNOTATION(no_thread_safety_analysis)
