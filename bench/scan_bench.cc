// The best-match select's scan beside a bare walk of the same list that compares the same bytes.
// Both are told per row. What the select does beside its scan is taken off: the same select on a
// table of one row.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/benches.h"
#include "bench/started_module.h"
#include "bench/stopwatch.h"
#include "host/loader_symbols.h"
#include "memdb/prefix/prefix.h"
#include "tables/tarn_tbl.h"

namespace bench {
namespace {

constexpr char KEY[] = "4930123456789";
constexpr uint32_t PREFIX_COLUMN = 0;

std::unique_ptr<started_module> &module() {
  static std::unique_ptr<started_module> only;
  return only;
}

std::string table_name(size_t rows) { return "prefix" + std::to_string(rows); }

// Prefixes of 3 to 8 digits, of which few begin the key: those of every real numbering plan differ
// from a number in their first digits.
std::string prefix(size_t number) {
  char digits[16];
  snprintf(digits, sizeof(digits), "%08u", static_cast<unsigned>(number * 61803399 % 100000000));
  return std::string(digits, 3 + number % 6);
}

tarn_tbl *filled_table(size_t rows) {
  tarn_tbl *const table = get_tarn_tbl_by_name(table_name(rows).c_str());
  if (table->row_count != 0) return table;
  for (size_t i = 0; i < rows; i++) {
    const std::string entry = i == 0 ? "4930" : prefix(i);
    const char *const values[] = {entry.c_str(), "trunk", "10.0.0.1"};
    if (memdb_insert(table->tbl, values) == nullptr) give_up("a prefix isn't inserted");
  }
  table->row_count = static_cast<int32_t>(rows);
  return table;
}

standin::command best_match(size_t rows) {
  filled_table(rows);
  // A look-up would leave nothing to scan.
  const uint32_t as_built = std::exchange(memdb_prefixes.rows, UINT32_MAX);
  standin::command call =
      module()->prepare("tarn_memdb_nl_select_best_match",
                        {table_name(rows) + "," + KEY + "|*|*", "$avp(prefix)", "0"});
  memdb_prefixes.rows = as_built;
  return call;
}

double seconds_of(const standin::command &call) {
  const stopwatch watch;
  module()->expect(call, 1);
  return watch.seconds();
}

void scan_module(benchmark::State &state, size_t rows) {
  const standin::command whole = best_match(rows);
  const standin::command one_row = best_match(1);
  const auto batch = static_cast<benchmark::IterationCount>(rows - 1);
  while (state.KeepRunningBatch(batch)) {
    const double of_one = seconds_of(one_row);
    state.SetIterationTime(std::max(seconds_of(whole) - of_one, 0.0));
    standin::clear_avps();
  }
}

// The longest entry that begins the key, and nothing else.
const memdb_row *bare_walk(const memdb_tbl *tbl, const char *key) {
  const uint32_t offset = tbl->cols[PREFIX_COLUMN].offset;
  const memdb_row *best = nullptr;
  size_t best_length = 0;
  for (const memdb_row *at = tbl->first; at != nullptr; at = at->next) {
    const char *const entry = memdb_data(at) + offset;
    size_t length = 0;
    while (entry[length] != '\0' && entry[length] == key[length]) length++;
    if (entry[length] != '\0' || length <= best_length) continue;
    best = at;
    best_length = length;
  }
  return best;
}

void scan_bare(benchmark::State &state, size_t rows) {
  const memdb_tbl *const tbl = filled_table(rows)->tbl;
  const auto batch = static_cast<benchmark::IterationCount>(rows);
  while (state.KeepRunningBatch(batch))
    if (bare_walk(tbl, KEY) == nullptr) give_up("the bare walk finds nothing");
}

}  // namespace

void register_scan_benches() {
  for (const size_t rows : {1000U, 10000U, 100000U}) {
    const std::string of_case = "best match, per row of " + std::to_string(rows);
    benchmark::RegisterBenchmark((of_case + "/module").c_str(), scan_module, rows)->UseManualTime();
    benchmark::RegisterBenchmark((of_case + "/bare walk").c_str(), scan_bare, rows);
  }
}

void register_module_benches() {
  std::vector<table> tables{
      {"flat", {{"key", 31, true}, {"group", 15}, {"name"}, {"value", 63}, {"kind", 7}}, MAX_ROWS},
      {"stored",
       {{"key", 31, true}, {"group", 15}, {"value", 63}, {"state", 15}, {"expires", 7}},
       MAX_ROWS}};
  for (const size_t rows : {1U, 1000U, 10000U, 100000U})
    tables.push_back({table_name(rows), {{"prefix", 15}, {"trunk", 15}, {"host"}}, MAX_ROWS});
  for (const table &one : prefix_tables()) tables.push_back(one);
  module() =
      std::make_unique<started_module>(std::make_unique<standin::loaded_module>(exports), tables);
  use_plain_allocators();
  register_query_benches();
  register_file_benches();
  register_scan_benches();
  register_prefix_benches(module().get());
}

}  // namespace bench
