// Lock rules in a form that the compiler checks: clang's thread safety analysis, which lint runs
// (Hutchins et al., "C/C++ Thread Safety Analysis", 2014). Other compilers pass over the marks.
//
// A record's field that is guarded may be touched only where its lock is held, and a function that
// needs a lock may be called only there. A lock is held from a lock_scope on, or throughout a
// function that needs it. Not checked are reads of rows, which read sections may make as well, what
// a table_scope holds, and whether two different locks are held at a time.
#pragma once

#ifdef __clang__
#define LOCK_RULE(attribute) __attribute__((attribute))
#else
#define LOCK_RULE(attribute)
#endif

#define IS_A_LOCK LOCK_RULE(capability("lock"))
#define HOLDS_A_LOCK LOCK_RULE(scoped_lockable)
#define GUARDED_BY(lock) LOCK_RULE(guarded_by(lock))
#define PT_GUARDED_BY(lock) LOCK_RULE(pt_guarded_by(lock))  // what it points to
#define NEEDS_LOCK(lock) LOCK_RULE(requires_capability(lock))
#define WITHOUT_LOCK(lock) LOCK_RULE(locks_excluded(lock))
#define TAKES_LOCK(...) LOCK_RULE(acquire_capability(__VA_ARGS__))
#define GIVES_LOCK_BACK(...) LOCK_RULE(release_capability(__VA_ARGS__))

// The code that follows counts as holding the lock: there is one process only, or the function is
// meant to go without, which its place tells.
#define COUNTS_AS_LOCKED(lock) LOCK_RULE(assert_capability(lock))

// The body isn't checked; what the caller has to hold is.
#define UNCHECKED_LOCKING LOCK_RULE(no_thread_safety_analysis)
