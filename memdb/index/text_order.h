// Puts rows into the order of their texts. Serves the directory.
//
// A comparison of two rows' texts waits for memory twice, and a sort of n rows compares n log n
// times. So each row's text is visited once, in the order of the rows' addresses and with the next
// ones on their way meanwhile. The eight bytes that follow the beginning that all texts share
// become a number, by which the rows are sorted, and only rows of one number are looked at again,
// by the bytes behind (Kärkkäinen and Rantala, "Engineering Radix Sort for Strings", 2008). Texts
// that lack the shared beginning, which is found from a few of them, are sorted apart.
#pragma once

#include <cstdint>
#include <span>

#include "memdb/layout/layout.h"

// Sorts rows, given as their addresses, by their texts in the column, as strcmp has it. No text may
// be there twice. spare is as long as rows; what is in it then means nothing.
void memdb_order_by_text(std::span<uint64_t> rows, std::span<uint64_t> spare, const memdb_col *col);

inline memdb_row *memdb_row_at(uint64_t address) { return reinterpret_cast<memdb_row *>(address); }
