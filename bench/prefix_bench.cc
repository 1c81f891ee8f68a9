// The best-match select by a look-up, beside a hash table that is probed by hand for each beginning
// of the key; and what a look-up adds to an insert and a delete.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/benches.h"
#include "bench/started_module.h"
#include "bench/stopwatch.h"
#include "memdb/prefix/prefix.h"
#include "tables/tarn_tbl.h"

namespace bench {
namespace {

constexpr size_t SIZES[] = {100, 1000, 10000, 100000, 1000000};
constexpr size_t ROWS_OF_A_GROUP = 100;
constexpr size_t KEYS = 1024;

enum class grouping { none, plain, indexed };

struct shape {
  grouping groups;
  const char *name;   // of its tables
  const char *words;  // in the case's name
};

constexpr shape SHAPES[] = {{grouping::none, "routes", ""},
                            {grouping::plain, "grouped", " in groups"},
                            {grouping::indexed, "keyed", " in indexed groups"}};

std::string table_name(const shape &of, size_t rows) { return of.name + std::to_string(rows); }

// Prefixes of 3 to 8 digits, all over a numbering plan.
std::string prefix(size_t number) {
  char digits[16];
  snprintf(digits, sizeof(digits), "%08u", static_cast<unsigned>(number * 61803399 % 100000000));
  return std::string(digits, 3 + number % 6);
}

std::string group(const shape &of, size_t number, size_t rows) {
  const size_t groups = std::max(rows / ROWS_OF_A_GROUP, size_t{1});
  return of.groups == grouping::none ? "any" : "group" + std::to_string(number % groups);
}

void fill(memdb_tbl *tbl, const shape &of, size_t rows) {
  for (size_t i = 0; i < rows; i++) {
    const std::string entry = prefix(i);
    const std::string its_group = group(of, i, rows);
    const char *const values[] = {entry.c_str(), its_group.c_str(), "10.0.0.1"};
    if (memdb_insert(tbl, values) == nullptr) give_up("a prefix isn't inserted");
  }
}

tarn_tbl *filled_table(const shape &of, size_t rows) {
  tarn_tbl *const table = get_tarn_tbl_by_name(table_name(of, rows).c_str());
  if (table->row_count != 0) return table;
  fill(table->tbl, of, rows);
  table->row_count = static_cast<int32_t>(rows);
  return table;
}

// Numbers with a prefix in their group, in an order unlike the rows'.
struct wanted {
  std::string key;
  std::string group;
};

std::vector<wanted> make_keys(const shape &of, size_t rows) {
  std::vector<wanted> keys;
  for (size_t i = 0; i < KEYS; i++) {
    const size_t number = i * 7919 % rows;
    keys.push_back({prefix(number) + "5551234", group(of, number, rows)});
  }
  return keys;
}

void select_module(benchmark::State &state, started_module *module, const shape &of, size_t rows) {
  filled_table(of, rows);
  const std::string query = table_name(of, rows) + ",$var(key)|" +
                            (of.groups == grouping::none ? "*" : "$var(group)") + "|*";
  const standin::command call =
      module->prepare("tarn_memdb_nl_select_best_match", {query, "$avp(prefix)", "0"});
  const std::vector<wanted> keys = make_keys(of, rows);
  size_t next = 0;
  while (state.KeepRunning()) {
    const wanted &one = keys[next++ % KEYS];
    standin::set_var("key", one.key);
    standin::set_var("group", one.group);
    const stopwatch watch;
    module->expect(call, 1);
    state.SetIterationTime(watch.seconds());
    standin::clear_avps();
  }
}

void look_up_engine(benchmark::State &state, const shape &of, size_t rows) {
  memdb_tbl *const tbl = filled_table(of, rows)->tbl;
  memdb_want_prefixes(tbl, 0, of.groups == grouping::none ? 0 : 1U << 1);
  const std::vector<wanted> keys = make_keys(of, rows);
  const memdb_row *found[MEMDB_PREFIX_MOST_EQUAL];
  size_t next = 0;
  for (auto _ : state) {
    const wanted &one = keys[next++ % KEYS];
    const char *const values[] = {
        nullptr, of.groups == grouping::none ? nullptr : one.group.c_str(), nullptr};
    if (memdb_longest_prefix(tbl, {0, one.key.c_str(), values, INT32_MAX}, found) < 1)
      give_up("no look-up finds the prefix");
  }
}

// Longest beginning first, as one would with a table by hand.
void select_by_hand(benchmark::State &state, const shape &of, size_t rows) {
  std::unordered_multimap<std::string, std::string> by_text;
  for (size_t i = 0; i < rows; i++)
    by_text.emplace(group(of, i, rows) + '|' + prefix(i), "10.0.0.1");
  const std::vector<wanted> keys = make_keys(of, rows);
  size_t next = 0;
  for (auto _ : state) {
    const wanted &one = keys[next++ % KEYS];
    std::string probed = one.group + '|' + one.key.substr(0, 8);
    auto found = by_text.find(probed);
    while (found == by_text.end() && probed.back() != '|') {
      probed.pop_back();
      found = by_text.find(probed);
    }
    if (found == by_text.end()) give_up("no prefix by hand");
    benchmark::DoNotOptimize(found->second);
  }
}

// A row put in and another taken out, among so many.
void in_and_out(benchmark::State &state, bool with_look_up, size_t rows) {
  constexpr size_t BATCH = 64;
  const tbl_dcl columns[] = {{15, 0}, {15, 0}, {63, 0}};
  const shape &of = SHAPES[1];
  memdb_tbl *const tbl = memdb_create_tbl(columns, 3);
  fill(tbl, of, rows);
  if (with_look_up) memdb_want_prefixes(tbl, 0, 1U << 1);
  size_t next = rows;
  while (state.KeepRunningBatch(BATCH)) {
    std::vector<wanted> entries;
    for (size_t i = 0; i < BATCH; i++, next++)
      entries.push_back({prefix(next), group(of, next, rows)});
    const stopwatch watch;
    for (const wanted &entry : entries) {
      const char *const values[] = {entry.key.c_str(), entry.group.c_str(), "10.0.0.1"};
      memdb_insert(tbl, values);
      memdb_delete_row(tbl, tbl->last);
    }
    state.SetIterationTime(watch.seconds());
  }
  memdb_destroy_tbl(tbl);
}

}  // namespace

std::vector<table> prefix_tables() {
  std::vector<table> tables;
  for (const shape &of : SHAPES)
    for (const size_t rows : SIZES)
      tables.push_back({table_name(of, rows),
                        {{"prefix", 15}, {"trunk", 15, of.groups == grouping::indexed}, {"host"}},
                        MAX_ROWS});
  return tables;
}

void register_prefix_benches(started_module *module) {
  for (const shape &of : SHAPES) {
    for (const size_t rows : SIZES) {
      const std::string of_case = "best match among " + std::to_string(rows) + of.words;
      benchmark::RegisterBenchmark((of_case + "/module").c_str(), [module, &of,
                                                                   rows](benchmark::State &state) {
        select_module(state, module, of, rows);
      })->UseManualTime();
      benchmark::RegisterBenchmark(
          (of_case + "/look-up alone").c_str(),
          [&of, rows](benchmark::State &state) { look_up_engine(state, of, rows); });
      benchmark::RegisterBenchmark(
          (of_case + "/a hash table by hand").c_str(),
          [&of, rows](benchmark::State &state) { select_by_hand(state, of, rows); });
    }
  }
  for (const size_t rows : SIZES) {
    const std::string of_case = "prefix in and out of " + std::to_string(rows);
    benchmark::RegisterBenchmark((of_case + "/module").c_str(), in_and_out, true, rows)
        ->UseManualTime();
    benchmark::RegisterBenchmark((of_case + "/without a look-up").c_str(), in_and_out, false, rows)
        ->UseManualTime();
  }
}

}  // namespace bench
