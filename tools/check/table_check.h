// Line by line through the files of a table, as the module would load them.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "tables/tarn_tbl.h"
#include "tools/check/findings.h"

// Where each port of each map is claimed first: file and line.
using port_claims = std::map<std::pair<const void *, int>, std::pair<std::string, size_t>>;

// Tells what would be lost, refused or changed at the load of the table, from its main file and the
// backup behind it, and which of the two files would be removed. Reads both and changes neither;
// the rows go into the table, which the caller destroys.
void check_table(tarn_tbl *table, port_claims *claims, findings *out);
