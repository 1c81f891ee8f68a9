// What is being done, for whoever waits for it in front of a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

class progress {
 public:
  explicit progress(const std::string &what);
  ~progress() { end(); }
  progress(const progress &) = delete;
  progress &operator=(const progress &) = delete;

  // Takes the line back; there is no further step.
  void end();

  // Counts one more row, and shows how many there are, some times a second.
  void step() {
    if (++rows_ % STRIDE == 0 && is_shown_) show();
  }

 private:
  static constexpr size_t STRIDE = 4096;
  using clock = std::chrono::steady_clock;

  void show();

  std::string what_;
  bool is_shown_;
  size_t rows_ = 0;
  size_t width_ = 0;
  clock::time_point next_;
};
