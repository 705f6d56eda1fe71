// Names for clang's thread-safety analysis; with other compilers they stand for nothing.
// They let a lock say what it guards and a function what it wants held, and -Wthread-safety checks it.
#pragma once

#if defined(__clang__)
#define INFRA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define INFRA_THREAD_ANNOTATION(x)
#endif

/// Classes: a lock, and a guard that holds a lock for its own lifetime.
#define INFRA_CAPABILITY(x) INFRA_THREAD_ANNOTATION(capability(x))
#define INFRA_SCOPED_CAPABILITY INFRA_THREAD_ANNOTATION(scoped_lockable)

/// Data: the member itself, or what the pointer member points to, is guarded by lock x.
#define INFRA_GUARDED_BY(x) INFRA_THREAD_ANNOTATION(guarded_by(x))
#define INFRA_PT_GUARDED_BY(x) INFRA_THREAD_ANNOTATION(pt_guarded_by(x))

/// Functions: what the caller holds, or must not hold, and what the call takes and gives back.
#define INFRA_REQUIRES(...) INFRA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define INFRA_REQUIRES_SHARED(...) INFRA_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define INFRA_EXCLUDES(...) INFRA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define INFRA_ACQUIRE(...) INFRA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define INFRA_ACQUIRE_SHARED(...) INFRA_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define INFRA_RELEASE(...) INFRA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define INFRA_RELEASE_SHARED(...) INFRA_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define INFRA_RELEASE_GENERIC(...) INFRA_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define INFRA_TRY_ACQUIRE(...) INFRA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define INFRA_ASSERT_CAPABILITY(x) INFRA_THREAD_ANNOTATION(assert_capability(x))
#define INFRA_RETURN_CAPABILITY(x) INFRA_THREAD_ANNOTATION(lock_returned(x))

/// For the few functions whose locking the analysis cannot express; each says why beside it.
#define INFRA_NO_THREAD_SAFETY_ANALYSIS INFRA_THREAD_ANNOTATION(no_thread_safety_analysis)
