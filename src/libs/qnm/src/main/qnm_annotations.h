// qnm_annotations.h - tells clang which lock guards what, so that its -Wthread-safety finds an
// access without it. Other compilers see nothing of it.
#pragma once

#if defined(__clang__)
#define QNM_ANNOTATE(attribute) __attribute__((attribute))
#else
#define QNM_ANNOTATE(attribute)
#endif

// For types: a lock, and a guard that holds a lock for its scope.
#define QNM_CAPABILITY(name) QNM_ANNOTATE(capability(name))
#define QNM_SCOPED_CAPABILITY QNM_ANNOTATE(scoped_lockable)

// For variables and fields: accessed only while the lock is held.
#define QNM_GUARDED_BY(lock) QNM_ANNOTATE(guarded_by(lock))

// For functions: what the function does to the lock, or requires of its caller.
#define QNM_ACQUIRE(...) QNM_ANNOTATE(acquire_capability(__VA_ARGS__))
#define QNM_RELEASE(...) QNM_ANNOTATE(release_capability(__VA_ARGS__))
#define QNM_REQUIRES(...) QNM_ANNOTATE(requires_capability(__VA_ARGS__))
#define QNM_EXCLUDES(...) QNM_ANNOTATE(locks_excluded(__VA_ARGS__))

// For functions that the analysis cannot follow; a comment there says why they are correct.
#define QNM_UNCHECKED QNM_ANNOTATE(no_thread_safety_analysis)

namespace qnm {

// Names a lock in annotations where its mutex is private to another unit.
struct QNM_CAPABILITY("lock") lock_name {};

}  // namespace qnm
