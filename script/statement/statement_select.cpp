// sqll_tarn_memdb_select: SELECT field-list FROM table WHERE pair-list [MAX=n], into AVPs.
#include "host/log.h"
#include "script/select/select_run.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"

namespace {

constexpr statement_texts TEXTS{.printed = "Select query: '%s'\n",
                                .scanned = "Parse for SELECT OK!\n",
                                .failed = SELECT_FAILED,
                                .fails_unprinted = false};

bool scan(statement *sql, statement_fields *fields, pair_list *where) {
  if (!sql->token("SELECT")) return false;
  const char *const list = sql->cursor();
  return sql->skip_word() && sql->token("FROM") && sql->read_table() &&
         sql->read_fields(list, fields) && sql->read_where(where);
}

// The n-th selected field goes to the n-th AVP, as long as there are both.
int select(sip_msg *msg, const query_in &where, const statement_fields &fields,
           pvname_list_t *avps) {
  const lock_scope lock(where.table->lock);
  const avp_places places{avps, static_cast<uint32_t>(fields.count), unnamed_place::passed_over};
  const auto column_at = [&fields](uint32_t place) {
    return static_cast<uint32_t>(fields.positions[place]);
  };
  return deliver_matches(where, [&](const memdb_row *row) {
    return add_columns(msg, places, where.table->tbl, row, column_at);
  });
}

}  // namespace

int sqll_tarn_memdb_select(sip_msg *msg, char *slot, char *avps) {
  const host_log_scope log;
  statement sql(TEXTS);
  statement_fields fields;
  pair_list where;
  if (!sql.print(msg, slot) || !scan(&sql, &fields, &where)) return sql.failed();
  sql.scanned();
  const int result = select(msg, where.pairs, fields, reinterpret_cast<pvname_list_t *>(avps));
  return result == SCRIPT_FAILED ? sql.failed() : result;
}
