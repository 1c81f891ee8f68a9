// The row loops of delete, update and clear, the same for scripts and operators. Each keeps state
// and row count, and writes the audit lines.
#pragma once

#include "query/query_input.h"
#include "tables/rows/audit.h"
#include "tables/tarn_tbl.h"

// Deletes the rows that match in, at most max_res, and releases their ports. The number deleted.
int32_t delete_rows(tarn_tbl *table, const query_in *in, const audit_row_text &deleted)
    NEEDS_LOCK(table->lock);

// What an update does to one selected row. True if the row is to go.
using update_rule = bool (*)(memdb_tbl *tbl, memdb_row *row, const query_in *values);

struct update_texts {
  audit_row_text updated;
  audit_row_text removed;
  // Place among the selected rows, table, number of columns. Null for no note of a removed row.
  const message_text<int, const char *, int> *note;
};

// Applies rule to the rows that match in, at most max_res, and deletes those that are to go. The
// number of rows selected.
int32_t update_rows(tarn_tbl *table, const query_in *in, const query_in *values, update_rule rule,
                    const update_texts &texts) NEEDS_LOCK(table->lock);

// Sets every column that has a value; a row left without any text is to go.
bool set_given_columns(memdb_tbl *tbl, memdb_row *row, const query_in *values);

// Deletes every row and leaves ports and index alone: who clears a table by script keeps both.
void clear_rows(tarn_tbl *table, const audit_table_text &cleared) NEEDS_LOCK(table->lock);
