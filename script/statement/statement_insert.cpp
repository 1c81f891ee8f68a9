// sqll_tarn_memdb_insert: INSERT INTO table field-list VALUES value-list.
#include "host/log.h"
#include "query/statement_scanner.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"
#include "script/writes/insert_refusal.h"
#include "tables/rows/audit.h"
#include "tables/rows/row_admission.h"

namespace {

bool scan(statement *sql, query_in *in) {
  statement_fields fields;
  if (!sql->token("INSERT") || !sql->token("INTO") || !sql->read_table() || !sql->skip_word() ||
      !sql->read_fields(sql->cursor(), &fields) || !sql->skip_blanks() || !sql->skip_word() ||
      !sql->token("VALUES"))
    return false;
  in->table = sql->table();
  in->flds = generate_value_list(sql->cursor(), sql->table(), fields.positions.get(), fields.count);
  if (in->flds == nullptr) return false;
  LM_DBG("Parse for INSERT OK!\n");
  return true;
}

bool insert(sip_msg *msg, const char *slot, int32_t *result) {
  statement sql;
  if (!sql.print(msg, slot)) return false;
  LM_DBG("Insert query: '%s'\n", sql.text());
  query_scope in;
  if (!scan(&sql, &in)) return false;

  tarn_tbl *const table = sql.table();
  const lock_scope lock(table->lock);
  const admission_rules rules{table->duplicated_data_check != 0, insert_index_no_alloc};
  const admission outcome = admit_row(table, &in, rules, result);
  if (outcome != admission::added) {
    log_refusal(outcome, table, L_WARN);
    return false;
  }
  audit_statement_insert(table, in.flds[0]);
  return true;
}

}  // namespace

int sqll_tarn_memdb_insert(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  int32_t result;
  if (insert(msg, slot, &result)) return result;
  LM_ERR("INSERT failed!\n");
  return SCRIPT_FAILED;
}
