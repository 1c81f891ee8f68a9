// The registry's records: look-up, accessors, beginning and end.
#include "tables/tarn_tbl.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "host/log.h"
#include "tables/shared/shared_memory.h"

tarn_mngt *tarn_tbl_mngt;

namespace {

// The table that was found last: a script asks the same one several times in a row.
size_t found_last;

// The character behind the length is looked at first: it tells most other names apart.
bool has_name(const tarn_tbl &table, std::string_view name) {
  return name.size() < sizeof(table.table_name) && table.table_name[name.size()] == '\0' &&
         memcmp(table.table_name, name.data(), name.size()) == 0;
}

void free_field_names(tarn_tbl *table) {
  if (table->field_name == nullptr) return;
  for (int32_t i = 0; i < table->num_fields; i++) tarn_shm_free(table->field_name[i]);
  tarn_shm_free(table->field_name);
  table->field_name = nullptr;
}

bool has_text(const memdb_tbl *tbl, const memdb_row *row) {
  for (uint32_t i = 0; i < tbl->col_cnt; i++)
    if (*memdb_get_field(tbl, row, i) != '\0') return true;
  return false;
}

// An update empties a row ahead of taking it out. Stored, a row without any text would make the
// whole file unreadable.
void delete_rows_without_text(memdb_tbl *tbl) {
  for (memdb_row *row = tbl->first; row != nullptr;) {
    memdb_row *const next = row->next;
    if (!has_text(tbl, row)) memdb_delete_row(tbl, row);
    row = next;
  }
}

}  // namespace

bool make_registry() {
  tarn_tbl_mngt = static_cast<tarn_mngt *>(tarn_shm_calloc(1, sizeof(tarn_mngt)));
  if (tarn_tbl_mngt == nullptr) return false;
  found_last = 0;
  use_read_sections(&tarn_tbl_mngt->sections);
  return true;
}

void free_registry() {
  if (tarn_tbl_mngt == nullptr) return;
  use_read_sections(nullptr);
  tarn_shm_free(tarn_tbl_mngt->tables);
  tarn_shm_free(tarn_tbl_mngt);
  tarn_tbl_mngt = nullptr;
}

std::span<tarn_tbl> all_tarn_tbls() {
  if (tarn_tbl_mngt == nullptr || tarn_tbl_mngt->tables == nullptr) return {};
  return {tarn_tbl_mngt->tables, static_cast<size_t>(tarn_tbl_mngt->num_table)};
}

tarn_tbl *get_tarn_tbl_by_name(const char *name) {
  if (name == nullptr) {
    LM_ERR("NULL value for tbl_name\n");
    return nullptr;
  }
  return get_tarn_tbl_by_name(std::string_view(name));
}

tarn_tbl *get_tarn_tbl_by_name(std::string_view name) {
  if (tarn_tbl_mngt == nullptr) {
    LM_ERR("tarn_tbl_mngt undefined.\n");
    return nullptr;
  }
  const std::span<tarn_tbl> tables = all_tarn_tbls();
  if (found_last < tables.size() && has_name(tables[found_last], name)) return &tables[found_last];
  for (size_t i = 0; i < tables.size(); i++) {
    if (!has_name(tables[i], name)) continue;
    found_last = i;
    return &tables[i];
  }
  LM_ERR("Table '%.*s' was not found\n", static_cast<int>(name.size()), name.data());
  return nullptr;
}

std::string_view column_name(const tarn_tbl *table, uint32_t col) {
  const char *const name = table->field_name[col];
  return name != nullptr ? std::string_view(name) : std::string_view();
}

int32_t get_tbl_state(const tarn_tbl *table) { return table->state; }

void set_tbl_state(tarn_tbl *table, int32_t state) {
  table->state = state;
  LM_DBG("Table '%s' state was set to value %d\n", table->table_name, state);
}

int32_t get_tbl_row_count(const tarn_tbl *table) { return table->row_count; }

int32_t peek_tbl_row_count(const tarn_tbl *table) UNCHECKED_LOCKING { return table->row_count; }

namespace {

void store_row_count(tarn_tbl *table, int32_t count) NEEDS_LOCK(table->lock) {
  table->row_count = count;
  LM_DBG("Table '%s' row count was set to %d\n", table->table_name, count);
}

}  // namespace

void set_tbl_row_count(tarn_tbl *table, int32_t change) {
  const int32_t count = table->row_count + change;
  if (count < 0)
    LM_DBG("Table '%s' row count was set to %d. Invalid value. Reseting row count\n",
           table->table_name, count);
  store_row_count(table, std::max(count, 0));
}

void reset_tbl_row_count(tarn_tbl *table) { store_row_count(table, 0); }

uint32_t get_tbl_index(tarn_tbl *table) {
  const uint32_t index = table->next_index++;
  LM_DBG("Table '%s' next index to be used was set to %d\n", table->table_name,
         static_cast<int>(table->next_index));
  return index;
}

void set_tbl_index(tarn_tbl *table, uint32_t index) {
  table->next_index = index;
  LM_DBG("Table '%s' index was set to %d\n", table->table_name, static_cast<int>(index));
}

void reset_tbl_index(tarn_tbl *table) { set_tbl_index(table, 1); }

bool is_being_reloaded(const tarn_tbl *table) { return table->being_reloaded != 0; }

void set_being_reloaded(tarn_tbl *table, bool reloading) {
  std::atomic_ref(table->being_reloaded).store(reloading ? 1 : 0);
}

void count_refused_file(tarn_tbl *table) {
  std::atomic_ref(table->refused_files).fetch_add(1, std::memory_order_relaxed);
}

uint32_t refused_file_count(const tarn_tbl *table) { return table->refused_files; }

open_store::open_store(tarn_tbl *table) : table_(table) {
  std::atomic_ref(table->open_stores).fetch_add(1);
}

open_store::~open_store() { std::atomic_ref(table_->open_stores).fetch_sub(1); }

bool init_locks() {
  for (tarn_tbl &table : all_tarn_tbls()) {
    LM_DBG("Creating lock for table '%s'\n", table.table_name);
    table.lock = generate_lock();
    if (table.lock == nullptr) return false;
  }
  return true;
}

void destroy_locks() {
  for (tarn_tbl &table : all_tarn_tbls()) {
    tarn_shm_free(table.lock);
    table.lock = nullptr;
  }
}

void recover_tables() {
  for (tarn_tbl &table : all_tarn_tbls()) {
    alone_with(&table);
    if (force_unlock(table.lock) && table.tbl != nullptr) {
      memdb_mend_list(table.tbl);
      delete_rows_without_text(table.tbl);
    }
    if (table.open_stores == 0) continue;
    table.open_stores = 0;
    table.main_file_cut = 1;
    if (table.state == TBL_UNCHANGED) set_tbl_state(&table, TBL_CHANGED);
  }
}

void destroy_tables() {
  for (tarn_tbl &table : all_tarn_tbls()) {
    const lock_scope lock(table.lock);
    free_field_names(&table);
    memdb_destroy_tbl(table.tbl);
    table.tbl = nullptr;
  }
  free_retired_rows();
  destroy_locks();
}
