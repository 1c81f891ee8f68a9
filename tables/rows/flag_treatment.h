// Keeps the port maps in step with the rows of tables that hold ports.
#pragma once

#include <cstdint>

#include "query/query_input.h"
#include "tables/tarn_tbl.h"

// Operation codes.
inline constexpr uint32_t PORT_TAKE = 0;               // a row was inserted or loaded
inline constexpr uint32_t PORT_RELEASE = 2;            // a row is about to go
inline constexpr uint32_t PORT_RELEASE_ON_UPDATE = 3;  // a row is about to be updated

// Takes or releases the port of a row of a port-holding table; nothing for other tables, codes or
// tables without the columns that tell the port. The side and the map follow from row or, with a
// null row, from the query. An update releases the port that the selection names when values sets
// another one, and takes none. Runs under the table's lock and without that of the port maps.
void flag_treatment(tarn_tbl *table, const query_in *in, const memdb_row *row,
                    const query_in *values, int32_t unused, uint32_t operation);
