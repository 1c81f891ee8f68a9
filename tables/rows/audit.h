// The lines by which an operator follows every change of a table that has a LOG_TAG. Written at
// NOTICE. The blanks at their head, and a word, tell where the change came from; each text stands
// with the function that makes the change.
#pragma once

#include "host/abi.h"
#include "host/message_text.h"
#include "memdb/memdb.h"
#include "tables/tarn_tbl.h"

// Of the texts: LOG_TAG, row count, then what was changed.
using audit_query_text = message_text<const char *, int, int, const char *>;         // a query
using audit_row_text = message_text<const char *, int, const char *, const char *>;  // table, row
using audit_table_text = message_text<const char *, int, const char *>;              // table

// query is the text that made the row. The table's lock may have been given back: an operator's
// slow log isn't to keep other workers from the table. The row count in the line may then be one
// that they have changed meanwhile.
void audit_insert(const tarn_tbl *table, const audit_query_text &text, const str &query);

// values stand for the row.
void audit_values(const tarn_tbl *table, const audit_row_text &text, const char *values)
    NEEDS_LOCK(table->lock);

// count is what the line tells as the table's row count.
void audit_row(const tarn_tbl *table, const audit_row_text &text, int32_t count,
               const memdb_row *row) NEEDS_LOCK(table->lock);

// The table's row count is told as it is after the clearing.
void audit_clear(const tarn_tbl *table, const audit_table_text &text) NEEDS_LOCK(table->lock);
