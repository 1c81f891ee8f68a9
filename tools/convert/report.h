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
  std::vector<std::pair<std::string, std::string>> added;    // columns, and their value
  std::vector<std::pair<std::string, std::string>> renamed;  // former and new names
  std::vector<std::string> dropped;
  std::vector<written_file> files;  // none: the table's files stay as they are
};

struct run_report {
  bool applied = false;
  std::vector<std::string> finished;  // files put into place that an earlier run had left to do
  std::vector<table_report> tables;
};

// One line each; a last one where files wait to be put into place.
void print_lines(std::ostream &out, const findings &found, const run_report &run);

// An object with the findings and what was done.
void print_json(std::ostream &out, const findings &found, const run_report &run);
