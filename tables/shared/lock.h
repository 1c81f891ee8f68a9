// A lock between the host's processes: one futex word in shared memory. The scheme is the
// three-state mutex of Drepper, "Futexes Are Tricky" (2011), with a bounded number of tries before
// it sleeps.
#pragma once

#include <atomic>
#include <cstdint>

using tarn_lock = std::atomic<uint32_t>;
static_assert(sizeof(tarn_lock) == 4 && tarn_lock::is_always_lock_free);

// New lock, free, in shared memory, or null. Released with tarn_shm_free.
tarn_lock *generate_lock();

// Waits until the lock is held. A holder that takes it again waits for ever. Null is ignored: at
// start, and in the shutdown after a failed start, there is one process and perhaps no lock.
void take_lock(tarn_lock *lock);

// Gives the lock back and wakes one process that waits for it. Null is ignored.
void release_lock(tarn_lock *lock);

// Frees a lock that a process which no longer exists may have left held, and tells whether it was.
// Only for a process that is alone. Null is ignored.
bool force_unlock(tarn_lock *lock);

// Holds a lock until the end of the scope or until release, whichever comes first.
class lock_scope {
 public:
  // Holds nothing until take.
  lock_scope() = default;
  explicit lock_scope(tarn_lock *lock) { take(lock); }
  ~lock_scope() { release(); }
  lock_scope(const lock_scope &) = delete;
  lock_scope &operator=(const lock_scope &) = delete;

  void take(tarn_lock *lock) {
    take_lock(lock);
    held_ = lock;
  }
  void release() {
    release_lock(held_);
    held_ = nullptr;
  }

 private:
  tarn_lock *held_ = nullptr;
};
