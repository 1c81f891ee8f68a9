// Settings of tables, names of tables and commands, port maps.
#include "rpc/rpc_show_info.h"

#include <cstdio>
#include <type_traits>

#include "host/log.h"
#include "ports/port_map.h"
#include "query/text/buffers.h"
#include "rpc/rpc_call.h"
#include "rpc/rpc_commands.h"

namespace {

// Sends a line whose text the kind of a port map has settled.
template <typename... Values>
bool send_text(const rpc_call &call, const message_text<Values...> &text,
               std::type_identity_t<Values>... values) {
  snprintf(query_buf, sizeof(query_buf), text.format, values...);
  return send_query_buf(call);
}

constexpr message_text<const char *> INFO_UNKNOWN{"RPC Show info: wrong table name: '%s'"};
constexpr table_argument INFO_ARGUMENT{
    {"RPC Show info: wrong number of parameters\n", WRONG_NUMBER},
    &INFO_UNKNOWN,
    name_form::first_word};

bool send_port_settings(const rpc_call &call, const tarn_tbl &table) {
  return send_line(call, "Port range: %s", table.range) &&
         send_line(call, "Internal port field: %d", table.int_port_field) &&
         send_line(call, "External port field: %d", table.ext_port_field);
}

// The first line that can't be sent ends the list.
bool send_table_info(const rpc_call &call, const tarn_tbl &table) NEEDS_LOCK(table.lock) {
  return send_name_and_count(call, &table) && send_line(call, "Max rows: %d", table.max_rows) &&
         send_line(call, "Number of columns: %d", table.num_fields) &&
         send_line(call, "State: %d", table.state) &&
         send_line(call, "Use index: %d", table.use_index) &&
         (table.use_index == 0 ||
          send_line(call, "Next index: %d", static_cast<int>(table.next_index))) &&
         (!holds_ports(table) || send_port_settings(call, table)) &&
         send_line(call, "Log tag: %s", table.log_tag) &&
         send_line(call, "Check for duplicated data: %d", table.duplicated_data_check) &&
         send_line(call, "File name: %s", table.file_name);
}

bool send_range(const rpc_call &call, const private_range_ports &range) {
  const int32_t *const p = range.port;
  return send_line(call, "%d %d %d %d %d %d %d %d %d %d\n", p[0], p[1], p[2], p[3], p[4], p[5],
                   p[6], p[7], p[8], p[9]);
}

bool send_map(const rpc_call &call, const port_map_kind &kind) NEEDS_LOCK(port_map_lock) {
  const port_m *const m = *kind.map;
  if (m == nullptr) return true;
  if (!send_text(call, kind.info, m->min_port, m->max_port, m->next_free_port,
                 m->private_range != nullptr ? "Yes" : "No"))
    return false;
  if (m->private_range == nullptr) return true;
  if (!send_line(call, "Listing %d Private Range(s):\n", m->private_range_count)) return false;
  for (const private_range_ports *range : private_ranges(m))
    if (range != nullptr && !send_range(call, *range)) return false;
  return true;
}

bool send_maps(const rpc_call &call) NEEDS_LOCK(port_map_lock) {
  if (!send_line(call, "PM Info")) return false;
  for (const port_map_kind &kind : port_map_kinds)
    if (!send_map(call, kind)) return false;
  return true;
}

}  // namespace

void tarn_memdb_rpc_show_tbl_info(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  const tarn_tbl *const table = read_table(call, INFO_ARGUMENT);
  if (table == nullptr) return;
  const lock_scope lock(table->lock);
  send_table_info(call, *table);
}

void tarn_memdb_rpc_show_tbls_lst(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  const std::span<tarn_tbl> tables = all_tarn_tbls();
  if (!send_line(call, "DB has %d tables defined:", static_cast<int>(tables.size()))) return;
  for (const tarn_tbl &table : tables)
    if (!send_line(call, "%s", table.table_name)) return;
}

void tarn_memdb_rpc_show_cmds(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  if (!send_line(call, "Available CLI commands:")) return;
  for (const rpc_export_t *command = tarn_memdb_rpc_cmds; command->name != nullptr; command++)
    if (!send_line(call, "%s", command->name)) return;
}

void tarn_memdb_rpc_show_pm_info(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const lock_scope lock(port_map_lock);
  if (!send_maps({rpc, ctx})) LM_ERR("Error to allocate port map");
}
