// Findings on the rows of one file. What holds for every row is told once, and of what holds for
// many, the first ones.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/common/findings.h"

class repeated_findings {
 public:
  // Most findings of one kind that are told one by one.
  static constexpr size_t MOST = 20;

  // What goes together. Lines that are no rows are of a kind of their own.
  struct kind {
    int number;
    uint32_t column;  // or any number
    severity weight;
    bool is_of_rows;
    auto operator<=>(const kind &) const = default;
  };

  // Notes what is odd about a line. text gives the words and is called if they are needed.
  template <typename Text>
  void note(const kind &what, size_t line, Text text) {
    group &all = groups_[what];
    all.last_line = line;
    if (all.count++ < MOST) all.first.emplace_back(line, text());
  }

  // Tells all in the order of the lines; rows is how many the file has.
  void tell(const std::string &path, size_t rows, findings *out) const;

 private:
  struct group {
    size_t count = 0;
    size_t last_line = 0;
    std::vector<std::pair<size_t, std::string>> first;
  };

  std::map<kind, group> groups_;
};
