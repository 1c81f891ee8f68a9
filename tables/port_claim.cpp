// The rules by which a row's columns tell its port.
#include "tables/port_claim.h"

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

}  // namespace

bool find_port_claim(const tarn_tbl *table, const query_in *in, const memdb_row *row,
                     port_claim *claim) {
  const row_values values(table, in, row);
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
