// How a table lies in memory.
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
// In large tables a bucket may lead to a directory instead, see directory.h; all results are
// those of the chain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

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
  // For searches beside a writer, see link.h.
  uint32_t changes;  // of links that lie unaligned in their rows; odd while one is being written
  bool overwritten;  // some row's text, in an indexed column, since the table was empty
  void *changing;    // the link that is or was written last
  memdb_row *changing_to;  // what goes into it
  // For directories, see directory.h.
  uint32_t conversions;      // of chains to directories
  uint32_t linked;           // rows in the index; about, if a writer was killed
  uint32_t made_not_before;  // inserts to pass before one more directory is tried
};

// A form of searches for the longest prefix, see prefix/prefix.h.
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

// Where the row's texts and links begin, row_len bytes that belong to the row's block.
inline char *memdb_data(memdb_row *row) { return reinterpret_cast<char *>(row + 1); }
inline const char *memdb_data(const memdb_row *row) {
  return reinterpret_cast<const char *>(row + 1);
}

// The text of one field inside the row: a view, valid as long as the row; never null.
inline const char *memdb_get_field(const memdb_tbl *tbl, const memdb_row *row, uint32_t col) {
  return memdb_data(row) + tbl->cols[col].offset;
}

// The columns in their order, as long as the table lives.
inline std::span<memdb_col> memdb_cols(const memdb_tbl *tbl) { return {tbl->cols, tbl->col_cnt}; }

// True for a column with buckets, and with a link ahead of its text in every row.
inline bool memdb_is_indexed(const memdb_col &col) { return (col.flags & MEMDB_COL_INDEXED) != 0; }
