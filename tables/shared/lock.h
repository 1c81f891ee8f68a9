// A lock between the host's processes: one futex word in shared memory. The scheme is the
// three-state mutex of Drepper, "Futexes Are Tricky" (2011), with a bounded number of tries before
// it sleeps.
#pragma once

#include <atomic>
#include <cstdint>

#include "tables/shared/lock_rules.h"

struct IS_A_LOCK tarn_lock : std::atomic<uint32_t> {
  using atomic::atomic;
  using atomic::operator=;
};
static_assert(sizeof(tarn_lock) == 4 && tarn_lock::is_always_lock_free);

// New lock, free, in shared memory, or null. Released with tarn_shm_free.
tarn_lock *generate_lock();

// Waits until the lock is held. A holder that takes it again waits for ever. Null is ignored: at
// start, and in the shutdown after a failed start, there is one process and perhaps no lock.
void take_lock(tarn_lock *lock) TAKES_LOCK(lock);

// Gives the lock back and wakes one process that waits for it. Null is ignored.
void release_lock(tarn_lock *lock) GIVES_LOCK_BACK(lock);

// Frees a lock that a process which no longer exists may have left held, and tells whether it was.
// Only for a process that is alone. Null is ignored.
bool force_unlock(tarn_lock *lock);

// Holds a lock from here to the end of the scope.
class HOLDS_A_LOCK lock_scope {
 public:
  explicit lock_scope(tarn_lock *lock) TAKES_LOCK(lock) : held_(lock) { take_lock(lock); }
  ~lock_scope() GIVES_LOCK_BACK() { release_lock(held_); }
  lock_scope(const lock_scope &) = delete;
  lock_scope &operator=(const lock_scope &) = delete;

 private:
  tarn_lock *const held_;
};
