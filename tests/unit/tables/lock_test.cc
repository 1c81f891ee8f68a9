// The futex lock: its word, its waiters, and exclusion between processes.
#include <ucontext.h>

#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

namespace tables_test {
namespace {

// True if that process sleeps, as one does that waits for a lock.
bool sleeps(pid_t process) {
  std::ifstream in("/proc/" + std::to_string(process) + "/stat");
  std::string stat;
  std::getline(in, stat);
  const size_t name_end = stat.rfind(") ");
  return name_end != std::string::npos && stat[name_end + 2] == 'S';
}

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
  const lock_scope nothing(nullptr);
}

TEST_F(LockTest, AForcedUnlockFreesWhatIsHeldAndTellsSo) {
  EXPECT_FALSE(force_unlock(nullptr));
  for (const uint32_t state : {0u, 1u, 2u}) {
    *shared->lock = state;
    EXPECT_EQ(force_unlock(shared->lock), state != 0);
    EXPECT_EQ(*shared->lock, 0u);
  }
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

TEST_F(LockTest, AScopeHoldsTheLockToItsEnd) {
  {
    const lock_scope held(shared->lock);
    EXPECT_EQ(*shared->lock, 1u);
  }
  EXPECT_EQ(*shared->lock, 0u);
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

// Each access of this process to a lock, one by one. The page of the lock is kept from writing, so
// that every access to it stops in a signal, and a test can do between two accesses what another
// process might do there.
class accesses {
 public:
  // Called ahead of each access, with its number from 1, and behind each, with the word as it is.
  using step = std::function<void(int number, tarn_lock *word)>;

  accesses(tarn_lock *lock, step ahead, step behind)
      : ahead_(std::move(ahead)), behind_(std::move(behind)), lock_(lock) {
    const auto size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    page_ = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(lock) / size * size);
    page_size_ = size;
    watching = this;
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = stopped_ahead;
    sigaction(SIGSEGV, &action, &before_[0]);
    action.sa_sigaction = stopped_behind;
    sigaction(SIGTRAP, &action, &before_[1]);
    protect(PROT_READ);
  }
  ~accesses() {
    protect(PROT_READ | PROT_WRITE);
    sigaction(SIGSEGV, &before_[0], nullptr);
    sigaction(SIGTRAP, &before_[1], nullptr);
    watching = nullptr;
  }
  accesses(const accesses &) = delete;
  accesses &operator=(const accesses &) = delete;

  int count() const { return count_; }

 private:
  static constexpr greg_t SINGLE_STEP = 0x100;  // of the processor's flags

  static void stopped_ahead(int, siginfo_t *, void *context) {
    watching->protect(PROT_READ | PROT_WRITE);
    watching->ahead_(++watching->count_, watching->lock_);
    static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] |= SINGLE_STEP;
  }

  static void stopped_behind(int, siginfo_t *, void *context) {
    static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] &= ~SINGLE_STEP;
    watching->behind_(watching->count_, watching->lock_);
    watching->protect(PROT_READ);
  }

  void protect(int how) {
    if (mprotect(page_, page_size_, how) != 0) abort();
  }

  static inline accesses *watching;
  step ahead_;
  step behind_;
  tarn_lock *lock_;
  void *page_;
  size_t page_size_;
  struct sigaction before_[2];
  int count_ = 0;
};

void nothing(int, tarn_lock *) {}

class LockStepTest : public LockTest {
 protected:
  // The number of the access by which a waiter marks a held lock as awaited.
  int marking_access() {
    int marked = 0;
    *shared->lock = 1;
    const accesses all(shared->lock, nothing, [&marked](int number, tarn_lock *word) {
      if (marked != 0 || *word != 2) return;
      marked = number;
      *word = 0;
    });
    take_lock(shared->lock);
    return marked;
  }
};

TEST_F(LockStepTest, AFreeLockIsTakenAndReleasedInOneAccessEach) {
  const accesses all(shared->lock, nothing, nothing);
  take_lock(shared->lock);
  EXPECT_EQ(all.count(), 1);
  EXPECT_EQ(*shared->lock, 1u);
  release_lock(shared->lock);
  EXPECT_EQ(all.count(), 2);
}

TEST_F(LockStepTest, ALockThatIsReleasedWhileItIsLookedAtIsTakenWithoutAMark) {
  *shared->lock = 1;
  const accesses all(
      shared->lock,
      [](int number, tarn_lock *word) {
        if (number == 10) *word = 0;
      },
      nothing);
  take_lock(shared->lock);
  EXPECT_EQ(all.count(), 10);
  EXPECT_EQ(*shared->lock, 1u);
  release_lock(shared->lock);
}

TEST_F(LockStepTest, ALockThatIsReleasedJustAheadOfTheMarkIsTakenWithoutASleep) {
  const int marking = marking_access();
  ASSERT_GT(marking, 1);
  *shared->lock = 1;
  const accesses all(
      shared->lock,
      [marking](int number, tarn_lock *word) {
        if (number == marking) *word = 0;
      },
      nothing);
  take_lock(shared->lock);
  EXPECT_EQ(all.count(), marking);
  // The mark stays, which costs the release one call too many and no waiter its wake.
  EXPECT_EQ(*shared->lock, 2u);
  release_lock(shared->lock);
}

TEST_F(LockStepTest, AWaiterThatIsOvertakenMarksTheLockAgainAndWaitsOn) {
  const int marking = marking_access();
  *shared->lock = 1;
  const accesses all(
      shared->lock,
      [marking](int number, tarn_lock *word) {
        if (number == marking + 3) *word = 0;
      },
      [marking](int number, tarn_lock *word) {
        // Ahead of each of its sleeps the lock goes to another process, three times.
        if (number < marking || number >= marking + 3) return;
        EXPECT_EQ(*word, 2u) << number;
        *word = 1;
      });
  take_lock(shared->lock);
  EXPECT_EQ(all.count(), marking + 3);
  EXPECT_EQ(*shared->lock, 2u);
  release_lock(shared->lock);
}

TEST_F(LockStepTest, BehindOtherWaitersALockIsSleptOnAtOnceAndStaysMarked) {
  *shared->lock = 2;
  const accesses all(shared->lock, nothing, [](int number, tarn_lock *word) {
    // The holder lets go as soon as the waiter has looked once.
    if (number == 1) *word = 0;
  });
  take_lock(shared->lock);
  EXPECT_EQ(all.count(), 2);
  EXPECT_EQ(*shared->lock, 2u) << "the other waiters would never be woken";
  release_lock(shared->lock);
}

TEST_F(LockTest, AProcessThatWaitsBehindAnotherWakesItWhenItsTurnIsOver) {
  const pid_t last_waiter = getpid();
  process holder([this, last_waiter] {
    take_lock(shared->lock);
    shared->inside = 1;
    // Until this process and the one below wait: two are then asleep on the lock.
    const bool waiting = eventually([&] { return shared->go == 1 && sleeps(last_waiter); });
    release_lock(shared->lock);
    return waiting ? 0 : 1;
  });
  EXPECT_TRUE(eventually([this] { return shared->inside == 1; }));
  process first([this] {
    take_lock(shared->lock);
    release_lock(shared->lock);
    return 0;
  });
  EXPECT_TRUE(eventually([this, &first] { return *shared->lock == 2 && sleeps(first.pid()); }));
  shared->go = 1;
  take_lock(shared->lock);
  release_lock(shared->lock);
  EXPECT_EQ(holder.exit_code(), 0);
  EXPECT_EQ(first.exit_code(), 0) << "a wake was lost";
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
