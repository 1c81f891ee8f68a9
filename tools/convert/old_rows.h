// The rows of a table's file as a start reads them, and the lines that they stand in.
#pragma once

#include <string>
#include <vector>

#include "tables/files/table_reader.h"
#include "tools/common/findings.h"
#include "tools/common/repeated_findings.h"
#include "tools/convert/progress.h"
#include "tools/convert/site.h"

class old_rows : private load_watch {
 public:
  // The table is one of at's, and has the rows from read to the next read of any of its files.
  old_rows(const site &at, tarn_tbl *table, const std::string &path, findings *found);

  // Reads the file into the table. False, told, if a start would refuse it, or if it can't be read.
  bool read();

  size_t count() const { return lines_.size(); }

  // Calls use with each row and its line, the oldest first.
  template <typename Use>
  void each(Use use) const {
    size_t number = 0;
    for (const memdb_row *row = table_->tbl->last; row != nullptr; row = row->prev)
      use(row, lines_[number++]);
  }

 private:
  enum oddity { NO_END, COMMENT, ROW_ODDITIES, CUT = ROW_ODDITIES };

  static void on_line(load_watch *self, int number, std::string_view text, bool has_end);
  static void on_row(load_watch *self, int number, const query_in &in, const memdb_row *row);
  void line(int number, std::string_view text, bool has_end);
  void row(int number, const query_in &in, const memdb_row *row);
  bool is_file();

  const site &at_;
  tarn_tbl *table_;
  std::string path_;
  findings *found_;
  repeated_findings odd_;
  progress progress_;
  std::vector<size_t> lines_;  // of the rows
  std::string text_;           // of the last line
  int last_line_ = 0;
  size_t bytes_ = 0;
  size_t size_ = 0;
  bool is_pending_ = false;  // the last line is to become a row
};
