// Annotations for Clang's thread-safety analysis: they tell the compiler which lock guards
// which member, which functions must be called with a lock held and in which order locks are
// taken, so that `-Wthread-safety` reports a guarded member touched without its lock. Under
// other compilers they expand to nothing. The lock hierarchy they encode is the table
// "Lock hierarchy" in README.md.
#pragma once

#if defined(__clang__)
#define PLAYFILE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PLAYFILE_THREAD_ANNOTATION(x)
#endif

// On a lock class: it is a capability the analysis tracks.
#define CAPABILITY(x) PLAYFILE_THREAD_ANNOTATION(capability(x))
// On a scope-guard class: constructing it acquires, destroying it releases.
#define SCOPED_CAPABILITY PLAYFILE_THREAD_ANNOTATION(scoped_lockable)

// On a member: reading or writing it needs the lock held.
#define GUARDED_BY(x) PLAYFILE_THREAD_ANNOTATION(guarded_by(x))
// On a pointer member: what it points at needs the lock held (the pointer itself does not).
#define PT_GUARDED_BY(x) PLAYFILE_THREAD_ANNOTATION(pt_guarded_by(x))

// On a lock member: the order in which locks may be taken while holding another.
#define ACQUIRED_BEFORE(...) PLAYFILE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) PLAYFILE_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

// On a function: the caller must hold the lock / must not hold it.
#define REQUIRES(...) PLAYFILE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) PLAYFILE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// On a function: it takes the lock and returns holding it / it releases a held lock.
#define ACQUIRE(...) PLAYFILE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) PLAYFILE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// On a function: it takes the lock when it returns the given value.
#define TRY_ACQUIRE(...) PLAYFILE_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// On a function returning a lock by reference: which lock that is.
#define RETURN_CAPABILITY(x) PLAYFILE_THREAD_ANNOTATION(lock_returned(x))
// On a function: tells the analysis, unchecked, that the lock is held here.
#define ASSERT_CAPABILITY(x) PLAYFILE_THREAD_ANNOTATION(assert_capability(x))

// On a function: the analysis skips its body. Every use says in one line why it is needed.
#define NO_THREAD_SAFETY_ANALYSIS PLAYFILE_THREAD_ANNOTATION(no_thread_safety_analysis)
