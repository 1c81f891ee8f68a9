// The engine beside std::unordered_multimap and an in-memory SQLite table: one row put in, taken
// out, found by its indexed key, and looked for by a text without an index, with 100 to 1,000,000
// rows in place; and a table filled.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench/benches.h"
#include "bench/rows.h"
#include "bench/started_module.h"
#include "bench/stopwatch.h"
#include "memdb/memdb.h"

namespace bench {
namespace {

// Rows put in or taken out between two looks at the clock.
constexpr size_t BATCH = 64;
// Rows that aren't in the store, taken in turn: many, so that their chains aren't always the ones
// that the processor's caches hold from the time before.
constexpr size_t SPARE_ROWS = 128 * BATCH;
// What a scan looks for: no row has it, so that each store has to look at all of them.
constexpr char ABSENT_VALUE[] = "sip:absent@10.0.0.1:5060";

// Every store offers the same four operations. A find gives the length of the row's texts, so that
// each store has to reach them all.

class engine_store {
 public:
  static constexpr char NAME[] = "module";

  engine_store() {
    const tbl_dcl columns[] = {{31, MEMDB_COL_INDEXED}, {15, 0}, {63, 0}};
    table_ = memdb_create_tbl(columns, 3);
  }
  ~engine_store() { memdb_destroy_tbl(table_); }
  engine_store(const engine_store &) = delete;
  engine_store &operator=(const engine_store &) = delete;

  void insert(const row &added) {
    const char *const values[] = {added.key.c_str(), added.group.c_str(), added.value.c_str()};
    memdb_insert(table_, values);
  }
  void erase(const std::string &key) {
    const char *const wanted[] = {key.c_str(), nullptr, nullptr};
    memdb_cursor cursor;
    memdb_delete_row(table_, memdb_select(table_, wanted, &cursor));
  }
  size_t find(const std::string &key) {
    const char *const wanted[] = {key.c_str(), nullptr, nullptr};
    return length_of(wanted);
  }
  size_t scan(const char *value) {
    const char *const wanted[] = {nullptr, nullptr, value};
    return length_of(wanted);
  }

 private:
  size_t length_of(const char *const *wanted) {
    memdb_cursor cursor;
    const memdb_row *const found = memdb_select(table_, wanted, &cursor);
    if (found == nullptr) return 0;
    size_t out = 0;
    for (uint32_t i = 0; i < 3; i++) out += strlen(memdb_get_field(table_, found, i));
    return out;
  }

  memdb_tbl *table_;
};

class multimap_store {
 public:
  static constexpr char NAME[] = "std::unordered_multimap";

  void insert(const row &added) { map_.emplace(added.key, std::array{added.group, added.value}); }
  void erase(const std::string &key) { map_.erase(map_.find(key)); }
  size_t find(const std::string &key) {
    const auto found = map_.find(key);
    return found != map_.end() ? length_of(*found) : 0;
  }
  size_t scan(const char *value) {
    for (const auto &entry : map_)
      if (entry.second[1] == value) return length_of(entry);
    return 0;
  }

 private:
  using map = std::unordered_multimap<std::string, std::array<std::string, 2>>;
  static size_t length_of(const map::value_type &entry) {
    return entry.first.size() + entry.second[0].size() + entry.second[1].size();
  }
  map map_;
};

class sqlite_store {
 public:
  static constexpr char NAME[] = "SQLite";

  sqlite_store() {
    if (sqlite3_open(":memory:", &db_) != SQLITE_OK) give_up("SQLite doesn't open");
    execute("PRAGMA journal_mode=OFF");
    execute("CREATE TABLE t(k TEXT, g TEXT, v TEXT)");
    execute("CREATE INDEX t_k ON t(k)");
    insert_ = prepare("INSERT INTO t VALUES(?,?,?)");
    erase_ = prepare("DELETE FROM t WHERE k=?");
    find_ = prepare("SELECT k,g,v FROM t WHERE k=?");
    scan_ = prepare("SELECT k,g,v FROM t WHERE v=?");
  }
  ~sqlite_store() {
    for (sqlite3_stmt *statement : {insert_, erase_, find_, scan_}) sqlite3_finalize(statement);
    sqlite3_close(db_);
  }
  sqlite_store(const sqlite_store &) = delete;
  sqlite_store &operator=(const sqlite_store &) = delete;

  void insert(const row &added) {
    bind(insert_, 1, added.key.c_str());
    bind(insert_, 2, added.group.c_str());
    bind(insert_, 3, added.value.c_str());
    run(insert_);
  }
  void erase(const std::string &key) {
    bind(erase_, 1, key.c_str());
    run(erase_);
  }
  size_t find(const std::string &key) {
    bind(find_, 1, key.c_str());
    return length_of(find_);
  }
  size_t scan(const char *value) {
    bind(scan_, 1, value);
    return length_of(scan_);
  }

 private:
  void execute(const char *sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) give_up(sql);
  }
  sqlite3_stmt *prepare(const char *sql) {
    sqlite3_stmt *out = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &out, nullptr) != SQLITE_OK) give_up(sql);
    return out;
  }
  static void bind(sqlite3_stmt *statement, int place, const char *text) {
    sqlite3_bind_text(statement, place, text, -1, SQLITE_STATIC);
  }
  static void run(sqlite3_stmt *statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) give_up("an SQLite statement fails");
    sqlite3_reset(statement);
  }
  static size_t length_of(sqlite3_stmt *statement) {
    size_t out = 0;
    if (sqlite3_step(statement) == SQLITE_ROW)
      for (int i = 0; i < 3; i++)
        out += strlen(reinterpret_cast<const char *>(sqlite3_column_text(statement, i)));
    sqlite3_reset(statement);
    return out;
  }

  sqlite3 *db_ = nullptr;
  sqlite3_stmt *insert_;
  sqlite3_stmt *erase_;
  sqlite3_stmt *find_;
  sqlite3_stmt *scan_;
};

// The rows for a store of so many and for what is put in beside; the same ones for all stores.
const std::vector<row> &rows_for(size_t count, key_ending ending) {
  static std::map<std::pair<size_t, key_ending>, std::vector<row>> kept;
  std::vector<row> &out = kept[{count, ending}];
  if (out.empty()) out = make_rows(count + SPARE_ROWS, ending);
  return out;
}

// A filled store and what its benchmarks ask of it. Made at the first benchmark of its size and
// kept for the others, since the order of the runs is random; they leave the same rows in it.
template <typename Store>
struct filled {
  filled(size_t count, key_ending ending)
      : rows(rows_for(count, ending)), places(shuffled_places(count)), size(count) {
    for (size_t i = 0; i < size; i++) store.insert(rows[i]);
  }

  const row &next() {
    at = at + 1 < size ? at + 1 : 0;
    return rows[places[at]];
  }

  Store store;
  const std::vector<row> &rows;
  std::vector<size_t> places;
  size_t size;
  size_t at = 0;
};

// The rest of the program gives the engine the host's memory; here it stands alone. The blocks come
// from the same place either way (see use_plain_allocators).
void use_engine_defaults() {
  memdb_malloc = malloc;
  memdb_calloc = calloc;
  memdb_free = free;
}

template <typename Store>
filled<Store> &filled_with(size_t count, key_ending ending) {
  use_engine_defaults();
  static std::map<std::pair<size_t, key_ending>, std::unique_ptr<filled<Store>>> kept;
  std::unique_ptr<filled<Store>> &out = kept[{count, ending}];
  if (out == nullptr) out = std::make_unique<filled<Store>>(count, ending);
  return *out;
}

template <typename Store>
void insert_rows(benchmark::State &state, size_t count, key_ending ending) {
  filled<Store> &f = filled_with<Store>(count, ending);
  size_t spare = 0;
  while (state.KeepRunningBatch(BATCH)) {
    const row *const added = &f.rows[count + spare];
    spare = (spare + BATCH) % SPARE_ROWS;
    const stopwatch watch;
    for (size_t i = 0; i < BATCH; i++) f.store.insert(added[i]);
    state.SetIterationTime(watch.seconds());
    for (size_t i = 0; i < BATCH; i++) f.store.erase(added[i].key);
  }
}

template <typename Store>
void delete_rows(benchmark::State &state, size_t count, key_ending ending) {
  filled<Store> &f = filled_with<Store>(count, ending);
  std::array<const row *, BATCH> chosen;
  while (state.KeepRunningBatch(BATCH)) {
    for (const row *&one : chosen) one = &f.next();
    const stopwatch watch;
    for (const row *one : chosen) f.store.erase(one->key);
    state.SetIterationTime(watch.seconds());
    for (const row *one : chosen) f.store.insert(*one);
  }
}

template <typename Store>
void find_row(benchmark::State &state, size_t count, key_ending ending) {
  filled<Store> &f = filled_with<Store>(count, ending);
  while (state.KeepRunningBatch(BATCH)) {
    const stopwatch watch;
    for (size_t i = 0; i < BATCH; i++) {
      const row &wanted = f.next();
      const size_t length = f.store.find(wanted.key);
      if (length != wanted.key.size() + wanted.group.size() + wanted.value.size())
        give_up("a find gives another row");
    }
    state.SetIterationTime(watch.seconds());
  }
}

template <typename Store>
void scan_rows(benchmark::State &state, size_t count, key_ending ending) {
  filled<Store> &f = filled_with<Store>(count, ending);
  for (auto _ : state) {
    const stopwatch watch;
    if (f.store.scan(ABSENT_VALUE) != 0) give_up("a scan finds what isn't there");
    state.SetIterationTime(watch.seconds());
  }
}

// A store filled from nothing, in the time of one row.
template <typename Store>
void fill(benchmark::State &state, size_t count, key_ending ending) {
  use_engine_defaults();
  const std::vector<row> &rows = rows_for(count, ending);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(count))) {
    Store store;
    const stopwatch watch;
    for (size_t i = 0; i < count; i++) store.insert(rows[i]);
    state.SetIterationTime(watch.seconds());
  }
}

struct operation {
  const char *name;
  size_t least;  // rows
  size_t most;
  void (*engine)(benchmark::State &, size_t, key_ending);
  void (*multimap)(benchmark::State &, size_t, key_ending);
  void (*sqlite)(benchmark::State &, size_t, key_ending);
};

#define OPERATION(name, least, most, function)                                                  \
  operation {                                                                                   \
    name, least, most, function<engine_store>, function<multimap_store>, function<sqlite_store> \
  }

const operation operations[] = {
    OPERATION("engine insert", 100, 1000000, insert_rows),
    OPERATION("engine delete", 100, 1000000, delete_rows),
    OPERATION("engine search by index", 100, 1000000, find_row),
    OPERATION("engine search without index", 100, 100000, scan_rows),
};

#undef OPERATION

void register_one(const std::string &of_case, const char *side,
                  void (*function)(benchmark::State &, size_t, key_ending), size_t count,
                  key_ending ending) {
  benchmark::RegisterBenchmark((of_case + "/" + side).c_str(), function, count, ending)
      ->UseManualTime();
}

void register_operation(const operation &op, size_t count, key_ending ending) {
  const std::string of_case = std::string(op.name) + ", " + std::to_string(count) +
                              (ending == key_ending::common ? ", keys of a common ending" : "");
  register_one(of_case, engine_store::NAME, op.engine, count, ending);
  register_one(of_case, multimap_store::NAME, op.multimap, count, ending);
  register_one(of_case, sqlite_store::NAME, op.sqlite, count, ending);
}

// Each once in a run: a store is filled from nothing.
void register_filling(const char *side, void (*function)(benchmark::State &, size_t, key_ending),
                      key_ending ending) {
  constexpr size_t ROWS = 100000;
  const std::string name = std::string("engine filling with 100000, each row") +
                           (ending == key_ending::common ? ", keys of a common ending/" : "/") +
                           side;
  benchmark::RegisterBenchmark(name.c_str(), function, ROWS, ending)
      ->UseManualTime()
      ->Iterations(ROWS)
      ->Repetitions(3);
}

}  // namespace

void register_engine_benches() {
  for (const key_ending ending : {key_ending::own, key_ending::common}) {
    register_filling(engine_store::NAME, fill<engine_store>, ending);
    register_filling(multimap_store::NAME, fill<multimap_store>, ending);
    register_filling(sqlite_store::NAME, fill<sqlite_store>, ending);
  }
  for (const operation &op : operations)
    for (const size_t count : {100U, 1000U, 10000U, 100000U, 1000000U}) {
      if (count < op.least || count > op.most) continue;
      register_operation(op, count, key_ending::own);
      if (count >= 1000) register_operation(op, count, key_ending::common);
    }
}

}  // namespace bench
