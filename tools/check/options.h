// The command line.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "tools/common/program.h"

extern const program CHECK_PROGRAM;

struct options {
  bool json = false;
  bool errors_only = false;
  size_t memory_mb = 0;                        // 0 if it isn't told
  std::map<std::string, size_t> best_matches;  // look-ups by the name of their table
  std::string schema;
  std::string private_ranges;  // may be empty
};

// Reads the arguments; bounds of port maps and the allocator go to where the module and
// server_memory have them. Ends the program after --help and --version, and for what isn't
// understood.
options read_options(int argc, char **argv);
