// The parts of the cursor search. Serves it and its tests.
#pragma once

#include "memdb/layout/layout.h"

// First row from start (may be null) towards the oldest whose text equals the key, or null.
memdb_row *memdb_find(memdb_row *start, const memdb_col *col, const char *key);

// True if every column but skip_col is a wildcard or equal to the row's text.
bool memdb_row_match(const memdb_tbl *tbl, const memdb_row *row, int32_t skip_col,
                     const char *const *values);
