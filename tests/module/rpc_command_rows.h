// The RPC commands as operators know them, in the order of the exported table.
#pragma once

namespace module_test {

struct rpc_command_row {
  const char *name;
  const char *documentation;
};

inline constexpr rpc_command_row RPC_COMMANDS[] = {
    {"tarn_memdb.insert", "Insert"},
    {"tarn_memdb.delete", "Delete"},
    {"tarn_memdb.select", "Select"},
    {"tarn_memdb.nl_select", "Select"},
    {"tarn_memdb.show", "Show table name"},
    {"tarn_memdb.show_p", "tarn_memdb_rpc_show_tbl_p_doc"},
    {"tarn_memdb.clear_all", "tarn_memdb_rpc_clear_all"},
    {"tarn_memdb.clear_tbl", "tarn_memdb_rpc_clear_tbl_doc"},
    {"tarn_memdb.update", "tarn_memdb_rpc_update_doc"},
    {"tarn_memdb.show_tbl_info", "tarn_memdb_rpc_show_tbl_info_doc"},
    {"tarn_memdb.show_tbls_lst", "tarn_memdb_rpc_show_tbls_lst_doc"},
    {"tarn_memdb.show_cmds", "tarn_memdb_rpc_show_cmds_doc"},
    {"tarn_memdb.show_pm_info", "tarn_memdb_rpc_show_pm_info_doc"},
    {"tarn_memdb.reload_table", "tarn_memdb_rpc_reload_table_doc"},
    {"tarn_memdb.sync", "Sync table name"},
};

}  // namespace module_test
