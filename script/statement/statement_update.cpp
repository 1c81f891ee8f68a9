// sqll_tarn_memdb_update: UPDATE table SET pair-list WHERE pair-list [MAX=n].
#include "host/log.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr update_source FROM_STATEMENT_UPDATE{FROM_STATEMENT, nullptr};

bool scan(statement *sql, pair_list *set, pair_list *where) {
  if (!sql->token("UPDATE") || !sql->read_table() || !sql->skip_word() || !sql->token("SET") ||
      !sql->read_pairs(set) || !sql->skip_word() || !sql->token("WHERE") ||
      !sql->read_pairs(where) || !sql->read_max(&where->in))
    return false;
  LM_DBG("Parse for UPDATE OK!\n");
  return true;
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
  statement sql;
  if (!sql.print(msg, slot)) return SCRIPT_FAILED;
  LM_DBG("Update query: %s\n", sql.text());
  pair_list set;
  pair_list where;
  if (!scan(&sql, &set, &where)) {
    LM_ERR("UPDATE failed!\n");
    return SCRIPT_FAILED;
  }
  const lock_scope lock(sql.table()->lock);
  const int32_t selected =
      update_rows(sql.table(), &where.in, &set.in, set_columns_with_text, FROM_STATEMENT_UPDATE);
  return selected != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
}
