// Making them with the module's own code.
#include "tools/common/made_tables.h"

#include <cstdio>

#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "tables/schema.h"
#include "tables/shared/file_handle.h"
#include "tables/shared/shared_memory.h"
#include "tables/tarn_tbl.h"
#include "tools/common/host_services.h"
#include "tools/common/shared_pool.h"

bool make_module_records() {
  port_settings.private_ranges_file_path = "";
  install_engine_hooks();
  return make_next_registry() && init_port_maps();
}

bool make_next_registry() {
  tarn_tbl_mngt = static_cast<tarn_mngt *>(tarn_shm_calloc(1, sizeof(tarn_mngt)));
  return tarn_tbl_mngt != nullptr;
}

bool make_tables(const std::string &schema, std::string text, findings *out) {
  const file_handle file(fmemopen(text.data(), text.size(), "r"));
  server_memory.was_short();
  if (file && create_tables_from(file.get()) && init_locks()) return true;
  std::string reason = joined(take_messages());
  if (server_memory.was_short()) reason = "the server has too little shared memory for the tables";
  if (reason.empty()) reason = "a table can't be made with such numbers";
  out->error(schema, 0, "the start fails: " + reason);
  return false;
}
