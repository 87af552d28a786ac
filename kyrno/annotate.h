// annotate.h - which thread may do what, checked by clang's thread-safety analysis, invisible to
// other compilers.
//
// An override does not inherit the attribute: repeat it.
#pragma once

#if defined(__clang__)
#define TSA(x) __attribute__((x))
#else
#define TSA(x)
#endif

/// The role of a root's work thread: held from the first line of its function to the last.
struct TSA(capability("role")) ROLE {};
inline ROLE WorkThreadRole;

#define WORK_ONLY TSA(requires_capability(WorkThreadRole))
#define WORK_DATA TSA(guarded_by(WorkThreadRole))
#define GUARDED_BY(lock) TSA(guarded_by(lock))

/// States a fact that the analysis cannot see: this line runs in the work thread's role.
inline void AssumeWorkThread() TSA(assert_capability(WorkThreadRole)) {}
