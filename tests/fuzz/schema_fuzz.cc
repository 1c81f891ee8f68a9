// The schema file; where it makes tables, rows go into them.
//
// Choices: allocation that fails. Then the schema.
#include "tables/schema.h"

#include <cstring>

#include "memdb/memdb.h"
#include "tables/shared/shared_memory.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

template <size_t N>
bool is_terminated(const char (&text)[N]) {
  return memchr(text, '\0', N) != nullptr;
}

// The layout as it follows from the columns, and rows that fill every column to its end.
void check_engine(memdb_tbl *tbl) {
  uint64_t total = 0;
  for (const memdb_col &col : memdb_cols(tbl)) {
    if (memdb_is_indexed(col)) total += sizeof(memdb_row *);
    REQUIRE(col.offset == total);
    REQUIRE(col.size >= 1);
    REQUIRE((col.idx != nullptr) == memdb_is_indexed(col));
    total += col.size;
  }
  REQUIRE(tbl->row_len == total);
  REQUIRE(tbl->first == nullptr && tbl->last == nullptr);
  if (total > 20000) return;
  for (const char *text : {"", "x", "a text that is longer than many a column"}) {
    const std::vector<const char *> values(tbl->col_cnt, text);
    if (memdb_insert(tbl, values.data()) == nullptr) REQUIRE(fuzz::memory_was_short());
  }
  fuzz::require_whole(tbl);
}

void check_table(const tarn_tbl &table) {
  REQUIRE(is_terminated(table.table_name));
  REQUIRE(is_terminated(table.file_name));
  REQUIRE(is_terminated(table.range));
  REQUIRE(is_terminated(table.log_tag));
  REQUIRE(table.state == TBL_UNCHANGED);
  REQUIRE(table.row_count == 0);
  REQUIRE(table.next_index == 1);
  REQUIRE(table.lock == nullptr);
  REQUIRE(table.tbl != nullptr);
  REQUIRE(table.num_fields >= 0);
  REQUIRE(table.tbl->col_cnt == static_cast<uint32_t>(table.num_fields));
  for (uint32_t i = 0; i < table.tbl->col_cnt; ++i) {
    const char *const name = table.field_name[i];
    REQUIRE(name != nullptr || fuzz::memory_was_short());
    REQUIRE(name == nullptr || memchr(name, '\0', TARN_NAME_SIZE) != nullptr);
  }
  if (!holds_ports(table))
    REQUIRE(*table.range == '\0' && table.int_port_field == 0 && table.ext_port_field == 0);
  check_engine(table.tbl);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const unsigned failing = given.choice();

  const fuzz::run run;
  REQUIRE(make_registry());
  const fuzz::memory_file file(given.rest());
  cfg_file_path = file.path();
  fuzz::fail_allocation(failing);
  const bool made = create_tables();
  REQUIRE(standin::live_count(standin::pool::pkg) == 0);
  REQUIRE(is_terminated(tarn_tbl_mngt->base_dir));
  REQUIRE(is_terminated(tarn_tbl_mngt->base_backup_dir));
  if (made) {
    for (tarn_tbl &table : all_tarn_tbls()) check_table(table);
    for (tarn_tbl &table : all_tarn_tbls()) {
      const tarn_tbl *const found = get_tarn_tbl_by_name(table.table_name);
      REQUIRE(found != nullptr && found <= &table);
    }
    if (!init_locks()) REQUIRE(fuzz::memory_was_short());
  }
  destroy_tables();
  free_registry();
  cfg_file_path = "";
  return 0;
}
