// Looks at what some work has done so far, at each of its instructions.
#pragma once

#include <ucontext.h>

#include <csignal>
#include <cstddef>

extern "C" void __asan_init() __attribute__((weak));

namespace engine_test {

// Of so many moments one is to be forked at: a process under the sanitizers takes long to fork.
inline size_t forked_at_once_in(size_t moments) {
  return &__asan_init != nullptr ? 40 * moments : moments;
}

// Stops this process behind each instruction of some work, to have a look. The look may allocate
// nothing, since the work may be amid an allocation.
class single_steps {
 public:
  static void run(void (*look)(), void (*work)()) {
    looks_ = look;
    struct sigaction action = {};
    struct sigaction before;
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = stopped;
    sigaction(SIGTRAP, &action, &before);
    goes_on_ = true;
    raise(SIGTRAP);
    work();
    goes_on_ = false;
    sigaction(SIGTRAP, &before, nullptr);
  }

  // For a look: the last one, and the work goes on by itself.
  static void end() { goes_on_ = false; }

 private:
  static constexpr greg_t SINGLE_STEP = 0x100;  // of the processor's flags

  static void stopped(int, siginfo_t *, void *context) {
    if (goes_on_) looks_();
    greg_t &flags = static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL];
    flags = goes_on_ ? flags | SINGLE_STEP : flags & ~SINGLE_STEP;
  }

  static inline void (*looks_)();
  static inline volatile bool goes_on_;
};

}  // namespace engine_test
