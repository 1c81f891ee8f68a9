// The named form of a field list, column=value;column=value, rewritten into the positional one.
#pragma once

#include <cstdint>

#include "host/abi.h"
#include "tables/tarn_tbl.h"

enum class conversion {
  failed,     // logged; list isn't to be used
  converted,  // list is a new private block, terminated, that the caller owns
  positional  // nothing done
};

// Rewrites list if it is named: it holds no bar and a '=', or nothing at all. Columns that aren't
// named become wildcards. With tail, the text behind the list in its query, the result is a whole
// query, table and list and tail, joined by commas; without, the bare list. Takes no lock.
conversion tarn_memdb_convert_query_param_list(str *list, const tarn_tbl *table, const char *tail);
