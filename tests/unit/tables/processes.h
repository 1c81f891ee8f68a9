// Forked processes in tests: each runs one function and is waited for within a bounded time.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

namespace tables_test {

inline void sleep_ms(long ms) {
  const timespec time{ms / 1000, ms % 1000 * 1000000};
  nanosleep(&time, nullptr);
}

// True as soon as the condition holds; false if it doesn't within that many milliseconds.
inline bool eventually(const std::function<bool()> &condition, long ms = 20000) {
  for (long waited = 0; waited < ms; waited++) {
    if (condition()) return true;
    sleep_ms(1);
  }
  return condition();
}

// A process that runs work and ends with its result as exit code. One that still runs at the end
// of the test is killed.
class process {
 public:
  explicit process(const std::function<int()> &work) {
    fflush(nullptr);
    pid_ = fork();
    if (pid_ != 0) return;
    // Nothing may get past here into the parent's tests.
    try {
      _exit(work());
    } catch (...) {
      _exit(EXCEPTION);
    }
  }
  ~process() {
    if (ended_ || pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
  process(const process &) = delete;
  process &operator=(const process &) = delete;

  // True if the process has ended; its exit code is then known.
  bool ended() {
    if (!ended_) ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
    return ended_;
  }

  // The exit code, or -1 if the process doesn't end in time or dies of a signal.
  int exit_code(long ms = 60000) {
    if (!eventually([this] { return ended(); }, ms)) return -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

  pid_t pid() const { return pid_; }

 private:
  static constexpr int EXCEPTION = 99;

  pid_t pid_;
  int status_ = 0;
  bool ended_ = false;
};

// A line at which processes wait until all of them have come.
class starting_line {
 public:
  explicit starting_line(int count)
      : count_(count),
        arrived_(static_cast<std::atomic<int> *>(mmap(nullptr, sizeof(std::atomic<int>),
                                                      PROT_READ | PROT_WRITE,
                                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~starting_line() { munmap(arrived_, sizeof(std::atomic<int>)); }
  starting_line(const starting_line &) = delete;
  starting_line &operator=(const starting_line &) = delete;

  void wait() const {
    ++*arrived_;
    while (*arrived_ < count_) sched_yield();
  }

 private:
  int count_;
  std::atomic<int> *arrived_;
};

// Runs work(0) to work(count - 1), each in a process of its own, all at once; true if all give 0.
inline bool run_processes(int count, const std::function<int(int)> &work) {
  const starting_line line(count);
  std::vector<std::unique_ptr<process>> all;
  for (int i = 0; i < count; i++)
    all.push_back(std::make_unique<process>([&work, &line, i] {
      line.wait();
      return work(i);
    }));
  bool good = true;
  for (const auto &one : all) good = one->exit_code() == 0 && good;
  return good;
}

}  // namespace tables_test
