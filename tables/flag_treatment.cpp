// Which port in which map a row stands for, and what to do with it.
#include "tables/flag_treatment.h"

#include <cstdlib>
#include <cstring>

#include "host/log.h"
#include "ports/port_allocation.h"

namespace {

constexpr int32_t LOCATION_COL = 5;
constexpr int32_t STATIC_TYPE_COL = 7;
constexpr int32_t DYNAMIC_TYPE_COL = 8;
constexpr int INTERNAL_TYPE = 6;

// The map and the column of the port that a row of the table claims.
struct port_claim {
  port_m *map;
  int32_t col;
  const char *text;
};

// The values of a row, or of a query where there is no row yet.
class row_values {
 public:
  row_values(const tarn_tbl *table, const query_in *in, const memdb_row *row)
      : tbl_(table->tbl), in_(in), row_(row) {}

  bool has(int32_t col) const { return col >= 0 && static_cast<uint32_t>(col) < tbl_->col_cnt; }

  const char *operator[](int32_t col) const {
    const auto i = static_cast<uint32_t>(col);
    return row_ != nullptr ? memdb_get_field(tbl_, row_, i) : in_->flds[i];
  }

 private:
  const memdb_tbl *tbl_;
  const query_in *in_;
  const memdb_row *row_;
};

int number_in(const char *text) { return text != nullptr ? atoi(text) : 0; }

// False if the table lacks a column that the port rules read.
bool find_claim(const tarn_tbl *table, const row_values &values, port_claim *claim) {
  const bool dynamic = strcmp(table->range, "dynamic") == 0;
  const int32_t type_col = dynamic ? DYNAMIC_TYPE_COL : STATIC_TYPE_COL;
  if (!values.has(LOCATION_COL) || !values.has(type_col)) return false;
  const char *const location = values[LOCATION_COL];
  const bool internal = (location != nullptr && strcmp(location, "WAN") == 0) ||
                        number_in(values[type_col]) == INTERNAL_TYPE;
  claim->col = internal ? table->int_port_field : table->ext_port_field;
  if (!values.has(claim->col)) return false;
  claim->text = values[claim->col];
  if (internal)
    claim->map = dynamic ? port_m_int : port_m_static_int;
  else
    claim->map = dynamic ? port_m_ext : port_m_static_ext;
  return true;
}

void take(const tarn_tbl *table, const port_claim &claim) {
  const int32_t port = claim.text != nullptr ? atoi(claim.text) : claim.map->next_free_port;
  if (set_port(claim.map, port) == 1)
    increment_port_count(claim.map, port);
  else
    LM_DBG("Port %d NOT set on load for range %s!\n", port, table->range);
}

void release(const port_claim &claim, const char *port) {
  if (free_port(claim.map, atoi(port)) != 0) LM_ERR("Port %s not cleared!\n", port);
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

void flag_treatment(tarn_tbl *table, const query_in *in, const memdb_row *row,
                    const query_in *values, int32_t, uint32_t operation) {
  LM_DBG("Initializing flag_treatment ...\n");
  if (!holds_ports(*table)) return;
  port_claim claim;
  if (!find_claim(table, row_values(table, in, row), &claim)) return;
  switch (operation) {
    case PORT_TAKE:
      take(table, claim);
      break;
    case PORT_RELEASE:
      release(claim, claim.text);
      break;
    case PORT_RELEASE_ON_UPDATE:
      release_if_changed(claim, in, values);
      break;
    default:
      break;
  }
}
