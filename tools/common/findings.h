// What the checker has to tell.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

enum class severity {
  warning,  // taken for something else, or changed, without a word at the next start
  error     // the start fails, or rows are lost
};

struct finding {
  std::string file;
  size_t line;  // from 1; 0 for the file as a whole
  severity weight;
  std::string text;
};

class findings {
 public:
  // With errors_only, warnings are counted and not kept.
  explicit findings(bool errors_only = false) : errors_only_(errors_only) {}

  void add(const finding &one);
  void warn(const std::string &file, size_t line, const std::string &text);
  void error(const std::string &file, size_t line, const std::string &text);

  // A file, or a part of it, that nothing can be said of, and why.
  void unreadable(const std::string &file, size_t line, const std::string &why);

  bool any_unreadable() const { return any_unreadable_; }
  size_t errors() const { return errors_; }
  size_t warnings() const { return warnings_; }
  const std::vector<finding> &kept() const { return kept_; }

 private:
  bool errors_only_;
  bool any_unreadable_ = false;
  size_t errors_ = 0;
  size_t warnings_ = 0;
  std::vector<finding> kept_;
};
