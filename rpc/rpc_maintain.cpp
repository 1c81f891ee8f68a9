// Clearing, reloading and storing by RPC.
#include "rpc/rpc_maintain.h"

#include <algorithm>

#include "host/log.h"
#include "ports/port_map.h"
#include "rpc/rpc_call.h"
#include "tables/files/table_files.h"
#include "tables/rows/audit.h"

namespace {

constexpr rpc_words CLEAR_WORDS{"RPC Clear tbl: ", "not enough parameters",
                                "Not enough parameters"};
constexpr rpc_words PLAIN_WORDS{"", "wrong number of parameters", "wrong number of parameters"};

// For good, unlike a script's clear: the backup goes at the next store, and indexes begin anew.
void clear_for_good(tarn_tbl *table) {
  const lock_scope lock(table->lock);
  memdb_delete_all(table->tbl);
  set_tbl_state(table, TBL_CLEARED);
  reset_tbl_row_count(table);
  reset_tbl_index(table);
  audit_clear(table, FROM_RPC_CLEAR);
}

void fault_table(const rpc_call &call, const char *name) {
  call.rpc->fault(call.ctx, RPC_FAULT, "Wrong table name: '%s'", name);
}

// The table that the one argument names; null, refused, if there is none.
tarn_tbl *read_table(const rpc_call &call) {
  table_argument argument;
  switch (read_table_argument(call, PLAIN_WORDS, &argument)) {
    case argument_state::missing:
      return nullptr;
    case argument_state::unknown:
      fault_table(call, argument.name);
      return nullptr;
    case argument_state::found:
      break;
  }
  return argument.table;
}

bool send_row_count(const rpc_call &call, const tarn_tbl *table) {
  const lock_scope lock(table->lock);
  if (send_line(call, "Table: %s", table->table_name) &&
      send_line(call, "Row count: %d", table->row_count))
    return true;
  LM_ERR("Error to write buffer");
  return false;
}

}  // namespace

void tarn_memdb_rpc_clear_all(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const std::span<tarn_tbl> tables = all_tarn_tbls();
  const auto is_missing = [](const tarn_tbl &table) { return table.tbl == nullptr; };
  if (tables.data() == nullptr || std::any_of(tables.begin(), tables.end(), is_missing)) {
    rpc->fault(ctx, RPC_FAULT, "Internal Error");
    return;
  }
  for (tarn_tbl &table : tables) clear_for_good(&table);
  clear_port_maps();
  store_table_mngt(0, nullptr);
}

void tarn_memdb_rpc_clear_tbl(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  table_argument argument;
  switch (read_table_argument(call, CLEAR_WORDS, &argument)) {
    case argument_state::missing:
      return;
    case argument_state::unknown:
      LM_ERR("RPC Clear tbl: wrong table name: '%s'", argument.name);
      fault_table(call, argument.whole);
      return;
    case argument_state::found:
      break;
  }
  clear_for_good(argument.table);
  store_table_mngt(0, nullptr);
}

void tarn_memdb_rpc_reload_table(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  tarn_tbl *const table = read_table({rpc, ctx});
  if (table == nullptr) return;
  lock_scope lock(table->lock);
  if (reload_table(table) != 0) {
    LM_ERR("Could not load table '%s'\n", table->table_name);
    lock.release();
    rpc->fault(ctx, RPC_FAULT, "Could not load table: '%s'", table->table_name);
  }
}

void tarn_memdb_rpc_sync_tbl(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  tarn_tbl *const table = read_table(call);
  if (table == nullptr || !send_row_count(call, table)) return;
  if (store_table(table) != 0)
    LM_ERR("Could not store table '%s' to file '%s'\n", table->table_name, table->file_name);
}
