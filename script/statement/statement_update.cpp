// sqll_tarn_memdb_update: UPDATE table SET pair-list WHERE pair-list [MAX=n].
#include "host/log.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"
#include "script/writes/write_texts.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr statement_texts TEXTS{.printed = "Update query: %s\n",
                                .scanned = "Parse for UPDATE OK!\n",
                                .failed = UPDATE_FAILED,
                                .fails_unprinted = false};
constexpr update_texts UPDATED{"      %s - (%d) SQLL Updating %s,%s",
                               "      %s - (%d) SQLL Deleting from update %s,%s", nullptr};

bool scan(statement *sql, pair_list *set, pair_list *where) {
  return sql->token("UPDATE") && sql->read_table() && sql->skip_word() && sql->token("SET") &&
         sql->read_pairs(set) && sql->read_where(where);
}

// Sets the columns that are given a text. An empty value leaves its column as it is, and a row in
// which nothing is set is to go: in this language '' is how a script says that a row is done with.
bool set_columns_with_text(memdb_tbl *tbl, memdb_row *row, const query_in *values) {
  bool goes = true;
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    const char *const value = values->flds[i];
    if (value == nullptr || *value == '\0') continue;
    memdb_set_field(tbl, row, i, value);
    goes = false;
  }
  return goes;
}

}  // namespace

int sqll_tarn_memdb_update(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  statement sql(TEXTS);
  pair_list set;
  pair_list where;
  if (!sql.print(msg, slot) || !scan(&sql, &set, &where)) return sql.failed();
  sql.scanned();
  tarn_tbl *const table = sql.table();
  const lock_scope lock(table->lock);
  const int32_t selected =
      update_rows(table, &where.pairs, &set.pairs, set_columns_with_text, UPDATED);
  return selected != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
}
