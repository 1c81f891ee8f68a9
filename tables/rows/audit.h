// The lines by which an operator follows every change of a table that has a LOG_TAG. Written at
// NOTICE; the blanks at their head, and a word, tell where the change came from. The table's lock
// is held, but for audit_insert from a script: an operator's slow log isn't to keep other workers
// from the table, and the row count in that line may be one that they have changed meanwhile.
#pragma once

#include "host/abi.h"
#include "memdb/memdb.h"
#include "tables/tarn_tbl.h"

struct audit_source {
  int indent;
  const char *word;
};

inline constexpr audit_source FROM_SCRIPT{10, ""};
inline constexpr audit_source FROM_CLEAR_TBL{7, ""};
inline constexpr audit_source FROM_CLEAR_PMAP{6, ""};
inline constexpr audit_source FROM_RPC{6, "RPC "};
inline constexpr audit_source FROM_STATEMENT{5, "SQLL "};
inline constexpr audit_source FROM_RPC_CLEAR{3, "RPC "};

// query is the text that made the row.
void audit_insert(const tarn_tbl *table, const audit_source &source, const str &query);

// first_value is the text of the row's first column.
void audit_statement_insert(const tarn_tbl *table, const char *first_value);

// action is "Deleting", "Updating" or "Deleting from update"; count is what the line tells as the
// table's row count.
void audit_row(const tarn_tbl *table, const audit_source &source, int32_t count, const char *action,
               const memdb_row *row);

// The table's row count is told as it is after the clearing.
void audit_clear(const tarn_tbl *table, const audit_source &source);
