// sqll_tarn_memdb_delete: DELETE FROM table WHERE pair-list [MAX=n].
#include "host/log.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"
#include "tables/rows/row_writes.h"

namespace {

bool scan(statement *sql, pair_list *where) {
  if (!sql->token("DELETE") || !sql->token("FROM") || !sql->read_table() || !sql->skip_word() ||
      !sql->token("WHERE") || !sql->read_pairs(where) || !sql->read_max(&where->in))
    return false;
  LM_DBG("Parse for DELETE OK!\n");
  return true;
}

bool print_and_scan(sip_msg *msg, const char *slot, statement *sql, pair_list *where) {
  if (!sql->print(msg, slot)) return false;
  LM_DBG("Delete query: '%s'\n", sql->text());
  return scan(sql, where);
}

}  // namespace

int sqll_tarn_memdb_delete(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  statement sql;
  pair_list where;
  if (!print_and_scan(msg, slot, &sql, &where)) {
    LM_ERR("DELETE failed!\n");
    return SCRIPT_FAILED;
  }
  const lock_scope lock(sql.table()->lock);
  return delete_rows(sql.table(), &where.in, FROM_STATEMENT) != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
}
