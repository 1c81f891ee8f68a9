// The rules by which a row's columns tell its port.
#include "tables/rows/port_claim.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t LOCATION_COL = 5;
constexpr int32_t STATIC_TYPE_COL = 7;
constexpr int32_t DYNAMIC_TYPE_COL = 8;
constexpr int INTERNAL_TYPE = 6;

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

bool is_dynamic(const tarn_tbl &table) { return strcmp(table.range, "dynamic") == 0; }

}  // namespace

port_columns port_columns_of(const tarn_tbl &table) {
  return {LOCATION_COL, is_dynamic(table) ? DYNAMIC_TYPE_COL : STATIC_TYPE_COL,
          table.int_port_field, table.ext_port_field};
}

port_m *claimed_map(const tarn_tbl &table, bool internal) {
  if (internal) return is_dynamic(table) ? port_m_int : port_m_static_int;
  return is_dynamic(table) ? port_m_ext : port_m_static_ext;
}

bool find_port_claim(const tarn_tbl *table, const query_in *in, const memdb_row *row,
                     port_claim *claim) {
  const row_values values(table, in, row);
  const port_columns cols = port_columns_of(*table);
  if (!values.has(cols.location) || !values.has(cols.type)) return false;
  const char *const location = values[cols.location];
  const bool internal = (location != nullptr && strcmp(location, INTERNAL_LOCATION) == 0) ||
                        number_in(values[cols.type]) == INTERNAL_TYPE;
  claim->col = internal ? cols.int_port : cols.ext_port;
  if (!values.has(claim->col)) return false;
  claim->text = values[claim->col];
  claim->map = claimed_map(*table, internal);
  return true;
}

int32_t claimed_port(const port_claim &claim) {
  return claim.text != nullptr ? atoi(claim.text) : claim.map->next_free_port;
}
