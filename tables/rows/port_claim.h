// Which port a row stands for.
#pragma once

#include <cstdint>

#include "ports/port_map.h"
#include "query/query_input.h"
#include "tables/tarn_tbl.h"

inline constexpr char INTERNAL_LOCATION[] = "WAN";

// The columns that tell on which side a row of a port-holding table is, and those of its ports.
struct port_columns {
  int32_t location;
  int32_t type;
  int32_t int_port;
  int32_t ext_port;
};
port_columns port_columns_of(const tarn_tbl &table);

// The map that the rows of a port-holding table claim from, on either side.
port_m *claimed_map(const tarn_tbl &table, bool internal);

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

// The number of the claimed port: of the text, or the map's next one where the query has a
// wildcard.
int32_t claimed_port(const port_claim &claim) NEEDS_LOCK(port_map_lock);
