// Who waits for a lock: this process holds it while another one runs a function.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <ostream>
#include <stdexcept>

#include "tests/module/processes.h"
#include "tests/module/shared_view.h"

namespace module_test {

// What the other process did: it fell asleep on the lock or it didn't, and came to a result.
struct probe {
  bool waited;
  int result;
  bool operator==(const probe &other) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const probe &shown) {
  return out << (shown.waited ? "waited, then " : "did not wait, ") << shown.result;
}

// Tests of this kind keep the shared blocks where forked processes see them.
class LockProbeTest : public SharedViewTest {
 protected:
  static constexpr size_t MAPPING_BYTES = 8 << 20;

  void SetUp() override {
    SharedViewTest::SetUp();
    ASSERT_TRUE(standin::use_shared_mapping(MAPPING_BYTES));
  }

  // Runs work in another process while this one holds the lock, which it gives back as soon as the
  // other one has gone to sleep on it; before it does, it runs meanwhile.
  static probe run_beside_holder(
      tarn_lock *lock, const std::function<int()> &work,
      const std::function<void()> &meanwhile = [] {}) {
    uint32_t free_word = FREE;
    if (!lock->compare_exchange_strong(free_word, HELD)) throw std::logic_error("lock is held");
    child_process other([&work] {
      const int result = work();
      return HasFailure() ? EXPECTATION_FAILED : result;
    });
    probe out{false, 0};
    while (!other.result(1)) {
      if (lock->load() != AWAITED) continue;
      out.waited = true;
      meanwhile();
      break;
    }
    if (lock->exchange(FREE) == AWAITED)
      syscall(SYS_futex, lock, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    out.result = other.result().value_or(EXPECTATION_FAILED);
    EXPECT_NE(out.result, EXPECTATION_FAILED);
    EXPECT_EQ(lock->load(), FREE);
    return out;
  }

 private:
  static constexpr int EXPECTATION_FAILED = INT_MIN;
  static constexpr uint32_t FREE = 0;
  static constexpr uint32_t HELD = 1;
  static constexpr uint32_t AWAITED = 2;
};

}  // namespace module_test
