// A row as one line of text, its fields in column order with bars between them.
#pragma once

#include <span>

#include "memdb/memdb.h"

// Writes the image into buffer, cut at the buffer's end, and returns it. The caller holds the
// table's lock, or reads without one by design.
const char *row_image(const memdb_tbl *tbl, const memdb_row *row, std::span<char> buffer);
