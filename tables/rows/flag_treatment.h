// Keeps the port maps in step with the rows of tables that hold ports.
#pragma once

#include "query/query_input.h"
#include "tables/tarn_tbl.h"

enum class port_operation {
  take,              // a row was inserted or loaded
  release,           // a row is about to go
  release_on_update  // a row is about to be updated
};

// Takes or releases the port of a row of a port-holding table; nothing for other tables or tables
// without the columns that tell the port. The side and the map follow from row or, with a null row,
// from the query. An update releases the port that the selection names when values sets another
// one, and takes none; values may be null for the others. Runs without the port maps' lock.
void flag_treatment(const tarn_tbl *table, const query_in *in, const memdb_row *row,
                    const query_in *values, port_operation operation) NEEDS_LOCK(table->lock);
