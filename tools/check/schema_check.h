// Line by line through a schema, with the module's own reads.
#pragma once

#include <string>

#include "tools/check/findings.h"

// Tells what the module would take for zero, pass over or refuse in the schema. False if the file
// can't be read.
bool check_schema(const std::string &path, findings *out);
