// Whether values can be a row of a table's file, and come out of it as they went in.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tables/tarn_tbl.h"
#include "tools/common/findings.h"
#include "tools/common/repeated_findings.h"

class row_check {
 public:
  // With may_cut, a value that is too long is cut and that is told, but for one that is a number by
  // which rows or ports are known.
  row_check(const tarn_tbl *table, bool may_cut);

  // values has one text for each column; those that are cut are so afterwards. line is where the
  // row comes from.
  void pass(std::span<std::string_view> values, size_t line);

  // Tells all that was found of these rows, under the name of the file that they come from.
  void tell(const std::string &path, size_t rows, findings *found) const;

 private:
  enum oddity { BAD_VALUE, TOO_LONG, CUT, COMMENT, EMPTY };

  void value(uint32_t column, std::string_view *value, size_t line);
  void length(uint32_t column, std::string_view *value, size_t line);
  template <typename Text>
  void note(severity weight, oddity what, uint32_t column, size_t line, Text text) {
    odd_.note({what, column, weight, false}, line, text);
  }

  const tarn_tbl *table_;
  bool may_cut_;
  std::vector<size_t> rooms_;      // of the columns, in bytes
  std::vector<bool> are_numbers_;  // columns that hold one by which rows or ports are known
  repeated_findings odd_;
};
