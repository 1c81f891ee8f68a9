// Processor time for benchmarks that stop the clock between batches: other programs on the machine
// disturb it least.
#pragma once

#include <ctime>

namespace bench {

inline double processor_seconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class stopwatch {
 public:
  stopwatch() : start_(processor_seconds()) {}

  // Seconds since the start, less what looking at the clock takes.
  double seconds() const {
    const double spent = processor_seconds() - start_ - own_cost();
    return spent > 0 ? spent : 0;
  }

 private:
  static double own_cost() {
    static const double cost = [] {
      double least = 1;
      for (int i = 0; i < 1000; i++) {
        const double start = processor_seconds();
        const double spent = processor_seconds() - start;
        if (spent < least) least = spent;
      }
      return least;
    }();
    return cost;
  }

  double start_;
};

}  // namespace bench
