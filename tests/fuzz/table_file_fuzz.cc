// Table files: any bytes are loaded into tables of several shapes; what came of them is stored and
// loaded again, and has to be the same where the reader respects what the writer does.
//
// Choices: shape, which file has the bytes, allocation that fails. Then the bytes.
#include <algorithm>
#include <cstring>

#include "ports/port_allocation.h"
#include "tables/files/table_files.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using rows = std::vector<std::vector<std::string>>;

tarn_tbl *make_table(fuzz::registry *registry, unsigned shape) {
  switch (shape % 6) {
    case 0:
      return registry->add("t", {{"a", 20}, {"b", 20}, {"c", 20}});
    case 1: {
      tarn_tbl *const table = registry->add("t", {{"id", 10, true}, {"b", 3, true}, {"c", 0}});
      table->use_index = 1;
      return table;
    }
    case 2:
      return registry->add("t", {{"only", 4, true}});
    case 3:
    case 4: {
      tarn_tbl *const table = registry->add("t", {{"id", 10, true},
                                                  {"a", 4},
                                                  {"b", 4},
                                                  {"int", 6, true},
                                                  {"ext", 6},
                                                  {"location", 4},
                                                  {"x", 4},
                                                  {"static_type", 2},
                                                  {"dynamic_type", 2}});
      table->flag = TBL_HOLDS_PORTS;
      table->int_port_field = 3;
      table->ext_port_field = 4;
      if (shape % 6 == 3) strcpy(table->range, "dynamic");
      return table;
    }
    default: {
      tarn_tbl *const table = registry->add("t", {{"a", 4}, {"b", 4}, {"c", 4}, {"d", 4}});
      table->flag = TBL_HOLDS_PORTS;
      table->int_port_field = -1;
      table->ext_port_field = 77;
      return table;
    }
  }
}

// The file that the writer makes of these rows, which stand newest first.
std::string written(const rows &of_table) {
  std::string out = "Version 1\n";
  for (auto row = of_table.rbegin(); row != of_table.rend(); ++row) {
    for (size_t i = 0; i < row->size(); ++i) out += (i > 0 ? "|" : "") + (*row)[i];
    out += '\n';
  }
  return out;
}

// True if the reader takes every value for what it is.
bool comes_back(const rows &of_table) {
  for (const auto &row : of_table) {
    if (row[0][0] == '#') return false;
    for (const std::string &field : row)
      if (field == "*" || field.find_first_of("|\\\n") != std::string::npos) return false;
    if (std::all_of(row.begin(), row.end(), [](const auto &field) { return field.empty(); }))
      return false;
  }
  return true;
}

uint32_t index_after(const tarn_tbl &table, const rows &of_table) {
  uint32_t next = 1;
  if (table.use_index == 0) return next;
  // In the order of the file, for the sake of a highest number that wraps.
  for (auto row = of_table.rbegin(); row != of_table.rend(); ++row) {
    const auto stored = static_cast<uint32_t>(atoi((*row)[0].c_str()));
    if (stored >= next) next = stored + 1;
  }
  return next;
}

// Holders per map and port as the rows have them.
void check_ports(const tarn_tbl &table, const rows &of_table) {
  if (!holds_ports(table) || table.tbl->col_cnt < 9) return;
  const bool dynamic = strcmp(table.range, "dynamic") == 0;
  port_m *const internal_map = dynamic ? port_m_int : port_m_static_int;
  port_m *const external_map = dynamic ? port_m_ext : port_m_static_ext;
  for (port_m *const m : {internal_map, external_map}) {
    for (int32_t port = m->min_port; port <= m->max_port; ++port) {
      unsigned holders = 0;
      for (const auto &row : of_table) {
        const bool internal = row[5] == "WAN" || atoi(row[dynamic ? 8 : 7].c_str()) == 6;
        const std::string &text = row[internal ? 3 : 4];
        if ((internal ? internal_map : external_map) == m && atoi(text.c_str()) == port) ++holders;
      }
      const uint8_t entry = *port_entry(m, port);
      REQUIRE(((entry & PORT_IN_USE) != 0) == (holders > 0));
      REQUIRE((entry & PORT_USE_COUNT) == holders % 64);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const unsigned shape = given.choice();
  const unsigned place = given.choice() % 3;
  const unsigned failing = given.choice();
  const std::string bytes = given.rest();

  const fuzz::run run;
  const fuzz::port_maps maps;
  fuzz::registry registry;
  tarn_tbl *const table = make_table(&registry, shape);
  strcpy(tarn_tbl_mngt->base_dir, fuzz::directory().c_str());
  strcpy(tarn_tbl_mngt->base_backup_dir, (fuzz::directory() + "b_").c_str());
  const std::string main_file = fuzz::directory() + "t";
  const std::string backup_file = fuzz::directory() + "b_t.backup";
  if (place != 1) fuzz::write_file(main_file, bytes);
  if (place != 0) fuzz::write_file(backup_file, bytes);

  fuzz::fail_allocation(failing);
  load_table(table);
  standin::stop_failing();
  fuzz::require_whole(table);
  REQUIRE(table->state == TBL_UNCHANGED);
  const bool refused = standin::log_contains(L_ERR, "Could not parse") ||
                       standin::log_contains(L_ERR, "Could not insert");
  const bool main_kept = fuzz::read_file(main_file).has_value();
  const bool backup_kept = fuzz::read_file(backup_file).has_value();
  REQUIRE(!main_kept || fuzz::read_file(main_file) == bytes);
  REQUIRE(!backup_kept || fuzz::read_file(backup_file) == bytes);
  const rows loaded = fuzz::rows_of(table->tbl);
  // Rows come from a file that was good and so is still there.
  REQUIRE(loaded.empty() || main_kept || backup_kept);
  // The index is drawn from the file's text, the rows show what fitted the column.
  const bool cut = standin::log_contains(L_WARN, "too long");
  if (!refused && !cut) {
    REQUIRE(table->next_index == index_after(*table, loaded));
    check_ports(*table, loaded);
  }

  table->state = TBL_CHANGED;
  REQUIRE(store_table(table));
  REQUIRE(table->state == TBL_UNCHANGED);
  REQUIRE(fuzz::read_file(main_file) == written(loaded));
  if (main_kept) REQUIRE(fuzz::read_file(backup_file) == bytes);

  load_table(table);
  fuzz::require_whole(table);
  if (comes_back(loaded)) {
    REQUIRE(fuzz::rows_of(table->tbl) == loaded);
    REQUIRE(table->next_index == index_after(*table, loaded));
    table->state = TBL_CHANGED;
    REQUIRE(store_table(table));
    REQUIRE(fuzz::read_file(main_file) == written(loaded));
  }

  table->state = TBL_CLEARED;
  REQUIRE(store_table(table));
  REQUIRE(fuzz::read_file(main_file) == "Version 1\n");
  REQUIRE(fuzz::read_file(backup_file) == "Version 1\n");
  remove(main_file.c_str());
  remove(backup_file.c_str());
  return 0;
}
