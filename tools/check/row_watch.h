// Watches the load of a table file for rows that load changed, or that won't do what they say.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tables/files/table_reader.h"
#include "tools/check/port_holders.h"
#include "tools/common/equal_rows.h"
#include "tools/common/findings.h"
#include "tools/common/repeated_findings.h"

class row_watch : public load_watch {
 public:
  // Findings are told of path, a file of size bytes. held has the ports of the rows of other files.
  row_watch(tarn_tbl *table, const std::string &path, const port_holders &held, size_t size,
            findings *out);

  // Tells all of a file that the load has read, or refused with these messages.
  void finish(table_file_state state, const std::vector<std::string> &messages);

  // Ports that the file's rows have taken.
  const port_holders &own_ports() const { return own_ports_; }

  // The last line that was looked at.
  int last_line() const { return line_; }

 private:
  static void on_line(load_watch *self, int number, std::string_view text, bool has_end);
  static void on_row(load_watch *self, int number, const query_in &in, const memdb_row *row);

  // What is odd about a line, and about a row.
  enum oddity {
    COMMENT,
    ZERO_BYTE,
    NO_END,
    ROW_ODDITIES,
    CUT = ROW_ODDITIES,
    UNESCAPED,
    CHANGED,
    LOADS_ONCE,
    CARRIAGE_RETURN,
    INDEX_TEXT,
    INDEX_TWICE,
    INDEX_LAST,
    EQUAL_ROW,
    TOO_MANY,
    PORT_TEXT,
    PORT_OUTSIDE,
    PORT_TWICE
  };

  template <typename Text>
  void note(severity weight, oddity what, uint32_t column, int line, Text text) {
    odd_.note({what, column, weight, what >= ROW_ODDITIES}, static_cast<size_t>(line), text);
  }
  template <typename Text>
  void warn(oddity what, Text text) {
    note(severity::warning, what, 0, line_, text);
  }

  void line(std::string_view text, bool has_end);
  void row(const query_in &in, const memdb_row *row);
  bool changes(const query_in &in, const memdb_row *row);
  void next_load(const memdb_row *row);
  void index(const char *text);
  bool is_index_new(uint32_t taken);
  void equal_rows_found();
  void limit();
  void port(const memdb_row *row);

  tarn_tbl *table_;
  const std::string &path_;
  size_t size_;
  const port_holders &held_;
  findings *out_;
  repeated_findings odd_;
  port_holders own_ports_;
  equal_rows equal_;
  int line_ = 0;
  std::string text_;                      // of the line, as far as it counts
  bool is_row_ = false;                   // of the line, and not yet told of as one
  size_t bytes_ = 0;                      // read so far
  uint32_t highest_ = 0;                  // index
  std::unordered_set<uint32_t> indexes_;  // of all rows, once one didn't come in order
};
