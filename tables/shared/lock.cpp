// Taking and releasing the futex word.
#include "tables/shared/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <new>

#include "host/log.h"
#include "tables/shared/shared_memory.h"

namespace {

constexpr uint32_t LOCK_FREE = 0;
constexpr uint32_t LOCK_HELD = 1;
constexpr uint32_t LOCK_AWAITED = 2;  // held, and some process may be asleep on it

constexpr int TRIES_BEFORE_SLEEP = 1024;

// The word crosses processes, so the operations aren't the private ones.
void futex_wait(tarn_lock *lock, uint32_t expected) {
  syscall(SYS_futex, lock, FUTEX_WAIT, expected, nullptr, nullptr, 0);
}

void futex_wake_one(tarn_lock *lock) {
  syscall(SYS_futex, lock, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

}  // namespace

tarn_lock *generate_lock() {
  void *const block = tarn_shm_malloc(sizeof(tarn_lock));
  if (block == nullptr) {
    LM_ERR("Could not allocate the lock\n");
    return nullptr;
  }
  return new (block) tarn_lock(LOCK_FREE);
}

void take_lock(tarn_lock *lock) UNCHECKED_LOCKING {
  if (lock == nullptr) return;
  for (int tries = TRIES_BEFORE_SLEEP;; tries--) {
    uint32_t seen = LOCK_FREE;
    if (lock->compare_exchange_strong(seen, LOCK_HELD, std::memory_order_acquire)) return;
    if (seen == LOCK_AWAITED) break;
    if (tries > 0) continue;
    if (lock->exchange(LOCK_AWAITED, std::memory_order_acquire) == LOCK_FREE) return;
    break;
  }
  do {
    futex_wait(lock, LOCK_AWAITED);
  } while (lock->exchange(LOCK_AWAITED, std::memory_order_acquire) != LOCK_FREE);
}

void release_lock(tarn_lock *lock) UNCHECKED_LOCKING {
  if (lock == nullptr) return;
  if (lock->exchange(LOCK_FREE, std::memory_order_release) == LOCK_AWAITED) futex_wake_one(lock);
}

bool force_unlock(tarn_lock *lock) {
  return lock != nullptr && lock->exchange(LOCK_FREE, std::memory_order_acquire) != LOCK_FREE;
}
