#pragma once

// Names for clang's thread-safety attributes. clang proves with -Wthread-safety that a member is
// touched only while the lock that guards it is held; other compilers see nothing here.
// Reference: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
#define AHS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define AHS_THREAD_ATTRIBUTE(x)
#endif

#define AHS_CAPABILITY(name) AHS_THREAD_ATTRIBUTE(capability(name))
#define AHS_SCOPED_CAPABILITY AHS_THREAD_ATTRIBUTE(scoped_lockable)
#define AHS_GUARDED_BY(lock) AHS_THREAD_ATTRIBUTE(guarded_by(lock))
#define AHS_ACQUIRE(...) AHS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define AHS_TRY_ACQUIRE(...) AHS_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define AHS_RELEASE(...) AHS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define AHS_REQUIRES(...) AHS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define AHS_EXCLUDES(...) AHS_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define AHS_NO_THREAD_SAFETY_ANALYSIS AHS_THREAD_ATTRIBUTE(no_thread_safety_analysis)
