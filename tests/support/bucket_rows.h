// The rows that a bucket leads to, for tests that look into the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "memdb/index/directory_blocks.h"

// In the order of the bucket's chain; of a directory, each text's rows in their order, the texts in
// none. Not more than most, for links that may run in a circle.
inline std::vector<memdb_row *> bucket_rows(const memdb_col &col, uint32_t bucket,
                                            size_t most = SIZE_MAX) {
  std::vector<memdb_row *> out;
  const auto add_all = [&](memdb_row *row) {
    for (; row != nullptr && out.size() < most; row = memdb_read_link(memdb_link_of(row, &col)))
      out.push_back(row);
  };
  const memdb_bucket_kind kind(col.idx[bucket]);
  if (kind.is_chain()) add_all(col.idx[bucket]);
  memdb_each_table(kind, [&](const memdb_slots *table) { memdb_each_text(table, add_all); });
  return out;
}
