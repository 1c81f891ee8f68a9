// Clearing, reloading and storing by RPC.
#include "rpc/rpc_maintain.h"

#include <algorithm>

#include "host/log.h"
#include "ports/port_map.h"
#include "rpc/rpc_call.h"
#include "tables/files/table_files.h"
#include "tables/rows/audit.h"

namespace {

constexpr message_text<const char *> CLEAR_UNKNOWN{"RPC Clear tbl: wrong table name: '%s'"};
constexpr table_argument CLEAR_ARGUMENT{
    {"RPC Clear tbl: not enough parameters\n", NOT_ENOUGH_PARAMETERS},
    &CLEAR_UNKNOWN,
    name_form::first_word_but_whole_in_fault};
constexpr table_argument PLAIN_ARGUMENT{
    {"wrong number of parameters\n", WRONG_NUMBER}, nullptr, name_form::first_word};

constexpr audit_table_text CLEARED{"    %s - (%d) RPC Clearing table %s"};

// For good, unlike a script's clear: the backup goes at the next store, and indexes begin anew.
void clear_for_good(tarn_tbl *table) {
  const lock_scope lock(table->lock);
  memdb_delete_all(rows_to_change(table));
  set_tbl_state(table, TBL_CLEARED);
  reset_tbl_row_count(table);
  reset_tbl_index(table);
  audit_clear(table, CLEARED);
}

bool send_row_count(const rpc_call &call, const tarn_tbl *table) {
  const lock_scope lock(table->lock);
  if (send_name_and_count(call, table)) return true;
  LM_ERR("Error to write buffer");
  return false;
}

}  // namespace

void tarn_memdb_rpc_clear_all(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  const std::span<tarn_tbl> tables = all_tarn_tbls();
  const auto is_missing = [](const tarn_tbl &table) { return table.tbl == nullptr; };
  if (tables.data() == nullptr || std::any_of(tables.begin(), tables.end(), is_missing)) {
    fault_internal(call);
    return;
  }
  for (tarn_tbl &table : tables) clear_for_good(&table);
  clear_port_maps();
  store_table_mngt(0, nullptr);
}

void tarn_memdb_rpc_clear_tbl(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  tarn_tbl *const table = read_table({rpc, ctx}, CLEAR_ARGUMENT);
  if (table == nullptr) return;
  clear_for_good(table);
  store_table_mngt(0, nullptr);
}

void tarn_memdb_rpc_reload_table(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  tarn_tbl *const table = read_table({rpc, ctx}, PLAIN_ARGUMENT);
  if (table == nullptr) return;
  const lock_scope lock(table->lock);
  reload_table(table);
}

void tarn_memdb_rpc_sync_tbl(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  tarn_tbl *const table = read_table(call, PLAIN_ARGUMENT);
  if (table != nullptr && send_row_count(call, table)) store_table(table);
}
