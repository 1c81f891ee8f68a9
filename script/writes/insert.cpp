// tarn_memdb_insert: adds a row.
#include "host/log.h"
#include "script/params/script_query.h"
#include "script/writes/write_bodies.h"
#include "script/writes/write_functions.h"
#include "script/writes/write_texts.h"
#include "tables/files/storable_values.h"
#include "tables/rows/audit.h"
#include "tables/rows/row_admission.h"

namespace {

constexpr query_texts TEXTS{UNPRINTABLE, "Insert: %s\n", UNPARSED_INSERT};
constexpr audit_query_text INSERTED{"           %s - (%d) Inserting %.*s"};

// Of an index that the table draws itself, the query's text is dropped.
bool is_storable_row(const query_in &in) {
  return are_storable(in.table, in.flds, in.table->use_index != 0 ? 1 : 0);
}

}  // namespace

bool insert_row(sip_msg *msg, const char *slot, taken_values taken, int32_t *result) {
  str text;
  script_query query;
  if (!print_query(msg, slot, TEXTS, &text) ||
      !parse_query(text, OP_INSERT, TEXTS.unparsed, &query) ||
      (taken == taken_values::storable && !is_storable_row(query)))
    return false;

  tarn_tbl *const table = query.table;
  {
    const lock_scope lock(table->lock);
    const admission_rules rules{table->duplicated_data_check != 0, index_text::own_block};
    const admission outcome = admit_row(table, &query, rules, result);
    if (outcome != admission::added) {
      log_refusal(outcome, table, INSERT_REFUSED, L_ERR);
      return false;
    }
  }
  audit_insert(table, INSERTED, text);
  return true;
}

int tarn_memdb_insert(sip_msg *msg, char *query, char *) {
  const host_log_scope log;
  int32_t result;
  if (insert_row(msg, query, taken_values::all, &result)) return result;
  LM_TEXT(L_ERR, INSERT_FAILED);
  return SCRIPT_FAILED;
}
