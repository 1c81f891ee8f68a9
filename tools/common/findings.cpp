// Collecting findings.
#include "tools/common/findings.h"

void findings::add(const finding &one) {
  const bool is_error = one.weight == severity::error;
  ++(is_error ? errors_ : warnings_);
  if (is_error || !errors_only_) kept_.push_back(one);
}

void findings::warn(const std::string &file, size_t line, const std::string &text) {
  add({file, line, severity::warning, text});
}

void findings::error(const std::string &file, size_t line, const std::string &text) {
  add({file, line, severity::error, text});
}

void findings::unreadable(const std::string &file, size_t line, const std::string &why) {
  error(file, line, why);
  any_unreadable_ = true;
}
