// Puts rows into the order of their texts. Serves the directory.
//
// A comparison of two rows' texts waits for memory twice, and a sort of n rows compares n log n
// times. So each row's text is visited once, with the next ones on their way meanwhile, and the
// eight bytes of it that follow the beginning that all texts share become a number. The rows are
// sorted by their numbers, and only rows of one number are looked at again, by the bytes behind
// (Kärkkäinen and Rantala, "Engineering Radix Sort for Strings", 2008). Texts that lack the shared
// beginning, which is found from a few of them, are sorted apart.
#pragma once

#include <cstdint>
#include <span>

#include "memdb/layout/layout.h"

// A row and the number that stands for its text, the sort's own.
struct memdb_numbered_row {
  memdb_row *row;
  uint64_t number;
};

// Sorts rows by their texts in the column, as strcmp has it. No text may be there twice. spare is as
// long as rows; what is in it then means nothing.
void memdb_order_by_text(std::span<memdb_numbered_row> rows, std::span<memdb_numbered_row> spare,
                         const memdb_col *col);
