// Line numbers of places in a file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class line_index {
 public:
  // The file's whole text.
  explicit line_index(std::string text);

  // Line of the first character from offset on that isn't white space, or of the end.
  size_t line_at(size_t offset) const;

  // What stands there, up to the end of its line.
  std::string_view rest_of_line(size_t offset) const;

  // The same up to the next white space.
  std::string_view word_at(size_t offset) const;

  // True if nothing but white space stands from offset on.
  bool is_end(size_t offset) const;

  // True if offset is at the beginning of the text or behind white space.
  bool is_behind_space(size_t offset) const;

 private:
  size_t next_text(size_t offset) const;

  std::string text_;
  std::vector<size_t> ends_;  // of the lines, in ascending order
};
