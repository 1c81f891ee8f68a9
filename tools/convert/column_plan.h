// Where the values of a table's columns come from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tables/tarn_tbl.h"
#include "tools/common/findings.h"
#include "tools/convert/options.h"
#include "tools/convert/report.h"

struct column_source {
  enum class kind {
    given,   // column number of the rows that come in
    fixed,   // text
    counted  // the number of the row, from 1
  };
  kind from;
  uint32_t number = 0;
  std::string text;
};

// The options that name columns, and which of them were of use.
class column_options {
 public:
  explicit column_options(const std::vector<column_option> &all) : all_(all), used_(all.size()) {}

  // The text given for the column, or null.
  const std::string *find(const std::string &table, const std::string &column);

  // Tells of those that nothing has asked for.
  void tell_unused(const std::string &schema, const char *why, findings *found) const;

 private:
  const std::vector<column_option> &all_;
  std::vector<bool> used_;
};

struct column_plan {
  std::vector<column_source> sources;  // one for each column
  bool is_same = false;                // columns that come in are those that go out, in their order
};

// Finds a source for each column of the table among the columns that come in, by name. Defaults
// serve those that find none, and *report gets these. is_told_missing: such a column without a
// default is an error, told of file.
struct missing_columns {
  bool are_errors;
  std::string file;
};
column_plan plan_columns(const std::vector<std::string> &given, const tarn_tbl &table,
                         column_options *defaults, const missing_columns &missing,
                         table_report *report, findings *found);

// The names of a table's columns. False, told of schema, if two are alike.
bool column_names(const tarn_tbl &table, const std::string &schema, std::vector<std::string> *out,
                  findings *found);

// Tells of columns that are read by their place, as those of ports and of the index, and that would
// be others than before. former has the names of from's columns as they are in to.
void check_places(const tarn_tbl &from, const std::vector<std::string> &former, const tarn_tbl &to,
                  const std::vector<std::string> &names, const std::string &schema,
                  findings *found);
