// Who waits for a lock: this process holds it while another one runs a function.
#pragma once

#include <linux/futex.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <ostream>
#include <stdexcept>

#include "tests/module/issue3_fixture.h"

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
class LockTest : public Issue3Test {
 protected:
  static constexpr size_t MAPPING_BYTES = 8 << 20;
  static constexpr int SECONDS_TO_END = 60;

  void SetUp() override {
    Issue3Test::SetUp();
    ASSERT_TRUE(standin::use_shared_mapping(MAPPING_BYTES));
  }

  // Runs work in another process while this one holds the lock, which it gives back as soon as the
  // other one has gone to sleep on it; before it does, it runs meanwhile.
  static probe run_beside_holder(
      tarn_lock *lock, const std::function<int()> &work,
      const std::function<void()> &meanwhile = [] {}) {
    uint32_t free_word = FREE;
    if (!lock->compare_exchange_strong(free_word, HELD)) throw std::logic_error("lock is held");
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    const pid_t other = fork();
    if (other < 0) throw std::runtime_error("no process");
    if (other == 0) {
      alarm(SECONDS_TO_END);
      const int result = work();
      const bool told = write(ends[1], &result, sizeof(result)) == sizeof(result);
      _exit(told && !HasFailure() ? 0 : 1);
    }
    close(ends[1]);
    probe out{false, 0};
    pollfd reader{ends[0], POLLIN, 0};
    while (poll(&reader, 1, 1) == 0) {
      if (lock->load() != AWAITED) continue;
      out.waited = true;
      meanwhile();
      break;
    }
    if (lock->exchange(FREE) == AWAITED)
      syscall(SYS_futex, lock, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    EXPECT_EQ(read(ends[0], &out.result, sizeof(out.result)),
              static_cast<ssize_t>(sizeof(out.result)));
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(lock->load(), FREE);
    return out;
  }

 private:
  static constexpr uint32_t FREE = 0;
  static constexpr uint32_t HELD = 1;
  static constexpr uint32_t AWAITED = 2;
};

}  // namespace module_test
