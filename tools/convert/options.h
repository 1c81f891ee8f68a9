// The command line.
#pragma once

#include <string>
#include <vector>

#include "tools/common/program.h"

extern const program CONVERT_PROGRAM;

// TABLE.COLUMN=TEXT, as it was given.
struct column_option {
  std::string column;  // table, dot, column
  std::string text;
};

enum class run_kind { convert, export_table, import_table };

struct options {
  run_kind kind = run_kind::convert;
  bool apply = false;
  bool cut = false;
  bool json = false;
  std::vector<column_option> defaults;
  std::vector<column_option> renames;
  std::string table;          // to be exported or imported
  std::string former_schema;  // of a conversion
  std::string schema;
  std::string csv;  // to be imported; empty for standard input
};

// Reads the arguments. Ends the program after --help and --version, and for what isn't understood.
options read_options(int argc, char **argv);
