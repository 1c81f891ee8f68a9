// Rows as lines of a file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tables/tarn_tbl.h"
#include "tools/common/findings.h"

// The line that a store writes for the row, without its end.
std::string stored_line(const memdb_tbl *tbl, const memdb_row *row);

// True if the line that the row comes from is the one that a store writes for it.
bool is_stored_line(const memdb_tbl *tbl, const memdb_row *row, std::string_view line);

// Tells why the module refuses a file: because of this line, the last one that was looked at, or,
// where it is line 0, since there is none. messages are those of the module's code.
void tell_refusal(const tarn_tbl *table, const std::string &path, int line, std::string text,
                  const std::vector<std::string> &messages, findings *out);
