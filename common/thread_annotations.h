#ifndef KANDB_COMMON_THREAD_ANNOTATIONS_H_
#define KANDB_COMMON_THREAD_ANNOTATIONS_H_

// Lock annotations checked by Clang's -Wthread-safety; they compile away
// under other compilers. Every member guarded by a mutex names it with
// GUARDED_BY, and private methods that expect the lock held say REQUIRES.

#if defined(__clang__)
#define KANDB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KANDB_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KANDB_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KANDB_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KANDB_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KANDB_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) KANDB_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KANDB_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KANDB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KANDB_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) KANDB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KANDB_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KANDB_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KANDB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) KANDB_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) KANDB_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) KANDB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) KANDB_THREAD_ANNOTATION(assert_capability(x))
#define ASSERT_SHARED_CAPABILITY(x) KANDB_THREAD_ANNOTATION(assert_shared_capability(x))
#define RETURN_CAPABILITY(x) KANDB_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KANDB_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // KANDB_COMMON_THREAD_ANNOTATIONS_H_
