// Storing and loading a table of 100,000 rows beside raw writes and reads of the same bytes, and
// loading beside the engine's part of it. The files lie in the temporary directory; nothing waits
// for a disk.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/rows.h"
#include "bench/started_module.h"
#include "host/log.h"
#include "tables/files/table_files.h"
#include "tables/files/table_paths.h"
#include "tables/shared/shared_memory.h"

namespace bench {
namespace {

constexpr size_t ROWS = 100000;

tarn_tbl *stored_table() { return get_tarn_tbl_by_name("stored"); }

// The table's columns: an indexed key and four plain ones.
const std::vector<std::vector<std::string>> &field_texts() {
  static const std::vector<std::vector<std::string>> texts = [] {
    std::vector<std::vector<std::string>> out;
    for (const row &one : make_rows(ROWS))
      out.push_back({one.key, one.group, one.value, "registered", "3600"});
    return out;
  }();
  return texts;
}

std::string read_whole(const char *path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

void insert_bare(memdb_tbl *tbl) {
  for (const std::vector<std::string> &fields : field_texts()) {
    const char *values[5];
    for (size_t i = 0; i < 5; i++) values[i] = fields[i].c_str();
    memdb_insert(tbl, values);
  }
}

void store() {
  set_tbl_state(stored_table(), TBL_CHANGED);
  if (!store_table(stored_table())) give_up("the table isn't stored");
}

// Fills and stores the table once, whichever benchmark comes first.
struct stored_file {
  stored_file() {
    const host_log_scope log;
    memdb_delete_all(stored_table()->tbl);
    insert_bare(stored_table()->tbl);
    stored_table()->row_count = static_cast<int32_t>(ROWS);
    store();
    const main_path path(stored_table());
    text = read_whole(path.text);
    if (text.size() < ROWS * 10) give_up("the stored file is too small");
    copy = std::string(path.text) + ".copy";
    std::ofstream(copy, std::ios::binary) << text;
  }
  std::string text;
  std::string copy;
};

const stored_file &file() {
  static const stored_file only;
  return only;
}

void count_bytes(benchmark::State &state) {
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * static_cast<int64_t>(file().text.size())));
}

void store_module(benchmark::State &state) {
  file();
  const host_log_scope log;
  for (auto _ : state) store();
  count_bytes(state);
}

void store_fwrite(benchmark::State &state) {
  const std::string &text = file().text;
  for (auto _ : state) {
    FILE *const out = fopen(file().copy.c_str(), "w");
    if (out == nullptr || fwrite(text.data(), 1, text.size(), out) != text.size())
      give_up("fwrite fails");
    fclose(out);
  }
  count_bytes(state);
}

void store_fwrite_lines(benchmark::State &state) {
  const std::string &text = file().text;
  for (auto _ : state) {
    FILE *const out = fopen(file().copy.c_str(), "w");
    if (out == nullptr) give_up("fopen fails");
    for (size_t from = 0; from < text.size();) {
      const size_t end = text.find('\n', from) + 1;
      if (fwrite(text.data() + from, 1, end - from, out) != end - from) give_up("fwrite fails");
      from = end;
    }
    fclose(out);
  }
  count_bytes(state);
}

void load_module(benchmark::State &state) {
  file();
  install_engine_hooks();
  const host_log_scope log;
  for (auto _ : state) {
    // Emptied ahead of the clock, so that the frees of the rows before don't count.
    state.PauseTiming();
    memdb_delete_all(stored_table()->tbl);
    state.ResumeTiming();
    load_table(stored_table());
    if (stored_table()->row_count != static_cast<int32_t>(ROWS)) give_up("the file isn't loaded");
  }
  count_bytes(state);
}

void load_getline(benchmark::State &state) {
  for (auto _ : state) {
    FILE *const in = fopen(file().copy.c_str(), "r");
    if (in == nullptr) give_up("fopen fails");
    char *line = nullptr;
    size_t size = 0;
    size_t read = 0;
    for (ssize_t got = getline(&line, &size, in); got > 0; got = getline(&line, &size, in))
      read += static_cast<size_t>(got);
    free(line);
    fclose(in);
    if (read != file().text.size()) give_up("getline reads something else");
  }
  count_bytes(state);
}

void load_bare(benchmark::State &state) {
  file();
  install_engine_hooks();
  memdb_tbl *const tbl = stored_table()->tbl;
  for (auto _ : state) {
    state.PauseTiming();
    memdb_delete_all(tbl);
    state.ResumeTiming();
    insert_bare(tbl);
  }
  count_bytes(state);
}

void register_one(const char *name, void (*function)(benchmark::State &)) {
  benchmark::RegisterBenchmark(name, function);
}

}  // namespace

void register_file_benches() {
  register_one("store of 100000 rows/module", store_module);
  register_one("store of 100000 rows/fwrite of the whole", store_fwrite);
  register_one("store of 100000 rows/fwrite of each line", store_fwrite_lines);
  register_one("load of 100000 rows/module", load_module);
  register_one("load of 100000 rows/getline", load_getline);
  register_one("load of 100000 rows/bare engine inserts", load_bare);
}

}  // namespace bench
