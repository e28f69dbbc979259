// Lock annotations for Clang's thread-safety analysis. GCC ignores them; they
// still document which lock guards which member.
#pragma once

#if defined(__clang__)
#define WPS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define WPS_THREAD_ANNOTATION(x)
#endif

#define WPS_GUARDED_BY(x) WPS_THREAD_ANNOTATION(guarded_by(x))
#define WPS_PT_GUARDED_BY(x) WPS_THREAD_ANNOTATION(pt_guarded_by(x))
#define WPS_LOCKABLE WPS_THREAD_ANNOTATION(capability("mutex"))
#define WPS_SCOPED_LOCKABLE WPS_THREAD_ANNOTATION(scoped_lockable)
#define WPS_ACQUIRE(...) WPS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define WPS_ACQUIRE_SHARED(...) WPS_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define WPS_RELEASE(...) WPS_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define WPS_TRY_ACQUIRE(...) WPS_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define WPS_REQUIRES(...) WPS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define WPS_EXCLUDES(...) WPS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define WPS_NO_THREAD_SAFETY_ANALYSIS WPS_THREAD_ANNOTATION(no_thread_safety_analysis)
