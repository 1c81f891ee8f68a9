// Value by value.
#include "tools/convert/row_check.h"

#include <algorithm>
#include <array>

#include "query/text/field_strings.h"
#include "tables/rows/port_claim.h"
#include "tools/common/visible_text.h"

namespace {

// Characters that a file has a meaning for: a store writes them as they are, and no load reads them
// back.
constexpr auto MARKS = [] {
  std::array<bool, 256> marks{};
  for (const char c : {FIELD_SEPARATOR, FIELD_ESCAPE, '\n', '\0'})
    marks[static_cast<unsigned char>(c)] = true;
  return marks;
}();

const char *name_of(char mark) {
  switch (mark) {
    case FIELD_SEPARATOR:
      return "a '|'";
    case FIELD_ESCAPE:
      return "a backslash";
    case '\n':
      return "a line end";
    default:
      return "a zero byte";
  }
}

const char *find_mark(std::string_view text) {
  const auto at =
      std::ranges::find_if(text, [](char c) { return MARKS[static_cast<unsigned char>(c)]; });
  return at != text.end() ? &*at : nullptr;
}

}  // namespace

row_check::row_check(const tarn_tbl *table, bool may_cut)
    : table_(table), may_cut_(may_cut), are_numbers_(table->tbl->col_cnt) {
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++)
    rooms_.push_back(size_t{table->tbl->cols[i].size} - 1);
  const auto mark = [this](int32_t column) {
    const auto at = static_cast<size_t>(column);
    if (column >= 0 && at < are_numbers_.size()) are_numbers_[at] = true;
  };
  if (table->use_index != 0) mark(0);
  if (!holds_ports(*table)) return;
  const port_columns ports = port_columns_of(*table);
  mark(ports.int_port);
  mark(ports.ext_port);
}

void row_check::pass(std::span<std::string_view> values, size_t line) {
  bool is_empty = true;
  for (uint32_t i = 0; i < values.size(); i++) {
    if (values[i].empty()) continue;
    value(i, &values[i], line);
    if (!values[i].empty()) is_empty = false;
  }
  if (is_empty)
    note(severity::error, EMPTY, 0, line,
         [] { return "the row has nothing but empty values, which no file can hold"; });
  else if (values[0].starts_with('#'))
    note(severity::error, COMMENT, 0, line, [&] {
      return "the row would begin with a '#', " + in_quotes(values[0]) +
             ", and be taken for a comment";
    });
}

void row_check::value(uint32_t column, std::string_view *value, size_t line) {
  const char *const mark = find_mark(*value);
  if (mark != nullptr)
    note(severity::error, BAD_VALUE, column, line, [&] {
      return in_quotes(*value) + " in column " + in_quotes(column_name(table_, column)) + " has " +
             name_of(*mark) + ", which can't be stored";
    });
  if (value->size() > rooms_[column]) length(column, value, line);
  // What a cut leaves may be one as well.
  if (*value == WILDCARD)
    note(severity::error, BAD_VALUE, column, line, [&] {
      return "a '*' is the whole value of column " + in_quotes(column_name(table_, column)) +
             ", which can't be stored";
    });
}

void row_check::length(uint32_t column, std::string_view *value, size_t line) {
  const size_t room = rooms_[column];
  const auto of = [&] {
    return "column " + in_quotes(column_name(table_, column)) + ", which has room for " +
           std::to_string(room) + " characters";
  };
  if (!may_cut_ || are_numbers_[column]) {
    note(severity::error, TOO_LONG, column, line, [&] {
      return in_quotes(*value) + " doesn't fit " + of() + (may_cut_ ? ": a number isn't cut" : "");
    });
    return;
  }
  const std::string_view rest = value->substr(0, room);
  note(severity::warning, CUT, column, line,
       [&] { return in_quotes(*value) + " is cut to " + in_quotes(rest) + " for " + of(); });
  *value = rest;
}

void row_check::tell(const std::string &path, size_t rows, findings *found) const {
  odd_.tell(path, rows, found);
}
