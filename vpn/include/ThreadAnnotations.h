#pragma once

/// @file
/// Names for clang's thread-safety attributes. clang proves with -Wthread-safety that a member is
/// touched only while the lock that guards it is held; other compilers see nothing here.
/// Reference: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
/// An attribute for clang alone.
#define AHS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define AHS_THREAD_ATTRIBUTE(x)
#endif

/// A class whose objects are locks.
#define AHS_CAPABILITY(name) AHS_THREAD_ATTRIBUTE(capability(name))
/// A class whose objects hold a lock while they live.
#define AHS_SCOPED_CAPABILITY AHS_THREAD_ATTRIBUTE(scoped_lockable)
/// A member that is touched only while `lock` is held.
#define AHS_GUARDED_BY(lock) AHS_THREAD_ATTRIBUTE(guarded_by(lock))
/// A function that takes locks.
#define AHS_ACQUIRE(...) AHS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
/// A function that gives locks back.
#define AHS_RELEASE(...) AHS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
/// A function whose caller holds locks.
#define AHS_REQUIRES(...) AHS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// A function that is not checked.
#define AHS_NO_THREAD_SAFETY_ANALYSIS AHS_THREAD_ATTRIBUTE(no_thread_safety_analysis)
