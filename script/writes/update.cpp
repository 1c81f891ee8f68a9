// tarn_memdb_update: overwrites columns of the rows that match.
#include "host/log.h"
#include "host/memory.h"
#include "query/named_params.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "script/params/script_query.h"
#include "script/writes/write_bodies.h"
#include "script/writes/write_functions.h"
#include "script/writes/write_texts.h"
#include "tables/files/storable_values.h"
#include "tables/rows/row_writes.h"

namespace {

// The log knows the selection and the new values by one failure line.
constexpr message_text<const char *> UNPARSED{"Could not parse query (%s) for update\n"};
constexpr query_texts TEXTS{UNPRINTABLE, PRINTED_SELECT, UNPARSED};

constexpr message_text<int, const char *, int> ROW_REMOVED{
    "Deleting row from update for selected index %d in table %s - cols_len: %d\n"};
constexpr update_texts UPDATED{"           %s - (%d) Updating %s,%s",
                               "           %s - (%d) Deleting from update %s,%s", &ROW_REMOVED};

bool print_values(sip_msg *msg, const char *slot, str *text) {
  *text = print_or_refuse(msg, slot, update_buf, UNPRINTABLE);
  if (text->s == nullptr) return false;
  LM_DBG("Update: %s\n", text->s);
  return true;
}

// Splits the new values, given by position or, where all are taken, by name, into one text per
// column.
bool parse_values(const script_query &query, str list, taken_values taken, query_in *values) {
  values->table = query.table;
  const conversion outcome = taken == taken_values::all
                                 ? tarn_memdb_convert_query_param_list(&list, query.table, nullptr)
                                 : conversion::positional;
  if (outcome == conversion::failed) return false;
  values->flds = tarn_memdb_create_fields(list, &query.table->tbl->col_cnt);
  if (outcome == conversion::converted) pkg_free(list.s);
  if (values->flds != nullptr) return true;
  LM_TEXT(L_ERR, UNPARSED, update_buf);
  return false;
}

}  // namespace

bool update_matching_rows(sip_msg *msg, const char *slot, const char *values_slot,
                          taken_values taken, int *result) {
  str text;
  str list;
  script_query query;
  query_scope values;
  if (!print_query(msg, slot, TEXTS, &text) || !print_values(msg, values_slot, &list) ||
      !parse_query(text, OP_SELECT, TEXTS.unparsed, &query) ||
      !parse_values(query, list, taken, &values) ||
      (taken == taken_values::storable && !are_storable(values.table, values.flds, 0)))
    return false;
  const lock_scope lock(query.table->lock);
  const int32_t selected = update_rows(query.table, &query, &values, set_given_columns, UPDATED);
  *result = selected != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
  return true;
}

int tarn_memdb_update(sip_msg *msg, char *query, char *values) {
  const host_log_scope log;
  int result;
  if (update_matching_rows(msg, query, values, taken_values::all, &result)) return result;
  LM_TEXT(L_ERR, UPDATE_FAILED);
  return SCRIPT_FAILED;
}
