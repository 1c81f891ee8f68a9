// What stands between a parsed query and the engine: the row limit, the duplicate check and the
// generated index. A load passes by them.
#pragma once

#include <cstdint>

#include "host/message_text.h"
#include "query/query_input.h"
#include "tables/tarn_tbl.h"

// Draws the table's next index as decimal text into a new private block of INDEX_TEXT_SIZE that
// takes the place of flds[0]. False, logged, if memory is short, or if the counter has wrapped to
// 0. The block, also after the second failure, is for the caller to release.
bool insert_index(tarn_tbl *table, query_in *in) NEEDS_LOCK(table->lock);

// The same into flds[0] as it stands, which has INDEX_TEXT_SIZE bytes.
bool insert_index_no_alloc(tarn_tbl *table, query_in *in) NEEDS_LOCK(table->lock);

enum class duplicate_state { absent, stored, unknown };

// Whether the table holds a row that counts as equal to the query; unknown, logged, if memory is
// short. Compared are columns 1 to 3 where the table holds ports, all but column 0 where it
// generates an index, else all.
duplicate_state insert_check_for_duplicated_data(const tarn_tbl *table, const query_in *in)
    NEEDS_LOCK(table->lock);

enum class admission { added, full, duplicate, no_index, not_inserted };

// Where the text of a generated index goes.
enum class index_text {
  own_block,  // made for the call, which gives it back
  in_place    // into flds[0], which has room for it
};

struct admission_rules {
  bool check_duplicates;
  index_text index;
};

// Adds the query's row if every rule lets it in, takes its port, and marks and counts the change.
// *result gets what the script is to be told: the generated index, or 1 for a table without one.
admission admit_row(tarn_tbl *table, query_in *in, const admission_rules &rules, int32_t *result)
    NEEDS_LOCK(table->lock);

// How a way of inserting puts it that a row isn't let in.
struct refusal_texts {
  message_text<int, const char *> full;  // MAX_ROWS, table
  message_text<const char *> duplicate;  // table
  message_text<> no_index;
  message_text<const char *> not_inserted;  // table
};

// Logs why; a full table at full_level, for it is an error to the positional insert and a warning
// to the others.
void log_refusal(admission refused, const tarn_tbl *table, const refusal_texts &texts,
                 int full_level);
