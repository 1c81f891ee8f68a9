// A new file of a table, written beside the place that it is for, and read back as the next start
// will read it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/findings.h"
#include "tools/convert/disk_file.h"
#include "tools/convert/progress.h"
#include "tools/convert/row_check.h"
#include "tools/convert/site.h"

// Where a file is written that is to stand at path.
std::string new_path(const std::string &path);

struct new_file_rules {
  bool may_cut = false;
  severity odd_number = severity::error;  // an index or a port that the module wouldn't write so
};

class new_file {
 public:
  // A file of one of at's tables, for path. What is wrong with rows is told of source, in which
  // they have their lines.
  new_file(const site &at, tarn_tbl *table, const std::string &path, const std::string &source,
           const new_file_rules &rules, findings *found);

  // Makes the file. False, told, if it can't be made.
  bool make(const file_access &access);

  // Adds a row, one text for each column, from this line of the source; texts that are cut are so
  // afterwards. False, told, if it can't be written. What else is wrong comes out in finish.
  bool add(std::span<std::string_view> values, size_t line);

  // Brings the file to the disk, and reads it into the table with the module's own code. False,
  // told, if anything is wrong; then there is no file.
  bool finish();

  // Takes away what was written.
  void remove();

  size_t rows() const { return lines_.size(); }

 private:
  bool unwritable();
  bool is_within_limit();
  bool reads_back();

  const site &at_;
  tarn_tbl *table_;
  std::string path_;
  std::string source_;
  new_file_rules rules_;
  findings *found_;
  row_check check_;
  disk_file file_;
  progress progress_;
  std::vector<size_t> lines_;  // of the rows in their source
};
