// What every select goes through: print, parse, name the XAVP, find the table, lock, look, deliver,
// and give everything back on any way out.
#pragma once

#include <span>

#include "query/query_input.h"
#include "script/params/script_query.h"
#include "script/select/row_delivery.h"
#include "tables/shared/lock.h"

// How a flavour of a select works.
struct select_flavour {
  bool locked;
  bool as_xavp;
};

// The parameters as the fix-ups left them: query format, then AVP name list or XAVP name.
struct select_params {
  char *query;
  char *target;
};

// The selects speak of an insert in their parse message; log filters go by that text.
inline constexpr query_words SELECT_WORDS{UNPRINTABLE_SELECT, "Select", "insert"};

// Members are released from the last to the first: lock, buffer, query.
struct select_run {
  select_run(sip_msg *message, const select_flavour &flavour_) : msg(message), flavour(flavour_) {}

  sip_msg *msg;
  select_flavour flavour;
  script_query query;
  row_delivery delivery;
  table_scope scope;

  const tarn_tbl *table() const { return query.table; }
  memdb_tbl *tbl() const { return query.table->tbl; }
  char **wanted() { return query.flds; }
  int32_t max_res() const { return query.max_res; }

  // Ahead of the first look at a row, until the end of the run.
  void enter_table() { scope.enter(query.table, flavour.locked); }
  bool deliver(const memdb_row *row) const { return delivery.deliver(msg, query.table, row); }

  // Delivers rows that were held, in their order, with a debug line for each. The select's result:
  // SCRIPT_OK, or SCRIPT_NO_ROW without rows, or SCRIPT_FAILED.
  int deliver_held(std::span<const memdb_row *const> rows, const char *found_line);
};

enum class select_start {
  ready,
  unread,  // the query couldn't be printed or parsed
  failed   // a later step failed
};

// The steps up to the table. Everything but ready is logged, up to the function's own last line.
select_start start_select(select_run *run, const select_params &params);

// The last line of the selects that have one; gives SCRIPT_FAILED.
int select_failed();
