// sqll_tarn_memdb_insert: INSERT INTO table field-list VALUES value-list.
#include "host/log.h"
#include "query/statement_scanner.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"
#include "script/writes/write_texts.h"
#include "tables/rows/audit.h"
#include "tables/rows/row_admission.h"

namespace {

constexpr statement_texts TEXTS{.printed = "Insert query: '%s'\n",
                                .scanned = "Parse for INSERT OK!\n",
                                .failed = INSERT_FAILED,
                                .fails_unprinted = true};
constexpr audit_row_text INSERTED{"      %s - (%d) SQLL Inserting %s,%s"};

bool scan(statement *sql, query_in *in) {
  statement_fields fields;
  if (!sql->token("INSERT") || !sql->token("INTO") || !sql->read_table() || !sql->skip_word() ||
      !sql->read_fields(sql->cursor(), &fields) || !sql->skip_blanks() || !sql->skip_word() ||
      !sql->token("VALUES"))
    return false;
  in->table = sql->table();
  in->flds = generate_value_list(sql->cursor(), sql->table(), fields.positions.get(), fields.count);
  return in->flds != nullptr;
}

// False, logged, if the row isn't let in.
bool insert(tarn_tbl *table, query_in *in, int32_t *result) {
  const lock_scope lock(table->lock);
  const admission_rules rules{table->duplicated_data_check != 0, index_text::in_place};
  const admission outcome = admit_row(table, in, rules, result);
  if (outcome != admission::added) {
    log_refusal(outcome, table, INSERT_REFUSED, L_WARN);
    return false;
  }
  audit_values(table, INSERTED, in->flds[0]);
  return true;
}

}  // namespace

int sqll_tarn_memdb_insert(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  statement sql(TEXTS);
  query_scope in;
  int32_t result;
  if (!sql.print(msg, slot) || !scan(&sql, &in)) return sql.failed();
  sql.scanned();
  return insert(sql.table(), &in, &result) ? result : sql.failed();
}
