// The records that a start makes ahead of the loads.
#pragma once

#include <string>

#include "tools/common/findings.h"

// Makes the port maps, with private ranges left out, and a registry without tables. False if memory
// is short.
bool make_module_records();

// Makes one more registry without tables, and it becomes the one that the module's code uses; the
// one before stays as it is. False if memory is short.
bool make_next_registry();

// Makes the tables of a schema of that text in the registry. False, told, if a start would fail at
// that.
bool make_tables(const std::string &schema, std::string text, findings *out);
