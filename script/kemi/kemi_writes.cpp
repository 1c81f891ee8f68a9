// Writes, and what concerns a table as a whole.
#include "host/log.h"
#include "script/kemi/kemi_functions.h"
#include "script/kemi/kemi_text.h"
#include "script/params/script_query.h"
#include "script/writes/write_bodies.h"
#include "script/writes/write_functions.h"
#include "script/writes/write_texts.h"

int kemi_insert(sip_msg *msg, str *query) {
  const host_log_scope log;
  kemi_text text;
  if (!text.take(query, 1)) return SCRIPT_FAILED;
  int32_t result;
  if (insert_row(msg, text.slot(), taken_values::storable, &result)) return result;
  LM_TEXT(L_ERR, INSERT_FAILED);
  return SCRIPT_FAILED;
}

int kemi_update(sip_msg *msg, str *query, str *values) {
  const host_log_scope log;
  kemi_text text;
  kemi_text list;
  if (!text.take(query, 1) || !list.take(values, 2)) return SCRIPT_FAILED;
  int result;
  if (update_matching_rows(msg, text.slot(), list.slot(), taken_values::storable, &result))
    return result;
  LM_TEXT(L_ERR, UPDATE_FAILED);
  return SCRIPT_FAILED;
}

int kemi_delete(sip_msg *msg, str *query) {
  const host_log_scope log;
  kemi_text text;
  if (!text.take(query, 1)) return SCRIPT_FAILED;
  return tarn_memdb_delete(msg, text.slot(), nullptr);
}

int kemi_clear_tbl(sip_msg *msg, str *table) {
  const host_log_scope log;
  kemi_text name;
  if (!name.take(table, 1, TARN_NAME_SIZE)) return SCRIPT_FAILED;
  return tarn_memdb_clear_tbl(msg, name.slot(), nullptr);
}

int kemi_row_count(sip_msg *msg, str *table) {
  const host_log_scope log;
  kemi_text name;
  if (!name.take(table, 1, TARN_NAME_SIZE)) return SCRIPT_FAILED;
  int32_t count;
  if (count_table_rows(msg, name.slot(), &count)) return count;
  LM_TEXT(L_ERR, ROW_COUNT_FAILED);
  return SCRIPT_FAILED;
}
