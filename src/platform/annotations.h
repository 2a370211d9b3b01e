// Which lock guards which data, written for the compiler.
//
// The `clang` preset checks the notes below with -Wthread-safety; every other compiler ignores
// them. They are the only macros of the product: the language has no attribute that g++ accepts.
//
//   GUARDED_BY(lock)    a field: read and written only while `lock` is held
//   REQUIRES(lock)      a function: the caller holds `lock`
//   EXCLUDES(lock)      a function: the caller must not hold `lock`, because the function takes it
//   ACQUIRE, RELEASE    a function takes or gives back a lock; without an argument, its own object
//   TRY_ACQUIRE(value)  a function that took the lock when it returns `value`
//   ASSERT_CAPABILITY(lock)
//                       a function that tells the compiler: from here on the caller holds `lock`
//   CAPABILITY(kind)    a class that is a lock; SCOPED_CAPABILITY: one that holds it for a scope
//
// std::mutex carries no such notes. Use Mutex and Lock of platform/mutex.h.
// NO_THREAD_SAFETY_ANALYSIS excludes one function from the check; its comment says why.
#pragma once

#if defined(__clang__)
#define KINETREL_ATTRIBUTE(note) __attribute__((note))
#else
#define KINETREL_ATTRIBUTE(note)
#endif

#define CAPABILITY(kind) KINETREL_ATTRIBUTE(capability(kind))
#define SCOPED_CAPABILITY KINETREL_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(lock) KINETREL_ATTRIBUTE(guarded_by(lock))
#define REQUIRES(...) KINETREL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KINETREL_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KINETREL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KINETREL_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KINETREL_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(lock) KINETREL_ATTRIBUTE(assert_capability(lock))
#define NO_THREAD_SAFETY_ANALYSIS KINETREL_ATTRIBUTE(no_thread_safety_analysis)
