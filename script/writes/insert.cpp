// tarn_memdb_insert: adds a row.
#include "host/log.h"
#include "script/params/script_query.h"
#include "script/writes/insert_refusal.h"
#include "script/writes/write_functions.h"
#include "tables/rows/audit.h"
#include "tables/rows/row_admission.h"

namespace {

constexpr query_words WORDS{UNPRINTABLE, "Insert", "insert"};

bool insert(sip_msg *msg, const char *slot, int32_t *result) {
  str text;
  script_query query;
  if (!print_query(msg, slot, WORDS, &text) || !parse_query(text, OP_INSERT, WORDS, &query))
    return false;

  tarn_tbl *const table = query.table;
  {
    const lock_scope lock(table->lock);
    const admission_rules rules{table->duplicated_data_check != 0, insert_index};
    const admission outcome = admit_row(table, &query, rules, result);
    if (outcome != admission::added) {
      log_refusal(outcome, table, L_ERR);
      return false;
    }
  }
  audit_insert(table, FROM_SCRIPT, text);
  return true;
}

}  // namespace

int tarn_memdb_insert(sip_msg *msg, char *query, char *) {
  const host_log_scope log;
  int32_t result;
  if (insert(msg, query, &result)) return result;
  LM_ERR("INSERT failed!\n");
  return SCRIPT_FAILED;
}
