// The exact select: rows equal to every field that the query gives.
#include "host/log.h"
#include "script/select/select_bodies.h"
#include "script/select/select_functions.h"

int select_rows(sip_msg *msg, const select_params &params, const select_flavour &flavour) {
  const host_log_scope log;
  select_run run(msg);
  if (start_select(&run, params, flavour.target) != select_start::ready) return select_failed();
  // Read without the lock: a table that is empty now would have been empty to a call just before.
  if (peek_tbl_row_count(run.table()) == 0) return SCRIPT_NO_ROW;
  // Here, unlike in the other selects, a lack of memory looks like an empty result.
  if (!run.delivery.prepare(run.table())) return SCRIPT_NO_ROW;
  int result;
  {
    const table_scope scope(run.table(), flavour.access);
    result = deliver_matches(run.query, [&run](const memdb_row *row) { return run.deliver(row); });
  }
  // The last line of a failure keeps no other worker from the table.
  return result == SCRIPT_FAILED ? select_failed() : result;
}

int tarn_memdb_select(sip_msg *msg, char *query, char *avps) {
  return select_rows(msg, {query, avps}, LOCKED_AVPS);
}

int tarn_memdb_nl_select(sip_msg *msg, char *query, char *avps) {
  return select_rows(msg, {query, avps}, UNLOCKED_AVPS);
}

int tarn_memdb_xavp_select(sip_msg *msg, char *query, char *xavp) {
  return select_rows(msg, {query, xavp}, LOCKED_XAVP);
}

int tarn_memdb_nl_xavp_select(sip_msg *msg, char *query, char *xavp) {
  return select_rows(msg, {query, xavp}, UNLOCKED_XAVP);
}
