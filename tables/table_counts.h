// What happens to each table that an operator should know of, counted for all processes.
#pragma once

#include <cstdint>

#include "tables/tarn_tbl.h"

struct table_counts {
  uint64_t refused_full;       // inserts into a full table
  uint64_t refused_duplicate;  // inserts of a row that has an equal
  uint64_t failed_stores;
  // Of the main file, as it was loaded at the start or stored last.
  uint64_t file_rows;
  uint64_t file_bytes;
};

// Makes the counts of all tables, at 0, in shared memory. False if memory is short; nothing is
// counted then. Runs before the host forks, when the tables are there.
bool make_table_counts();

// Frees them; nothing is counted from then on. Null is all right.
void free_table_counts();

// Adds one. Takes no lock, and needs none.
void count_for(const tarn_tbl *table, uint64_t table_counts::*what);

// Sets one.
void set_count(const tarn_tbl *table, uint64_t table_counts::*what, uint64_t value);

// What was counted; 0 where nothing is.
uint64_t counted_for(const tarn_tbl *table, uint64_t table_counts::*what);
