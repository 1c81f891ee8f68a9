// Handing selected rows to the script: column by column into AVPs, or as one XAVP each.
#pragma once

#include "host/abi.h"
#include "host/memory.h"
#include "memdb/memdb.h"
#include "tables/tarn_tbl.h"

class row_delivery {
 public:
  // Rows go into the AVPs of names, the n-th name taking the n-th column. The list is the script's.
  void to_avps(pvname_list_t *names) { avps_ = names; }

  // Rows become XAVPs of the name that the parameter gives for the message. False, logged, if it
  // gives none.
  bool to_xavps(sip_msg *msg, fparam_t *name);

  // Makes the buffer in which XAVPs of this table's rows are composed; nothing for AVPs. False,
  // logged, if memory is short.
  bool prepare(const tarn_tbl *table);

  // Delivers one row, which stays the table's. False if the host refuses a value; what was
  // delivered before stays.
  bool deliver(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const {
    return xavp_name_.s != nullptr ? deliver_xavp(msg, table, row) : deliver_avps(msg, table, row);
  }

 private:
  bool deliver_avps(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const;
  bool deliver_xavp(sip_msg *msg, const tarn_tbl *table, const memdb_row *row) const;

  pvname_list_t *avps_ = nullptr;
  str xavp_name_{nullptr, 0};
  pkg_owner<char> explode_buf_;
  size_t explode_size_ = 0;
};
