// Delivery into AVPs and XAVPs.
#include "script/select/row_delivery.h"

#include <algorithm>

#include "host/imports.h"
#include "host/pv_module.h"
#include "query/text/text_writer.h"

namespace {

// Around every value of an XAVP text: the separator, the equals sign and two quotes.
constexpr size_t ITEM_MARKS = 4;

// Room for the texts of a row of usual size, and in any case for the longest row of the table.
size_t explode_size_of(const tarn_tbl *table) {
  const size_t columns = table->tbl->col_cnt;
  const size_t usual = 34 * columns + 4096;
  const size_t longest = columns * (TARN_NAME_SIZE + ITEM_MARKS) + table->tbl->row_len + 1;
  return std::max(usual, longest);
}

}  // namespace

bool row_delivery::open(sip_msg *msg, delivery_target target, char *slot) {
  target_ = target;
  if (target == delivery_target::avps) {
    avps_ = reinterpret_cast<pvname_list_t *>(slot);
    return true;
  }
  auto *const name = reinterpret_cast<fparam_t *>(slot);
  if (get_str_fparam(&xavp_name_, msg, name) != 0 || xavp_name_.s == nullptr) {
    LM_ERR("cannot get the xavp name\n");
    return false;
  }
  LM_DBG("Select xavp: [%.*s]\n", xavp_name_.len, xavp_name_.s);
  return true;
}

bool row_delivery::prepare(const tarn_tbl *table) {
  if (target_ == delivery_target::avps) return true;
  explode_size_ = explode_size_of(table);
  explode_buf_.reset(pkg_array<char>(explode_size_));
  if (explode_buf_) return true;
  LM_ERR("Could not allocate xavp memory for tarn_memdb_select_cmn\n");
  return false;
}

bool row_delivery::deliver(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const {
  if (target_ == delivery_target::xavp) return deliver_xavp(msg, table, row);
  return add_columns(msg, {avps_, table->tbl->col_cnt, unnamed_place::passed_over}, table->tbl, row,
                     [](uint32_t place) { return place; });
}

bool row_delivery::deliver_xavp(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const {
  text_writer out({explode_buf_.get(), explode_size_});
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++) {
    if (i > 0) out.append(';');
    out.append(column_name(table, i)).append("='");
    out.append(memdb_get_field(table->tbl, row, i)).append('\'');
  }
  LM_DBG("params to explode: %s\n", explode_buf_.get());
  const str params{explode_buf_.get(), static_cast<int>(out.text().size())};
  return host_explode_xavp(msg, params, xavp_name_) >= 0;
}
