// mod_init, child_init, mod_destroy.
#include "script/lifecycle.h"

#include <unistd.h>

#include "counters/counters.h"
#include "host/imports.h"
#include "host/log.h"
#include "host/pv_module.h"
#include "ports/port_map.h"
#include "rpc/rpc_commands.h"
#include "script/kemi/kemi_exports.h"
#include "script/params/special_slot.h"
#include "tables/files/folder_mark.h"
#include "tables/files/table_files.h"
#include "tables/schema.h"
#include "tables/shared/shared_memory.h"
#include "tables/table_counts.h"
#include "tables/tarn_tbl.h"

namespace {

// Registry, port maps, tables with their rows, locks: all that the processes share.
bool make_shared_records() {
  if (!make_registry()) {
    LM_ERR("Could not allocate memory for tarn_tbl_mngt\n");
    return false;
  }
  // The maps come first: the load below counts the rows' ports into them.
  if (!init_port_maps()) {
    LM_ERR("Could not init port map\n");
    return false;
  }
  if (!create_tables()) {
    LM_ERR("Could not create table(s) schema from configuration file '%s'\n", cfg_file_path);
    return false;
  }
  mark_folder();
  for (tarn_tbl &table : all_tarn_tbls()) {
    alone_with(&table);
    load_table(&table);
  }
  // One process loads, so the locks come after the load.
  if (!init_locks()) {
    LM_ERR("Could not init lock\n");
    return false;
  }
  return true;
}

bool start_timer() {
  if (store_settings.automatic == 0) {
    LM_WARN("Table(s) will not be stored automatically\n");
    return true;
  }
  if (register_timer(store_table_mngt, nullptr, static_cast<unsigned>(store_settings.interval)) <
      0) {
    LM_ERR("Could not create timer for store_table_mngt\n");
    return false;
  }
  return true;
}

bool tarnmemdb_init_rpc() {
  if (rpc_register_array(tarn_memdb_rpc_cmds) == 0) return true;
  LM_ERR("failed to register RPC commands\n");
  return false;
}

}  // namespace

int mod_init() {
  const host_log_scope log;
  LM_DBG("Initializing tarn_memdb module\n");
  install_engine_hooks();
  if (!tarnmemdb_init_rpc()) {
    LM_CRIT("Failed to register RPC commands\n");
    return -1;
  }
  if (!offer_to_script_languages()) return -1;
  if (!make_shared_records() || !start_timer()) return -1;
  if (!host_import_pv()) {
    LM_ERR("Cannot import pv functions (pv module must be loaded before this module)\n");
    return -1;
  }
  // Behind all that a start can't do without, for which the memory has to do first.
  register_counters();
  LM_DBG("Initializing tarn_memdb module OK\n");
  return 0;
}

int child_init(int rank) {
  // The host's first call of this is in the main process, behind the last fix-up of the start.
  end_start();
  LM_DBG("Initializing tarn_memdb module child [%d] pid [%d]\n", rank, getpid());
  return 0;
}

void mod_destroy() {
  const host_log_scope log;
  LM_DBG("Destroy tarn_memdb module\n");
  // The host's workers end wherever a signal meets them, with a lock in their hands at times, and
  // all have ended by now. Without this such a stop would hang here and store nothing.
  recover_tables();
  force_unlock(port_map_lock);
  store_table_mngt(0, nullptr);
  unmark_folder();
  destroy_tables();
  free_table_counts();
  free_registry();
  destroy_port_maps();
  LM_DBG("Destroy tarn_memdb module OK\n");
}
