// tarn_memdb_clear_tbl and tarn_memdb_row_count: functions on a table as a whole.
#include "host/log.h"
#include "script/params/avp.h"
#include "script/params/script_query.h"
#include "script/writes/write_bodies.h"
#include "script/writes/write_functions.h"
#include "tables/files/table_files.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr size_t DIGITS_SIZE = 16;
constexpr audit_table_text CLEARED{"        %s - (%d) Clearing table %s"};

int row_count_failed() {
  LM_ERR("Get row count failed!\n");
  return SCRIPT_FAILED;
}

}  // namespace

int tarn_memdb_clear_tbl(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  table_name_text name;
  const bool printed = print_table_name(msg, slot, name);
  if (printed) LM_DBG("Table name: %s\n", name);
  tarn_tbl *const table = printed ? find_named_table(name) : nullptr;
  if (table == nullptr) {
    LM_ERR("Clear table failed!\n");
    return SCRIPT_FAILED;
  }
  {
    const lock_scope lock(table->lock);
    clear_rows(table, CLEARED);
  }
  store_table_mngt(0, nullptr);
  return SCRIPT_OK;
}

int32_t count_table_rows(sip_msg *msg, const char *slot) {
  const host_log_scope log;
  table_name_text name;
  const tarn_tbl *const table =
      print_table_name(msg, slot, name) ? find_named_table(name) : nullptr;
  return table != nullptr ? peek_tbl_row_count(table) : row_count_failed();
}

int tarn_memdb_row_count(sip_msg *msg, char *slot, char *avp) {
  const host_log_scope log;
  const int32_t count = count_table_rows(msg, slot);
  if (count < 0) return SCRIPT_FAILED;
  char digits[DIGITS_SIZE] = "";
  snprintf(digits, sizeof(digits), "%d", count);
  return add_text_to_param(msg, avp, digits) ? SCRIPT_OK : row_count_failed();
}
