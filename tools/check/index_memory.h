// What the engine makes beside the rows of a table to find them fast, as the server's memory counts
// it.
#pragma once

#include <cstddef>

#include "tables/tarn_tbl.h"

// Bytes of the directories of the table's indexes with so many rows whose texts all differ and fall
// evenly upon the buckets.
size_t directory_memory(const tarn_tbl *table, size_t rows);

// Bytes of one look-up for the best match among so many rows.
size_t look_up_memory(size_t rows);
