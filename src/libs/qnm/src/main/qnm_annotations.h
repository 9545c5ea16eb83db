// qnm_annotations.h - tells clang which lock guards what, so that its -Wthread-safety finds an
// access without it. Other compilers see nothing of it.
#pragma once

#if defined(__clang__)
#define QNM_ANNOTATE(attribute) __attribute__((attribute))
#else
#define QNM_ANNOTATE(attribute)
#endif

// Of a record: a lock, and a guard that holds one for its scope.
#define QNM_CAPABILITY(name) QNM_ANNOTATE(capability(name))
#define QNM_SCOPED_CAPABILITY QNM_ANNOTATE(scoped_lockable)

// Of a variable or a field: touched with the lock held only.
#define QNM_GUARDED_BY(lock) QNM_ANNOTATE(guarded_by(lock))

// Of a function: what it does to the lock, or needs of its caller.
#define QNM_ACQUIRE(...) QNM_ANNOTATE(acquire_capability(__VA_ARGS__))
#define QNM_RELEASE(...) QNM_ANNOTATE(release_capability(__VA_ARGS__))
#define QNM_REQUIRES(...) QNM_ANNOTATE(requires_capability(__VA_ARGS__))
#define QNM_EXCLUDES(...) QNM_ANNOTATE(locks_excluded(__VA_ARGS__))

// Of a function that the analysis cannot follow; a comment there says why it is right.
#define QNM_UNCHECKED QNM_ANNOTATE(no_thread_safety_analysis)

namespace qnm {

// Stands in annotations for a lock whose mutex others do not see.
struct QNM_CAPABILITY("lock") lock_name {};

}  // namespace qnm
