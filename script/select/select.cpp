// The exact select: rows equal to every field that the query gives.
#include "host/log.h"
#include "script/select/select_functions.h"
#include "script/select/select_run.h"

namespace {

bool deliver_matches(select_run *run, bool *found) {
  memdb_cursor cursor;
  const memdb_row *row = memdb_select(run->tbl(), run->wanted(), &cursor);
  for (int32_t visited = 0; row != nullptr && visited < run->max_res(); visited++) {
    *found = true;
    if (!run->deliver(row)) return false;
    row = memdb_select_next(&cursor);
  }
  return true;
}

int select(sip_msg *msg, const select_params &params, const select_flavour &flavour) {
  select_run run(msg, flavour);
  if (start_select(&run, params) != select_start::ready) return SCRIPT_FAILED;
  // Read without the lock: a table that is empty now would have been empty to a call just before.
  if (run.table()->row_count == 0) return SCRIPT_NO_ROW;
  // Here, unlike in the other selects, a lack of memory looks like an empty result.
  if (!run.delivery.prepare(run.table())) return SCRIPT_NO_ROW;
  run.enter_table();
  bool found = false;
  if (!deliver_matches(&run, &found)) return SCRIPT_FAILED;
  return found ? SCRIPT_OK : SCRIPT_NO_ROW;
}

// The last line of a failure is written when the lock has been given back.
int tarn_memdb_select_cmn(sip_msg *msg, const select_params &params,
                          const select_flavour &flavour) {
  const host_log_scope log;
  const int result = select(msg, params, flavour);
  return result == SCRIPT_FAILED ? select_failed() : result;
}

}  // namespace

int tarn_memdb_select(sip_msg *msg, char *query, char *avps) {
  return tarn_memdb_select_cmn(msg, {query, avps}, {.locked = true, .as_xavp = false});
}

int tarn_memdb_nl_select(sip_msg *msg, char *query, char *avps) {
  return tarn_memdb_select_cmn(msg, {query, avps}, {.locked = false, .as_xavp = false});
}

int tarn_memdb_xavp_select(sip_msg *msg, char *query, char *xavp) {
  return tarn_memdb_select_cmn(msg, {query, xavp}, {.locked = true, .as_xavp = true});
}

int tarn_memdb_nl_xavp_select(sip_msg *msg, char *query, char *xavp) {
  return tarn_memdb_select_cmn(msg, {query, xavp}, {.locked = false, .as_xavp = true});
}
