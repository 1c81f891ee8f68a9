// Which port a row stands for.
#pragma once

#include <cstdint>

#include "ports/port_map.h"
#include "query/query_input.h"
#include "tables/tarn_tbl.h"

// The map and the column of the port that a row of a port-holding table claims, and the port's
// text, null where the query has a wildcard.
struct port_claim {
  port_m *map;
  int32_t col;
  const char *text;
};

// Finds the claim of row or, with a null row, of the query's values. False if the table lacks a
// column that tells the port: such rows claim nothing.
bool find_port_claim(const tarn_tbl *table, const query_in *in, const memdb_row *row,
                     port_claim *claim);
