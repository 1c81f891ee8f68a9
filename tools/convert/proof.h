// The first load of a new file, and what only that shows.
#pragma once

#include <string>
#include <vector>

#include "tables/files/table_reader.h"
#include "tools/common/equal_rows.h"
#include "tools/common/findings.h"
#include "tools/common/repeated_findings.h"
#include "tools/convert/progress.h"
#include "tools/convert/site.h"

class proof : private load_watch {
 public:
  // lines has the line of each row of the file in the source that it comes from. odd_number is how
  // much an index or a port weighs that isn't the text of its number.
  proof(const site &at, tarn_tbl *table, const std::vector<size_t> &lines, severity odd_number);

  // Loads the file. True if each of its rows has become what it says.
  bool load(const std::string &path);

  // Tells what is odd about the rows, under the name of their source.
  void tell(const std::string &source, findings *found);

  // The module's own words, where a load failed.
  const std::vector<std::string> &messages() const { return messages_; }

 private:
  enum oddity { INDEX, PORT, EQUAL };

  static void on_line(load_watch *self, int number, std::string_view text, bool has_end);
  static void on_row(load_watch *self, int number, const query_in &in, const memdb_row *row);
  void row(const memdb_row *row);
  void index(const memdb_row *row, size_t origin);
  void port(const memdb_row *row, size_t origin);

  const site &at_;
  tarn_tbl *table_;
  const std::vector<size_t> &lines_;
  severity odd_number_;
  equal_rows equal_;
  repeated_findings odd_;
  progress progress_;
  std::string text_;
  size_t rows_ = 0;
  bool is_as_written_ = true;
  std::vector<std::string> messages_;
};
