// What stands between a parsed query and the engine: the row limit, the duplicate check and the
// generated index. The table's lock is held around each of these. A load passes by them.
#pragma once

#include <cstdint>

#include "query/query_input.h"
#include "tables/tarn_tbl.h"

// Draws the table's next index as decimal text into a new private block of INDEX_TEXT_SIZE that
// takes the place of flds[0]. 0, or -1 when memory is short or the counter has wrapped to 0. The
// block, also after the second failure, is for the caller to release.
int32_t insert_index(tarn_tbl *table, query_in *in);

// The same into flds[0] as it stands, which has INDEX_TEXT_SIZE bytes.
int32_t insert_index_no_alloc(tarn_tbl *table, query_in *in);

// 1 if the table holds a row that counts as equal to the query, 0 if not, -1 on error. Compared are
// columns 1 to 3 where the table holds ports, all but column 0 where it generates an index, else
// all.
int32_t insert_check_for_duplicated_data(tarn_tbl *table, query_in *in);

enum class admission { added, full, duplicate, no_index, not_inserted };

struct admission_rules {
  bool check_duplicates;
  int32_t (*make_index)(tarn_tbl *, query_in *);  // insert_index or insert_index_no_alloc
};

// Adds the query's row if every rule lets it in, takes its port, and marks and counts the change.
// *result gets what the script is to be told: the generated index, or 1 for a table without one.
// Releases what insert_index made.
admission admit_row(tarn_tbl *table, query_in *in, const admission_rules &rules, int32_t *result);
