// What has to hold of every table and port map when nobody works on them any more.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ports/port_map.h"
#include "tables/tarn_tbl.h"

namespace stress {

// Walks list, chains and fields. List and count agree, links lead both ways, every row stands
// exactly once in the chain of its text, and no chain holds anything else.
void check_table(const tarn_tbl &table);

// The rows as texts, newest first, fields joined by '|'.
std::vector<std::string> rows_of(const tarn_tbl &table);

// Stored and loaded again, the table has the same rows in the same order.
void check_stored(tarn_tbl &table);

// Each port's byte says what `rows` (holders by port) and `scripts` (ports held without a row) say.
void check_map(const port_m *map, const char *name, const std::map<int, int> &rows,
               const std::map<int, int> &scripts);

}  // namespace stress
