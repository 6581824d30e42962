// Names for clang's thread-safety attributes; empty with other compilers. A lock's rules written with these
// are checked at compile time by the clang build.
#pragma once

#if defined(__clang__)
#define QX_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QX_THREAD_ATTRIBUTE(x)
#endif

#define QX_CAPABILITY(name) QX_THREAD_ATTRIBUTE(capability(name))
#define QX_SCOPED_CAPABILITY QX_THREAD_ATTRIBUTE(scoped_lockable)
#define QX_GUARDED_BY(lock) QX_THREAD_ATTRIBUTE(guarded_by(lock))
#define QX_ACQUIRED_AFTER(...) QX_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define QX_ACQUIRED_BEFORE(...) QX_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define QX_ACQUIRE(...) QX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QX_ACQUIRE_SHARED(...) QX_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define QX_RELEASE(...) QX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define QX_RELEASE_SHARED(...) QX_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define QX_REQUIRES(...) QX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QX_NO_THREAD_SAFETY_ANALYSIS QX_THREAD_ATTRIBUTE(no_thread_safety_analysis)
