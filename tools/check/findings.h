// What the checker has to tell.
#pragma once

#include <cstddef>
#include <iosfwd>
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
  void warn(const std::string &file, size_t line, const std::string &text);
  void error(const std::string &file, size_t line, const std::string &text);

  // A file, or a part of it, that nothing can be said of.
  void unreadable(const std::string &file);

  bool any_unreadable() const { return any_unreadable_; }
  bool empty() const { return all_.empty(); }
  size_t size() const { return all_.size(); }

  // One line each: FILE:LINE: WEIGHT: TEXT.
  void print(std::ostream &out) const;

  // An object with the list of findings and whether there are none.
  void print_json(std::ostream &out) const;

 private:
  bool any_unreadable_ = false;
  std::vector<finding> all_;
};
