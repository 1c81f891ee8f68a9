// Which values a table's file can carry: rows go there as they are and are read as queries.
#pragma once

#include <cstdint>

#include "tables/tarn_tbl.h"

// True if each of the values from the column first on, one per column of the table, a null being
// none, comes back from the table and from its file as it is. False with the first that doesn't
// logged. Takes no lock.
bool are_storable(const tarn_tbl *table, const char *const *values, uint32_t first);
