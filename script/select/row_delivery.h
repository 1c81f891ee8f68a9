// Handing selected rows to the script: column by column into AVPs, or as one XAVP each.
#pragma once

#include "host/log.h"
#include "host/memory.h"
#include "memdb/visit.h"
#include "script/params/avp.h"
#include "script/params/script_query.h"

enum class delivery_target { avps, xavp };

// A place of a name list whose name can't be told is passed over, by some selects with a line.
enum class unnamed_place { passed_over, told };

// The first places of a name list, at most count.
struct avp_places {
  pvname_list_t *first;
  uint32_t count;
  unnamed_place unnamed;
};

// Adds to the AVP of the n-th place, from 0, the text of the row's column_at(n). An empty place
// takes nothing. False, logged, if the host refuses a value; what was added before stays.
template <typename ColumnAt>
bool add_columns(sip_msg *msg, const avp_places &places, const memdb_tbl *tbl, const memdb_row *row,
                 ColumnAt column_at) {
  pvname_list_t *place = places.first;
  for (uint32_t i = 0; i < places.count && place != nullptr; i++, place = place->next) {
    avp_target target;
    if (!resolve_avp(msg, &place->sname, &target) || !is_named(target)) {
      if (places.unnamed == unnamed_place::told) LM_TEXT(L_DBG, NO_AVP_NAME);
      continue;
    }
    if (!add_text_avp(target, memdb_get_field(tbl, row, column_at(i)))) return false;
  }
  return true;
}

// Delivers the rows that match in by deliver(row), at most max_res, up to one that it refuses.
// SCRIPT_OK, or SCRIPT_NO_ROW without a row, or SCRIPT_FAILED.
template <typename Deliver>
int deliver_matches(const query_in &in, Deliver deliver) {
  int result = SCRIPT_NO_ROW;
  memdb_visit(in.table->tbl, in.flds, in.max_res, [&](const memdb_row *row, int32_t) {
    result = deliver(row) ? SCRIPT_OK : SCRIPT_FAILED;
    return result == SCRIPT_OK;
  });
  return result;
}

class row_delivery {
 public:
  // slot is what the fix-up left: an AVP name list, whose n-th name takes the n-th column, or the
  // name of the XAVPs, which is asked for the message. False, logged, if there is no such name.
  bool open(sip_msg *msg, delivery_target target, char *slot);

  // Makes the buffer in which XAVPs of this table's rows are composed; nothing for AVPs. False,
  // logged, if memory is short.
  bool prepare(const tarn_tbl *table);

  // Delivers one row, which stays the table's. False if the host refuses a value; what was
  // delivered before stays.
  bool deliver(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const;

 private:
  bool deliver_xavp(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const;

  delivery_target target_ = delivery_target::avps;
  pvname_list_t *avps_ = nullptr;
  str xavp_name_{nullptr, 0};
  pkg_owner<char> explode_buf_;
  size_t explode_size_ = 0;
};
