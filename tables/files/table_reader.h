// Reading one table file: the same walk for the load and for whoever foretells it.
#pragma once

#include <cstdint>
#include <string_view>

#include "query/query_input.h"
#include "tables/tarn_tbl.h"

enum class table_file_state {
  unopened,  // logged
  refused,   // its first line isn't the version, or a row can't be loaded; logged but for an empty
             // file, and the table has the rows ahead of that
  loaded     // read to its end, or as far as it could be read
};

// Told of each step by the walk, which calls with itself as the first argument. Lines count from 1.
struct load_watch {
  // A line, the version's included, without its line feed; has_end is false for a last line that
  // has none.
  void (*line)(load_watch *self, int number, std::string_view text, bool has_end);
  // The row that a line has become, and the values that it was made from.
  void (*row)(load_watch *self, int number, const query_in &in, const memdb_row *row);
};

// Deletes all rows and lets counter and index begin anew. No port is given back.
void empty_table(tarn_tbl *table) NEEDS_LOCK(table->lock);

// False if nothing is at path, or nothing that can be seen.
bool table_file_exists(const char *path);

// Splits the insert query that a line stands for, the table's name and a comma ahead of it, into
// the values of a row of that table. False if the row is refused; in may own fields all the same.
bool parse_table_row(const tarn_tbl *table, const str &composed, query_in *in);

// The number that a row with a generated index has by its first text.
uint32_t stored_index(const char *text);

// Adds the rows of the file at path to the table, counts them and their ports, and moves the next
// index behind theirs. watch may be null.
table_file_state read_table_file(tarn_tbl *table, const char *path, load_watch *watch)
    NEEDS_LOCK(table->lock);
