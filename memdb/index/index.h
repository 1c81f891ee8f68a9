// The column indexes: hash, buckets, and the chains that run through the rows. Serves the engine.
#pragma once

#include "memdb/layout/layout.h"

// Multiplicative string hash, h = h * 130 + c over signed bytes, modulo 2^32 (the family of
// Kernighan and Ritchie's hash, "The C Programming Language", section 6.6).
uint32_t memdb_hash1(const char *text);

// Links the row into the column's bucket, ahead of rows with an equal text.
void memdb_update_col_idx(memdb_row *row, memdb_col *col);

// Sends for what memdb_update_col_idx will need for a row of this text: it lies anywhere in a large
// table. A hint, for texts that are cut as well.
void memdb_fetch_col_idx(const memdb_col *col, const char *text);

// Unlinks the row from the bucket that its present text leads to. A row that isn't there, because
// its text was overwritten, is reported to memdb_log_err.
void memdb_delete_idx_entry(memdb_row *row, memdb_col *col);

// To be called ahead of an overwrite of the row's text by another text: brings the bucket into the
// form in which that changes nothing but what it finds.
void memdb_expect_overwrite(memdb_row *row, memdb_col *col);

// Empties all buckets of a column, which may have none. What isn't a row goes ahead of a list of
// blocks, linked by their first 8 bytes; gives the new head.
void *memdb_empty_idx(memdb_col *col, void *blocks);

// Reports an entry that isn't where its row's text leads, to memdb_log_err if that is set.
void memdb_report_missing_entry();

// First row of the key's bucket whose text equals the key, or null.
memdb_row *memdb_idx_find(const memdb_col *col, const char *key);

// The row that this one's link leads to if its text equals the key too, else null.
memdb_row *memdb_idx_next_res(const memdb_row *row, const memdb_col *col, const char *key);
