// A table of fixed-size rows of text fields, with an optional hash index per column.
//
// The engine knows nothing of names, row limits, files or locks; it takes none. Whoever changes a
// table keeps all others from changing it meanwhile, by whatever lock the embedder gives it. The
// read side, memdb_select, memdb_select_next and memdb_get_field, may run beside one that changes
// the table, in any process, if no row that such a reader may be on is given back or becomes
// another row: memdb_retire is the place to see to that. It then meets every row that was there
// all the while, none that isn't whole, and texts that may be overwritten while it looks.
#pragma once

#include <cstdint>

#include "memdb/layout/hooks.h"
#include "memdb/layout/layout.h"
#include "memdb/layout/log.h"

// A search in progress. values, one entry per column, a null matching any text, is the caller's and
// outlives the cursor.
struct memdb_cursor {
  memdb_row *row;
  memdb_tbl *tbl;
  const char *const *values;
  int32_t key_col;  // the column that leads the search, MEMDB_NO_COL for a full scan
};

// New empty table with columns as declared, or null if memory is short or a row would pass the
// 32-bit size. Owned by the caller, who gives it to memdb_destroy_tbl.
memdb_tbl *memdb_create_tbl(const tbl_dcl *columns, uint32_t col_cnt);

// Frees the table with all rows and indexes. Null is ignored.
void memdb_destroy_tbl(memdb_tbl *tbl);

// Adds a row as the newest one; values has col_cnt texts, each cut with a warning where it is
// longer than its column. Null if memory is short or a value is null; the table is then as before.
// Neither a reader without a lock nor whoever comes after a killed writer finds a row that isn't
// whole.
memdb_row *memdb_insert(memdb_tbl *tbl, const char *const *values);

// Takes the row out of the list and of all indexes and frees it.
void memdb_delete_row(memdb_tbl *tbl, memdb_row *row);

// Deletes every row. Whole indexes go, so that no entry is looked for and none reported as missing.
void memdb_delete_all(memdb_tbl *tbl);

// Makes the list whole again after a process was ended amid a change of the table: it counts as it
// runs from the newest row to the oldest. Chains aren't looked at. Nobody else may be at the table.
void memdb_mend_list(memdb_tbl *tbl);

// Overwrites one text in place, cut as in memdb_insert, by one copy: a reader without a lock may
// meet a mix of both texts while it runs, and nothing else is done in that time. The row keeps its
// place in the column's index: it stays findable through it by the old bucket only. Scripts know
// indexed columns to be keys that an update doesn't move. Another text than before makes the bucket
// a chain for as long as that shows.
memdb_row *memdb_set_field(memdb_tbl *tbl, memdb_row *row, uint32_t col, const char *value);

// First row that matches values, and the cursor set for memdb_select_next; null if none does.
// Rows come newest first. The first indexed column with a value leads the search.
memdb_row *memdb_select(memdb_tbl *tbl, const char *const *values, memdb_cursor *cursor);

// Next matching row after the one returned last, or null. To be called only after a row.
memdb_row *memdb_select_next(memdb_cursor *cursor);

// The same for a caller that has the row returned last at hand: long scans go from row to row
// without a call.
inline memdb_row *memdb_select_next(memdb_cursor *cursor, const memdb_row *last) {
  if (cursor->key_col == MEMDB_NO_COL) return cursor->row = last->next;
  return memdb_select_next(cursor);
}
