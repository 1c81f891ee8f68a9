// The futex lock: its word, its waiters, and exclusion between processes.
#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

namespace tables_test {
namespace {

class LockTest : public TablesTest {
 protected:
  // A lock and counters that forked processes share.
  struct shared_state {
    tarn_lock *lock;
    volatile long counter;  // changed under the lock alone
    std::atomic<int> inside;
    std::atomic<int> go;
  };

  LockTest() {
    EXPECT_TRUE(standin::use_shared_mapping(1 << 20));
    shared = new (tarn_shm_calloc(1, sizeof(shared_state))) shared_state{};
    shared->lock = generate_lock();
  }

  ~LockTest() override {
    EXPECT_EQ(*shared->lock, 0u);
    tarn_shm_free(shared->lock);
    tarn_shm_free(shared);
  }

  shared_state *shared;
};

TEST_F(LockTest, ANewLockIsAFreeWordInSharedMemory) {
  EXPECT_EQ(sizeof(*shared->lock), 4u);
  EXPECT_EQ(*shared->lock, 0u);
  EXPECT_EQ(standin::live_bytes(pool::shm), sizeof(shared_state) + 4);
}

TEST_F(LockTest, WithoutMemoryThereIsNoLock) {
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(generate_lock(), nullptr);
  EXPECT_EQ(errors(), texts{"Could not allocate the lock\n"});
}

TEST_F(LockTest, TheWordIsOneWhileHeldAndZeroAfterwards) {
  take_lock(shared->lock);
  EXPECT_EQ(*shared->lock, 1u);
  release_lock(shared->lock);
  EXPECT_EQ(*shared->lock, 0u);
}

TEST_F(LockTest, NullIsIgnored) {
  take_lock(nullptr);
  release_lock(nullptr);
  lock_scope nothing(nullptr);
  nothing.release();
}

TEST_F(LockTest, AForcedUnlockFreesWhatIsHeldAndTellsSo) {
  EXPECT_FALSE(force_unlock(nullptr));
  EXPECT_FALSE(force_unlock(shared->lock));
  take_lock(shared->lock);
  EXPECT_TRUE(force_unlock(shared->lock));
  EXPECT_EQ(*shared->lock, 0u);
  *shared->lock = 2;
  EXPECT_TRUE(force_unlock(shared->lock));
  EXPECT_EQ(*shared->lock, 0u);
  take_lock(shared->lock);
  release_lock(shared->lock);
}

TEST_F(LockTest, ALockIsTakenAfterItsHolderWasKilled) {
  process holder([this] {
    take_lock(shared->lock);
    shared->inside = 1;
    pause();
    return 0;
  });
  EXPECT_TRUE(eventually([this] { return shared->inside == 1; }));
  kill(holder.pid(), SIGKILL);
  EXPECT_EQ(holder.exit_code(), -1);
  EXPECT_EQ(*shared->lock, 1u);
  EXPECT_TRUE(force_unlock(shared->lock));
  const lock_scope held(shared->lock);
  EXPECT_EQ(*shared->lock, 1u);
}

TEST_F(LockTest, AScopeHoldsTheLockToItsEndOrToItsRelease) {
  {
    const lock_scope held(shared->lock);
    EXPECT_EQ(*shared->lock, 1u);
  }
  EXPECT_EQ(*shared->lock, 0u);
  {
    lock_scope held;
    EXPECT_EQ(*shared->lock, 0u);
    held.take(shared->lock);
    EXPECT_EQ(*shared->lock, 1u);
    held.release();
    EXPECT_EQ(*shared->lock, 0u);
    take_lock(shared->lock);
  }
  // The scope had let go, so that its end leaves another holder alone.
  EXPECT_EQ(*shared->lock, 1u);
  release_lock(shared->lock);
}

TEST_F(LockTest, AnotherProcessSeesTheLockHeldAndWaits) {
  take_lock(shared->lock);
  process waiter([this] {
    take_lock(shared->lock);
    shared->inside = 1;
    const bool awaited = *shared->lock == 2;
    release_lock(shared->lock);
    return awaited ? 0 : 1;
  });
  // The waiter marks the word before it sleeps.
  EXPECT_TRUE(eventually([this] { return *shared->lock == 2; }));
  sleep_ms(50);
  EXPECT_EQ(shared->inside, 0);
  EXPECT_FALSE(waiter.ended());
  release_lock(shared->lock);
  EXPECT_EQ(waiter.exit_code(), 0);
  EXPECT_EQ(shared->inside, 1);
  EXPECT_EQ(*shared->lock, 0u);
}

TEST_F(LockTest, AWaiterOutlivesWakesThatBringItNothing) {
  take_lock(shared->lock);
  process waiter([this] {
    take_lock(shared->lock);
    shared->inside = 1;
    release_lock(shared->lock);
    return 0;
  });
  EXPECT_TRUE(eventually([this] { return *shared->lock == 2; }));
  // A stop and go interrupts the system call.
  for (int i = 0; i < 5; i++) {
    kill(waiter.pid(), SIGSTOP);
    sleep_ms(5);
    kill(waiter.pid(), SIGCONT);
    sleep_ms(5);
  }
  EXPECT_EQ(shared->inside, 0);
  release_lock(shared->lock);
  EXPECT_EQ(waiter.exit_code(), 0);
}

TEST_F(LockTest, EachReleaseLetsOneWaiterIn) {
  take_lock(shared->lock);
  const auto wait_and_hold = [this] {
    take_lock(shared->lock);
    const int turn = ++shared->inside;
    while (shared->go < turn) sleep_ms(1);
    release_lock(shared->lock);
    return 0;
  };
  process a(wait_and_hold), b(wait_and_hold), c(wait_and_hold);
  EXPECT_TRUE(eventually([this] { return *shared->lock == 2; }));
  sleep_ms(30);
  release_lock(shared->lock);
  for (int turn = 1; turn <= 3; turn++) {
    EXPECT_TRUE(eventually([&] { return shared->inside == turn; }));
    sleep_ms(20);
    EXPECT_EQ(shared->inside, turn);
    shared->go = turn;
  }
  EXPECT_EQ(a.exit_code(), 0);
  EXPECT_EQ(b.exit_code(), 0);
  EXPECT_EQ(c.exit_code(), 0);
}

TEST_F(LockTest, FourProcessesNeverCountOverEachOther) {
  constexpr int TIMES = 50000;
  EXPECT_TRUE(run_processes(4, [this](int) {
    for (int i = 0; i < TIMES; i++) {
      take_lock(shared->lock);
      if (++shared->inside != 1) return 1;
      shared->counter = shared->counter + 1;
      --shared->inside;
      release_lock(shared->lock);
    }
    return 0;
  }));
  EXPECT_EQ(shared->counter, 4L * TIMES);
  EXPECT_EQ(*shared->lock, 0u);
}

TEST_F(LockTest, HoldersThatSleepInsideLoseNoWaiter) {
  EXPECT_TRUE(run_processes(3, [this](int) {
    for (int i = 0; i < 40; i++) {
      const lock_scope held(shared->lock);
      const long before = shared->counter;
      sleep_ms(1);
      shared->counter = before + 1;
    }
    return 0;
  }));
  EXPECT_EQ(shared->counter, 3 * 40);
}

}  // namespace
}  // namespace tables_test
