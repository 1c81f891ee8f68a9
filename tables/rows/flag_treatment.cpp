// Taking and releasing the ports that rows claim.
#include "tables/rows/flag_treatment.h"

#include <cstdlib>
#include <cstring>

#include "host/log.h"
#include "ports/port_allocation.h"
#include "tables/rows/port_claim.h"

namespace {

void take(const tarn_tbl *table, const port_claim &claim) {
  beside_port_map_lock();
  const int32_t port = claimed_port(claim);
  if (set_port(claim.map, port) == port_result::done)
    increment_port_count(claim.map, port);
  else
    LM_DBG("Port %d NOT set on load for range %s!\n", port, table->range);
}

void release(const port_claim &claim, const char *port) {
  beside_port_map_lock();
  if (free_port(claim.map, atoi(port)) != port_result::done) LM_ERR("Port %s not cleared!\n", port);
}

// The two queries are compared and not the row: an update whose selection doesn't name the port
// leaves it taken, and scripts that move a port name it.
void release_if_changed(const port_claim &claim, const query_in *in, const query_in *values) {
  const char *const old_port = in->flds[claim.col];
  const char *const new_port = values->flds[claim.col];
  if (old_port == nullptr || new_port == nullptr) return;
  if (strcmp(old_port, new_port) == 0 && *new_port != '\0') return;
  release(claim, old_port);
}

}  // namespace

void flag_treatment(const tarn_tbl *table, const query_in *in, const memdb_row *row,
                    const query_in *values, port_operation operation) {
  LM_DBG("Initializing flag_treatment ...\n");
  if (!holds_ports(*table)) return;
  port_claim claim;
  if (!find_port_claim(table, in, row, &claim)) return;
  switch (operation) {
    case port_operation::take:
      take(table, claim);
      break;
    case port_operation::release:
      release(claim, claim.text);
      break;
    case port_operation::release_on_update:
      release_if_changed(claim, in, values);
      break;
  }
}
