// tarn_memdb_clear_tbl and tarn_memdb_row_count: functions on a table as a whole.
#include "host/log.h"
#include "script/params/avp.h"
#include "script/params/script_query.h"
#include "script/writes/write_bodies.h"
#include "script/writes/write_functions.h"
#include "script/writes/write_texts.h"
#include "tables/files/table_files.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr size_t DIGITS_SIZE = 16;
constexpr audit_table_text CLEARED{"        %s - (%d) Clearing table %s"};

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

bool count_table_rows(sip_msg *msg, const char *slot, int32_t *count) {
  table_name_text name;
  const tarn_tbl *const table =
      print_table_name(msg, slot, name) ? find_named_table(name) : nullptr;
  if (table == nullptr) return false;
  *count = peek_tbl_row_count(table);
  return true;
}

int tarn_memdb_row_count(sip_msg *msg, char *slot, char *avp) {
  const host_log_scope log;
  int32_t count;
  if (count_table_rows(msg, slot, &count)) {
    char digits[DIGITS_SIZE] = "";
    snprintf(digits, sizeof(digits), "%d", count);
    if (add_text_to_param(msg, avp, digits)) return SCRIPT_OK;
  }
  LM_TEXT(L_ERR, ROW_COUNT_FAILED);
  return SCRIPT_FAILED;
}
