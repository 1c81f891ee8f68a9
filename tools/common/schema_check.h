// Line by line through a schema, with the module's own reads.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/common/findings.h"

// Where in the schema things stand that are told of later. 0 for what isn't there.
struct schema_places {
  size_t base_dir = 0;
  size_t base_backup_dir = 0;
  std::vector<size_t> file_names;  // one for each table that was read
  bool is_absurd = false;          // a number of tables or columns is beyond all that stands there
};

// Tells what the module would take for zero, pass over or refuse in the schema of that text. The
// port maps have to stand.
schema_places check_schema(const std::string &path, const std::string &text, findings *out);
