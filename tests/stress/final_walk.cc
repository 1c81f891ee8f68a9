// The walk over tables and port maps.
#include "tests/stress/final_walk.h"

#include <algorithm>
#include <cstring>

#include "memdb/index/index.h"
#include "tables/files/table_files.h"
#include "tests/stress/ledger.h"
#include "tests/support/bucket_rows.h"

namespace stress {
namespace {

using row_set = std::vector<const memdb_row *>;

// The list by its links from newest to oldest; false if it can't be walked to its end.
bool walk_list(const tarn_tbl &table, row_set *all) {
  const memdb_tbl *const tbl = table.tbl;
  const memdb_row *newer = nullptr;
  for (const memdb_row *row = tbl->first; row != nullptr; row = row->next) {
    if (row->prev != newer) {
      deviation("%s: a link back doesn't lead to the row ahead", table.table_name);
      return false;
    }
    newer = row;
    all->push_back(row);
    if (all->size() > 10000000) {
      deviation("%s: the list has no end", table.table_name);
      return false;
    }
  }
  if (tbl->last != newer) deviation("%s: the list's end isn't its last row", table.table_name);
  size_t back = 0;
  for (const memdb_row *row = tbl->last; row != nullptr && back <= all->size(); row = row->prev)
    back++;
  if (back != all->size())
    deviation("%s: %zu rows backwards, %zu forwards", table.table_name, back, all->size());
  return true;
}

void walk_buckets(const tarn_tbl &table, const memdb_col &col, row_set expected) {
  row_set chained;
  for (uint32_t i = 0; i < col.idx_len; i++) {
    const bool is_chain = memdb_bucket_kind(col.idx[i]).is_chain();
    const char *before = "";
    for (const memdb_row *row : bucket_rows(col, i, expected.size() + 1)) {
      const char *const text = memdb_data(row) + col.offset;
      if (memdb_hash1(text) % col.idx_len != i)
        deviation("%s: '%s' stands in a chain of others", table.table_name, text);
      if (is_chain && strcmp(before, text) > 0)
        deviation("%s: '%s' stands behind '%s'", table.table_name, text, before);
      before = text;
      chained.push_back(row);
    }
  }
  std::sort(chained.begin(), chained.end());
  std::sort(expected.begin(), expected.end());
  if (chained != expected)
    deviation("%s: %zu rows in chains, %zu in the list, or not the same ones", table.table_name,
              chained.size(), expected.size());
}

}  // namespace

void check_table(const tarn_tbl &table) {
  if (*table.lock != 0) deviation("%s: the lock is held", table.table_name);
  row_set all;
  if (!walk_list(table, &all)) return;
  if (static_cast<size_t>(table.row_count) != all.size())
    deviation("%s: counts %d rows and has %zu", table.table_name, table.row_count, all.size());
  for (const memdb_col &col : memdb_cols(table.tbl)) {
    for (const memdb_row *row : all)
      if (memchr(memdb_data(row) + col.offset, 0, col.size) == nullptr)
        deviation("%s: a field without an end", table.table_name);
    if (memdb_is_indexed(col)) walk_buckets(table, col, all);
  }
}

std::vector<std::string> rows_of(const tarn_tbl &table) {
  std::vector<std::string> out;
  for (const memdb_row *row = table.tbl->first; row != nullptr; row = row->next) {
    std::string line;
    for (uint32_t col = 0; col < table.tbl->col_cnt; col++) {
      if (col != 0) line += '|';
      line += memdb_get_field(table.tbl, row, col);
    }
    out.push_back(line);
  }
  return out;
}

void check_stored(tarn_tbl &table) {
  const std::vector<std::string> before = rows_of(table);
  table.state = TBL_CHANGED;
  if (!store_table(&table)) deviation("%s: can't be stored", table.table_name);
  load_table(&table);
  if (rows_of(table) != before) deviation("%s: another table after a reload", table.table_name);
  check_table(table);
}

void check_map(const port_m *map, const char *name, const std::map<int, int> &rows,
               const std::map<int, int> &scripts) {
  for (int port = map->min_port; port <= map->max_port; port++) {
    const auto by_rows = rows.find(port);
    const int holders = by_rows == rows.end() ? 0 : by_rows->second;
    const uint8_t entry = *port_entry(map, port);
    const bool taken = holders != 0 || scripts.count(port) != 0;
    if ((entry & PORT_USE_COUNT) != holders || ((entry & PORT_IN_USE) != 0) != taken)
      deviation("%s: port %d has the entry 0x%x, with %d rows and %s", name, port, entry, holders,
                taken ? "a holder" : "no holder");
  }
}

}  // namespace stress
