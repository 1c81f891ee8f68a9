// Where the tables' files are: whether they can be stored there, and whether they are anybody
// else's.
#pragma once

#include <string>
#include <vector>

#include "tools/common/findings.h"
#include "tools/common/schema_check.h"

struct checked_inputs {
  std::string schema;
  std::string private_ranges;  // may be empty
};

// Tells of tables that are never stored, that get no backup, or whose files are another's. The
// registry has the schema's tables.
void check_places(const checked_inputs &inputs, const schema_places &lines, findings *out);
