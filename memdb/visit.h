// Walking the rows that a search finds.
#pragma once

#include "memdb/memdb.h"

// Calls visit(row, index) for the rows that match values, as memdb_select finds them, at most so
// many, counted from 0, until it gives false. The embedder keeps the rows from going meanwhile.
template <typename Visit>
void memdb_visit(memdb_tbl *tbl, const char *const *values, int32_t most, Visit visit) {
  memdb_cursor cursor;
  const memdb_row *row = memdb_select(tbl, values, &cursor);
  for (int32_t index = 0; row != nullptr && index < most; index++) {
    if (!visit(row, index)) return;
    row = memdb_select_next(&cursor, row);
  }
}
