// The cursor search: exact texts and wildcards over all columns.
#include "memdb/search.h"

#include <cstring>

#include "memdb/index/index.h"
#include "memdb/memdb.h"

namespace {

// The first indexed column with a value leads; without one, the first column with a value.
int32_t choose_key_col(const memdb_tbl *tbl, const char *const *values) {
  int32_t key_col = MEMDB_NO_COL;
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (values[i] == nullptr) continue;
    if (memdb_is_indexed(tbl->cols[i])) return static_cast<int32_t>(i);
    if (key_col == MEMDB_NO_COL) key_col = static_cast<int32_t>(i);
  }
  return key_col;
}

// From a row that has the key (or null) on to the first that matches in full, which becomes the
// cursor's row. A miss leaves the cursor as it was.
memdb_row *settle(memdb_cursor *cursor, const memdb_col *col, const char *key, memdb_row *row) {
  while (row != nullptr && !memdb_row_match(cursor->tbl, row, cursor->key_col, cursor->values))
    row = memdb_is_indexed(*col) ? memdb_idx_next_res(row, col, key)
                                 : memdb_find(row->next, col, key);
  if (row != nullptr) cursor->row = row;
  return row;
}

}  // namespace

memdb_row *memdb_find(memdb_row *start, const memdb_col *col, const char *key) {
  memdb_row *row = start;
  while (row != nullptr && strcmp(memdb_data(row) + col->offset, key) != 0) row = row->next;
  return row;
}

bool memdb_row_match(const memdb_tbl *tbl, const memdb_row *row, int32_t skip_col,
                     const char *const *values) {
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (values[i] == nullptr || static_cast<int32_t>(i) == skip_col) continue;
    if (strcmp(values[i], memdb_get_field(tbl, row, i)) != 0) return false;
  }
  return true;
}

memdb_row *memdb_select(memdb_tbl *tbl, const char *const *values, memdb_cursor *cursor) {
  cursor->tbl = tbl;
  cursor->values = values;
  cursor->key_col = choose_key_col(tbl, values);
  if (cursor->key_col == MEMDB_NO_COL) return cursor->row = tbl->first;

  const memdb_col *const col = &tbl->cols[cursor->key_col];
  const char *const key = values[cursor->key_col];
  return settle(
      cursor, col, key,
      memdb_is_indexed(*col) ? memdb_idx_find(col, key) : memdb_find(tbl->first, col, key));
}

memdb_row *memdb_select_next(memdb_cursor *cursor) {
  if (cursor->key_col == MEMDB_NO_COL) return cursor->row = cursor->row->next;

  const memdb_col *const col = &cursor->tbl->cols[cursor->key_col];
  const char *const key = cursor->values[cursor->key_col];
  return settle(cursor, col, key,
                memdb_is_indexed(*col) ? memdb_idx_next_res(cursor->row, col, key)
                                       : memdb_find(cursor->row->next, col, key));
}
