// Lock annotations for Clang's thread-safety analysis (-Wthread-safety). GCC
// ignores them; they still document which lock guards which member. The
// same annotations as the positioning library's, under the helper's names.
#pragma once

#if defined(__clang__)
#define ZONARA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZONARA_THREAD_ANNOTATION(x)
#endif

#define ZONARA_GUARDED_BY(x) ZONARA_THREAD_ANNOTATION(guarded_by(x))
#define ZONARA_PT_GUARDED_BY(x) ZONARA_THREAD_ANNOTATION(pt_guarded_by(x))
#define ZONARA_LOCKABLE ZONARA_THREAD_ANNOTATION(capability("mutex"))
#define ZONARA_SCOPED_LOCKABLE ZONARA_THREAD_ANNOTATION(scoped_lockable)
#define ZONARA_ACQUIRE(...) ZONARA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZONARA_RELEASE(...) ZONARA_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define ZONARA_TRY_ACQUIRE(...) ZONARA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZONARA_REQUIRES(...) ZONARA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZONARA_EXCLUDES(...) ZONARA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZONARA_RETURN_CAPABILITY(x) ZONARA_THREAD_ANNOTATION(lock_returned(x))
#define ZONARA_NO_THREAD_SAFETY_ANALYSIS ZONARA_THREAD_ANNOTATION(no_thread_safety_analysis)
