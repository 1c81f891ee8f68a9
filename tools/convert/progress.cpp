// One line on stderr, written over and over.
#include "tools/convert/progress.h"

#include <unistd.h>

#include <cstdio>

#include "tools/common/visible_text.h"

namespace {

// Work that is done sooner needs no line.
constexpr auto PATIENCE = std::chrono::milliseconds(300);
constexpr auto PERIOD = std::chrono::milliseconds(100);

}  // namespace

progress::progress(const std::string &what)
    : what_(visible(what)), is_shown_(isatty(STDERR_FILENO) == 1), next_(clock::now() + PATIENCE) {}

void progress::end() {
  if (width_ != 0) fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
  width_ = 0;
}

void progress::show() {
  const clock::time_point now = clock::now();
  if (now < next_) return;
  next_ = now + PERIOD;
  const int written = fprintf(stderr, "\r%s: %zu rows", what_.c_str(), rows_);
  if (written > 0) width_ = static_cast<size_t>(written);
}
