// The list of counters, and their registration.
#include "counters/counters.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <span>

#include "counters/counter_name.h"
#include "host/imports.h"
#include "host/log.h"
#include "ports/port_map.h"
#include "tables/files/table_files.h"
#include "tables/shared/read_section.h"
#include "tables/table_counts.h"
#include "tables/tarn_tbl.h"

namespace {

constexpr char GROUP[] = "tarn_memdb";

struct counter {
  const char *name;
  counter_callback read;
  const char *meaning;
};

// What is read of a table. None takes its lock: a number is whole at any time, and who looks at a
// counter must neither wait for a worker nor have one wait.
using table_reader = long (*)(const tarn_tbl &table);

long rows(const tarn_tbl &table) { return peek_tbl_row_count(&table); }

long free_rows(const tarn_tbl &table) {
  return std::max(long{table.max_rows} - peek_tbl_row_count(&table), 0L);
}

long refused_files(const tarn_tbl &table) { return refused_file_count(&table); }

template <uint64_t table_counts::*what>
long counted(const tarn_tbl &table) {
  return static_cast<long>(counted_for(&table, what));
}

constexpr table_reader file_rows = counted<&table_counts::file_rows>;
constexpr table_reader file_bytes = counted<&table_counts::file_bytes>;
constexpr table_reader refused_full = counted<&table_counts::refused_full>;
constexpr table_reader refused_duplicate = counted<&table_counts::refused_duplicate>;
constexpr table_reader failed_stores = counted<&table_counts::failed_stores>;

// The records of tables go with the registry, and those of maps with their lock.
template <table_reader read>
long of_table(counter_handle_t, void *table) {
  return tarn_tbl_mngt != nullptr ? read(*static_cast<const tarn_tbl *>(table)) : 0;
}

template <table_reader read>
long of_all_tables(counter_handle_t, void *) {
  long sum = 0;
  for (const tarn_tbl &table : all_tarn_tbls()) sum += read(table);
  return sum;
}

using map_reader = long (*)(const port_m &map);

long taken_ports(const port_m &map) { return count_ports(&map).taken; }
long free_ports(const port_m &map) { return count_ports(&map).free; }
long refused_requests(const port_m &map) { return map.refused_requests; }

template <map_reader read>
long of_map(counter_handle_t, void *kind) {
  if (port_map_lock == nullptr) return 0;
  return read(**static_cast<const port_map_kind *>(kind)->map);
}

long of_all_maps(counter_handle_t, void *) {
  if (port_map_lock == nullptr) return 0;
  long sum = 0;
  for (const port_map_kind &kind : port_map_kinds) sum += refused_requests(**kind.map);
  return sum;
}

long retired_rows(counter_handle_t, void *) { return retired_row_count(); }

// No name here begins with another one and an underscore: so those of two tables differ, whatever
// the tables' names are.
constexpr counter OF_EACH_TABLE[] = {
    {"rows", of_table<rows>, "rows"},
    {"free_rows", of_table<free_rows>, "rows up to MAX_ROWS"},
    {"file_rows", of_table<file_rows>, "rows in the main file"},
    {"file_bytes", of_table<file_bytes>, "bytes in the main file"},
    {"refused_full", of_table<refused_full>, "inserts into the full table"},
    {"refused_duplicate", of_table<refused_duplicate>, "inserts of a row that was there"},
    {"failed_stores", of_table<failed_stores>, "stores that failed"},
    {"refused_files", of_table<refused_files>, "files that could not be loaded"},
};

constexpr counter OF_EACH_MAP[] = {
    {"taken_ports", of_map<taken_ports>, "ports that are taken"},
    {"free_ports", of_map<free_ports>, "ports that are free and not set aside"},
    {"refused_ports", of_map<refused_requests>, "requests that found no free port"},
};

// As port_map_kinds has them.
constexpr const char *MAP_NAMES[] = {"int", "ext", "static_int", "static_ext"};
static_assert(std::size(MAP_NAMES) == std::size(port_map_kinds));

constexpr counter OF_ALL[] = {
    {"refused_full", of_all_tables<refused_full>, "inserts into full tables"},
    {"refused_duplicate", of_all_tables<refused_duplicate>, "inserts of rows that were there"},
    {"failed_stores", of_all_tables<failed_stores>, "stores of all tables that failed"},
    {"refused_files", of_all_tables<refused_files>, "files of all tables that could not be loaded"},
    {"refused_ports", of_all_maps, "requests of all maps that found no free port"},
    {"retired_rows", retired_rows, "removed rows that are kept for readers"},
};

// What the host says: 0, or less.
int add(const counter &kind, const char *name, const void *param, const char *meaning) {
  return counter_register(nullptr, GROUP, name, CNT_F_NO_RESET, kind.read,
                          const_cast<void *>(param), meaning, 0);
}

// A name that is taken is somebody's who has put a counter of his own into the group: it is his.
bool added_or_taken(int result) { return result == 0 || result == COUNTER_NAME_TAKEN; }

bool add_those_of_all() {
  return std::all_of(std::begin(OF_ALL), std::end(OF_ALL), [](const counter &kind) {
    return added_or_taken(add(kind, kind.name, nullptr, kind.meaning));
  });
}

bool add_those_of_map(size_t i) {
  return std::all_of(std::begin(OF_EACH_MAP), std::end(OF_EACH_MAP), [i](const counter &kind) {
    const counter_name name(kind.name, MAP_NAMES[i]);
    return added_or_taken(add(kind, name.text, &port_map_kinds[i], kind.meaning));
  });
}

// The texts for one of a table's counters.
int add_for_table(const counter &kind, const tarn_tbl &table, int number) {
  char meaning[96];
  snprintf(meaning, sizeof(meaning), "table '%s': %s", table.table_name, kind.meaning);
  const counter_name name(kind.name, table.table_name, number);
  return add(kind, name.text, &table, meaning);
}

// Room that has no end is no number to be watched.
bool is_told(const counter &kind, const tarn_tbl &table) {
  return kind.read != of_table<free_rows> || table.max_rows >= 0;
}

bool add_those_of_table(const tarn_tbl &table) {
  int number = 0;
  int result;
  do {
    number++;
    result = add_for_table(OF_EACH_TABLE[0], table, number);
  } while (result == COUNTER_NAME_TAKEN);
  if (result != 0) return false;
  return std::all_of(std::begin(OF_EACH_TABLE) + 1, std::end(OF_EACH_TABLE),
                     [&table, number](const counter &kind) {
                       return !is_told(kind, table) ||
                              added_or_taken(add_for_table(kind, table, number));
                     });
}

// Plain names come first, so that another table's odd name never changes them.
bool add_those_of_tables(std::span<const tarn_tbl> tables) {
  for (const bool plain : {true, false})
    for (const tarn_tbl &table : tables)
      if (is_plain_name(table.table_name) == plain && !add_those_of_table(table)) return false;
  return true;
}

bool add_all_counters() {
  const std::span<const tarn_tbl> tables = all_tarn_tbls();
  const size_t most = std::min(tables.size(), size_t{MOST_TABLES_WITH_COUNTERS});
  if (tables.size() > most)
    LM_NOTICE("Tables behind the first %d have no counters of their own\n",
              MOST_TABLES_WITH_COUNTERS);
  if (!add_those_of_all()) return false;
  for (size_t i = 0; i < std::size(MAP_NAMES); i++)
    if (!add_those_of_map(i)) return false;
  return add_those_of_tables(tables.first(most));
}

}  // namespace

void register_counters() {
  if (&counter_register == nullptr) return;
  if (!make_table_counts()) {
    LM_WARN("Could not allocate memory for counters\n");
    return;
  }
  for (const tarn_tbl &table : all_tarn_tbls()) {
    alone_with(&table);
    note_loaded_file(&table);
  }
  if (!add_all_counters()) LM_WARN("Could not register all counters\n");
}
