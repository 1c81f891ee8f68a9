// What a run has done, for people or for programs.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/common/findings.h"

struct written_file {
  std::string from;
  std::string path;  // that it is for
  size_t rows;
  std::optional<std::string> kept;  // where that which stood there is now
};

struct table_report {
  std::string table;
  // Columns, and their value; nothing for those that count the rows.
  std::vector<std::pair<std::string, std::optional<std::string>>> added;
  std::vector<std::pair<std::string, std::string>> renamed;  // former and new names
  std::vector<std::string> dropped;
  std::vector<written_file> files;  // none: the table's files stay as they are
};

enum class run_outcome {
  nothing,     // nothing was changed
  written,     // new files wait to be put into place
  applied,     // they are in their places
  resumed,     // so are those of a run that was cut off, and no more was done
  unfinished,  // some are, and the next run can go on with the others
};

struct run_report {
  run_outcome outcome = run_outcome::nothing;
  std::vector<std::string> resumed;  // places of files
  std::vector<table_report> tables;
};

// One line each.
void print_lines(std::ostream &out, const findings &found, const run_report &run);

// An object with the findings and what was done.
void print_json(std::ostream &out, const findings &found, const run_report &run);
