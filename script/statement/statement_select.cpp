// sqll_tarn_memdb_select: SELECT field-list FROM table WHERE pair-list [MAX=n], into AVPs.
#include "host/log.h"
#include "script/params/avp.h"
#include "script/select/select_run.h"
#include "script/statement/statement.h"
#include "script/statement/statement_functions.h"

namespace {

bool scan(statement *sql, statement_fields *fields, pair_list *where) {
  if (!sql->token("SELECT")) return false;
  const char *const list = sql->cursor();
  if (!sql->skip_word() || !sql->token("FROM") || !sql->read_table() ||
      !sql->read_fields(list, fields) || !sql->skip_word() || !sql->token("WHERE") ||
      !sql->read_pairs(where) || !sql->read_max(&where->in))
    return false;
  LM_DBG("Parse for SELECT OK!\n");
  return true;
}

// The n-th selected field goes to the n-th AVP, as long as there are both.
bool deliver_fields(sip_msg *msg, const memdb_tbl *tbl, const memdb_row *row,
                    const statement_fields &fields, pvname_list_t *avps) {
  pvname_list_t *place = avps;
  for (int32_t i = 0; i < fields.count && place != nullptr; i++, place = place->next) {
    avp_target target;
    if (!resolve_avp(msg, &place->sname, &target) || !is_named(target)) continue;
    const auto column = static_cast<uint32_t>(fields.positions[static_cast<size_t>(i)]);
    if (!add_text_avp(target, memdb_get_field(tbl, row, column))) return false;
  }
  return true;
}

int deliver_matches(sip_msg *msg, const query_in &in, const statement_fields &fields,
                    pvname_list_t *avps) {
  memdb_tbl *const tbl = in.table->tbl;
  memdb_cursor cursor;
  int result = SCRIPT_NO_ROW;
  const memdb_row *row = memdb_select(tbl, in.flds, &cursor);
  for (int32_t visited = 0; row != nullptr && visited < in.max_res; visited++) {
    result = SCRIPT_OK;
    if (!deliver_fields(msg, tbl, row, fields, avps)) return SCRIPT_FAILED;
    row = memdb_select_next(&cursor);
  }
  return result;
}

}  // namespace

int sqll_tarn_memdb_select(sip_msg *msg, char *slot, char *avps) {
  const host_log_scope log;
  statement sql;
  if (!sql.print(msg, slot)) return SCRIPT_FAILED;
  LM_DBG("Select query: '%s'\n", sql.text());
  statement_fields fields;
  pair_list where;
  if (!scan(&sql, &fields, &where)) return select_failed();
  int result;
  {
    const lock_scope lock(sql.table()->lock);
    result = deliver_matches(msg, where.in, fields, reinterpret_cast<pvname_list_t *>(avps));
  }
  return result == SCRIPT_FAILED ? select_failed() : result;
}
