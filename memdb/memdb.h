// A table of fixed-size rows of text fields, with an optional hash index per column.
//
// The engine knows nothing of names, row limits, files or locks; it takes none. Whoever changes a
// table keeps all others from changing it meanwhile, by whatever lock the embedder gives it. The
// read side, memdb_select, memdb_select_next and memdb_get_field, may run beside one that changes
// the table, in any process, if no row that such a reader may be on is given back or becomes
// another row: memdb_retire is the place to see to that. It then meets every row that was there
// all the while, none that isn't whole, and texts that may be overwritten while it looks.
//
// A row is one block:
//
//   prev   8 bytes   the next newer row, null for the newest
//   next   8 bytes   the next older row, null for the oldest
//   data   row_len   the columns in order, packed:
//                      a plain column is its text area of size bytes;
//                      an indexed column is an 8-byte chain link and then its text area
//
// Nothing is aligned inside the data, so that chain links may lie at odd places. Each indexed
// column has an array of buckets, and each bucket heads a chain that runs through the rows' links,
// sorted by the column's text as it was when the row was inserted, rows of equal text side by side.
// In large tables a bucket may lead to a directory instead, see memdb_directory.h; all results are
// those of the chain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "memdb/memdb_log.h"

inline constexpr uint32_t MEMDB_COL_INDEXED = 1;  // bit 0 of tbl_dcl::flag
inline constexpr int32_t MEMDB_NO_COL = -1;

// Declaration of one column. The caller owns it; nothing of it is kept.
struct tbl_dcl {
  uint32_t len;   // longest text that the column can hold, terminator not counted
  uint32_t flag;  // MEMDB_COL_INDEXED or 0; other bits are kept and never tested
};

struct memdb_row {
  memdb_row *prev;
  memdb_row *next;
};

struct memdb_prefix_slots;

struct memdb_col {
  uint32_t flags;
  uint32_t idx_len;  // buckets; 0 without an index
  memdb_row **idx;   // the buckets; null without an index
  uint32_t offset;   // of the text, from the start of the data
  uint32_t size;     // bytes of the text area: declared length and terminator
  // For searches beside a writer, see memdb_index.cpp.
  uint32_t changes;  // of links that lie unaligned in their rows; odd while one is being written
  bool overwritten;  // some row's text, in an indexed column, since the table was empty
  void *changing;    // the link that is or was written last
  memdb_row *changing_to;  // what goes into it
  // For directories, see memdb_directory.h.
  uint32_t conversions;      // of chains to directories
  uint32_t linked;           // rows in the index; about, if a writer was killed
  uint32_t made_not_before;  // inserts to pass before one more directory is tried
};

// A form of searches for the longest prefix, see memdb_prefix.h.
struct memdb_prefix_form {
  int16_t main;               // column of the prefixes; MEMDB_NO_COL ends the forms in use
  bool given_up;              // no look-up is to be made
  bool changing;              // a row comes or goes; stays so where a writer was killed
  uint32_t given;             // columns that searches give beside it, bit by bit
  memdb_prefix_slots *slots;  // the look-up, null without one
};
inline constexpr size_t MEMDB_PREFIX_FORMS = 4;

struct memdb_tbl {
  uint32_t row_len;
  uint32_t row_cnt;  // one off where a writer was killed
  memdb_row *first;  // newest row
  memdb_row *last;   // oldest row
  uint32_t col_cnt;
  uint32_t overwrites;  // of texts that look-ups go by; odd amid one
  memdb_col *cols;
  memdb_prefix_form prefixes[MEMDB_PREFIX_FORMS];
};

// A search in progress. values, one entry per column, a null matching any text, is the caller's and
// outlives the cursor.
struct memdb_cursor {
  memdb_row *row;
  memdb_tbl *tbl;
  const char *const *values;
  int32_t key_col;  // the column that leads the search, MEMDB_NO_COL for a full scan
};

// Hooks, read at every use, to be set before the first table is made.
extern void *(*memdb_malloc)(size_t size);
extern void *(*memdb_calloc)(size_t count, size_t size);
extern void (*memdb_free)(void *block);  // accepts null
// Gives back a block that nothing in a table leads to any more, a row or a part of an index, by
// memdb_free if nothing else is set. For a caller whose readers take no lock, and so may be in it
// still: they read all of it but the first 8 bytes. Never called with null.
extern void (*memdb_retire)(void *block);
extern uint32_t (*memdb_hash_str)(const char *text);
extern void (*memdb_log_err)(const char *message);  // may be null
extern uint32_t memdb_idx_len;                      // buckets per index of tables made from now on

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

// Where the row's texts and links begin, row_len bytes that belong to the row's block.
inline char *memdb_data(memdb_row *row) { return reinterpret_cast<char *>(row + 1); }
inline const char *memdb_data(const memdb_row *row) {
  return reinterpret_cast<const char *>(row + 1);
}

// The text of one field inside the row: a view, valid as long as the row; never null.
inline const char *memdb_get_field(const memdb_tbl *tbl, const memdb_row *row, uint32_t col) {
  return memdb_data(row) + tbl->cols[col].offset;
}

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

// The columns in their order, as long as the table lives.
inline std::span<memdb_col> memdb_cols(const memdb_tbl *tbl) { return {tbl->cols, tbl->col_cnt}; }

// True for a column with buckets, and with a link ahead of its text in every row.
inline bool memdb_is_indexed(const memdb_col &col) { return (col.flags & MEMDB_COL_INDEXED) != 0; }
