// The shared beginning and end of the selects.
#include "script/select/select_run.h"

#include "host/log.h"

int select_run::deliver_held(std::span<const memdb_row *const> rows, const char *found_line) {
  if (!delivery.prepare(query.table)) return SCRIPT_FAILED;
  for (const memdb_row *const row : rows) {
    LM_DBG("%s", found_line);
    if (!deliver(row)) return SCRIPT_FAILED;
  }
  return rows.empty() ? SCRIPT_NO_ROW : SCRIPT_OK;
}

select_start start_select(select_run *run, const select_params &params) {
  str text;
  if (!print_query(run->msg, params.query, SELECT_WORDS, &text) ||
      !parse_query(text, OP_SELECT, SELECT_WORDS, &run->query))
    return select_start::unread;
  if (!run->flavour.as_xavp)
    run->delivery.to_avps(reinterpret_cast<pvname_list_t *>(params.target));
  else if (!run->delivery.to_xavps(run->msg, reinterpret_cast<fparam_t *>(params.target)))
    return select_start::failed;
  return select_start::ready;
}

int select_failed() {
  LM_ERR("SELECT failed!\n");
  return SCRIPT_FAILED;
}
