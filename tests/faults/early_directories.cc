// Built into a module of its own: what large tables have, a few rows have there.
#include "memdb/index/directory.h"
#include "memdb/layout/hooks.h"
#include "memdb/prefix/prefix.h"

namespace {

// All keys of a column share one bucket. Its directory comes with the 8th row, is enlarged with the
// 25th text and divided with the 49th; a look-up comes with the 8th row, is enlarged with the 49th
// and divided with the 85th.
__attribute__((constructor)) void make_them_early() {
  memdb_idx_len = 1;
  memdb_directories = {.plain_rows = 7, .plain_chain = 3, .slots_in_one = 64};
  memdb_prefixes = {.rows = 7, .slots_in_one = 128, .part_bits = 1};
}

}  // namespace
