// What an operator can call, in the order in which it is listed.
#include "rpc/rpc_commands.h"

#include "rpc/rpc_data.h"
#include "rpc/rpc_maintain.h"
#include "rpc/rpc_show_info.h"
#include "rpc/rpc_show_table.h"

namespace {

// Several of these texts are placeholders that clients match.
const char *insert_doc[] = {"Insert", nullptr};
const char *delete_doc[] = {"Delete", nullptr};
const char *select_doc[] = {"Select", nullptr};
const char *show_doc[] = {"Show table name", nullptr};
const char *show_p_doc[] = {"tarn_memdb_rpc_show_tbl_p_doc", nullptr};
const char *clear_all_doc[] = {"tarn_memdb_rpc_clear_all", nullptr};
const char *clear_tbl_doc[] = {"tarn_memdb_rpc_clear_tbl_doc", nullptr};
const char *update_doc[] = {"tarn_memdb_rpc_update_doc", nullptr};
const char *show_tbl_info_doc[] = {"tarn_memdb_rpc_show_tbl_info_doc", nullptr};
const char *show_tbls_lst_doc[] = {"tarn_memdb_rpc_show_tbls_lst_doc", nullptr};
const char *show_cmds_doc[] = {"tarn_memdb_rpc_show_cmds_doc", nullptr};
const char *show_pm_info_doc[] = {"tarn_memdb_rpc_show_pm_info_doc", nullptr};
const char *reload_table_doc[] = {"tarn_memdb_rpc_reload_table_doc", nullptr};
const char *sync_doc[] = {"Sync table name", nullptr};

// Of commands whose reply has several lines. Clients of JSON and XML get the last one alone without
// the flag, and all in an array with it: who builds the module chooses.
#ifdef TARN_JSON_ARRAYS
constexpr unsigned int LISTS = RPC_RET_ARRAY;
#else
constexpr unsigned int LISTS = 0;
#endif

}  // namespace

// clang-format off
rpc_export_t tarn_memdb_rpc_cmds[] = {
    {"tarn_memdb.insert",        tarn_memdb_rpc_insert,        insert_doc,        0},
    {"tarn_memdb.delete",        tarn_memdb_rpc_delete,        delete_doc,        0},
    {"tarn_memdb.select",        tarn_memdb_rpc_select,        select_doc,        LISTS},
    {"tarn_memdb.nl_select",     tarn_memdb_rpc_nl_select,     select_doc,        LISTS},
    {"tarn_memdb.show",          tarn_memdb_rpc_show_tbl,      show_doc,          LISTS},
    {"tarn_memdb.show_p",        tarn_memdb_rpc_show_tbl_p,    show_p_doc,        LISTS},
    {"tarn_memdb.clear_all",     tarn_memdb_rpc_clear_all,     clear_all_doc,     0},
    {"tarn_memdb.clear_tbl",     tarn_memdb_rpc_clear_tbl,     clear_tbl_doc,     0},
    {"tarn_memdb.update",        tarn_memdb_rpc_update,        update_doc,        0},
    {"tarn_memdb.show_tbl_info", tarn_memdb_rpc_show_tbl_info, show_tbl_info_doc, LISTS},
    {"tarn_memdb.show_tbls_lst", tarn_memdb_rpc_show_tbls_lst, show_tbls_lst_doc, LISTS},
    {"tarn_memdb.show_cmds",     tarn_memdb_rpc_show_cmds,     show_cmds_doc,     LISTS},
    {"tarn_memdb.show_pm_info",  tarn_memdb_rpc_show_pm_info,  show_pm_info_doc,  LISTS},
    {"tarn_memdb.reload_table",  tarn_memdb_rpc_reload_table,  reload_table_doc,  0},
    {"tarn_memdb.sync",          tarn_memdb_rpc_sync_tbl,      sync_doc,          LISTS},
    {},
};
// clang-format on
