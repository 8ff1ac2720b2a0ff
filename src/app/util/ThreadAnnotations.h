#pragma once

// Names for clang's thread-safety attributes (clang manual, "Thread Safety Analysis"). With other
// compilers they mean nothing. A field that a lock guards says so with VALTOR_GUARDED_BY; a private
// operation that expects a lock to be held says so with VALTOR_REQUIRES.
#if defined(__clang__)
#define VALTOR_ATTRIBUTE(x) __attribute__((x))
#else
#define VALTOR_ATTRIBUTE(x)
#endif

#define VALTOR_CAPABILITY(name) VALTOR_ATTRIBUTE(capability(name))
#define VALTOR_SCOPED_CAPABILITY VALTOR_ATTRIBUTE(scoped_lockable)
#define VALTOR_GUARDED_BY(lock) VALTOR_ATTRIBUTE(guarded_by(lock))
#define VALTOR_PT_GUARDED_BY(lock) VALTOR_ATTRIBUTE(pt_guarded_by(lock))
#define VALTOR_REQUIRES(...) VALTOR_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VALTOR_ACQUIRE(...) VALTOR_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VALTOR_TRY_ACQUIRE(...) VALTOR_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define VALTOR_RELEASE(...) VALTOR_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VALTOR_EXCLUDES(...) VALTOR_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VALTOR_NO_THREAD_SAFETY_ANALYSIS VALTOR_ATTRIBUTE(no_thread_safety_analysis)
