// One column of the first row that matches.
#include "host/log.h"
#include "script/select/select_bodies.h"

namespace {

bool has_column(const tarn_tbl *table, int32_t column) {
  // Compared without a sign, so that a negative number is too great as well.
  if (static_cast<uint32_t>(column) < table->tbl->col_cnt) return true;
  LM_ERR("Table '%s' has no column %d: it has %d, from 0 on\n", table->table_name, column,
         static_cast<int>(table->tbl->col_cnt));
  return false;
}

}  // namespace

int select_text(sip_msg *msg, char *query, int32_t column, bool (*take)(std::string_view text)) {
  const host_log_scope log;
  select_run run(msg);
  if (!start_select_or_fail(&run, {query, nullptr}, delivery_target::avps) ||
      !has_column(run.table(), column))
    return SCRIPT_FAILED;
  const table_scope scope(run.table(), table_access::locked);
  memdb_cursor cursor;
  const memdb_row *const row = memdb_select(run.tbl(), run.query.flds, &cursor);
  if (row == nullptr) return SCRIPT_NO_ROW;
  const auto place = static_cast<uint32_t>(column);
  return take(memdb_get_field(run.tbl(), row, place)) ? SCRIPT_OK : SCRIPT_FAILED;
}
