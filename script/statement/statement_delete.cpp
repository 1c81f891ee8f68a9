// sqll_tarn_memdb_delete: DELETE FROM table WHERE pair-list [MAX=n].
#include "host/log.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"
#include "script/writes/write_texts.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr statement_texts TEXTS{.printed = "Delete query: '%s'\n",
                                .scanned = "Parse for DELETE OK!\n",
                                .failed = DELETE_FAILED,
                                .fails_unprinted = true};
constexpr audit_row_text DELETED{"      %s - (%d) SQLL Deleting %s,%s"};

bool scan(statement *sql, pair_list *where) {
  return sql->token("DELETE") && sql->token("FROM") && sql->read_table() && sql->read_where(where);
}

}  // namespace

int sqll_tarn_memdb_delete(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  statement sql(TEXTS);
  pair_list where;
  if (!sql.print(msg, slot) || !scan(&sql, &where)) return sql.failed();
  sql.scanned();
  tarn_tbl *const table = sql.table();
  const lock_scope lock(table->lock);
  return delete_rows(table, &where.pairs, DELETED) != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
}
