// What every select goes through: print, parse, name the XAVP, enter the table, look, deliver, and
// give everything back on any way out. Entering is a table_scope beside the run, so that the table
// is left before buffer and query are given back.
#pragma once

#include <span>

#include "script/params/script_query.h"
#include "script/select/row_delivery.h"
#include "tables/table_scope.h"

// How a flavour of a select works.
struct select_flavour {
  table_access access;
  delivery_target target;
};

inline constexpr select_flavour LOCKED_AVPS{table_access::locked, delivery_target::avps};
inline constexpr select_flavour LOCKED_XAVP{table_access::locked, delivery_target::xavp};
inline constexpr select_flavour UNLOCKED_AVPS{table_access::unlocked, delivery_target::avps};
inline constexpr select_flavour UNLOCKED_XAVP{table_access::unlocked, delivery_target::xavp};

// The parameters as the fix-ups left them: query format, then AVP name list or XAVP name.
struct select_params {
  char *query;
  char *target;
};

struct select_run {
  explicit select_run(sip_msg *message) : msg(message) {}

  sip_msg *msg;
  script_query query;
  row_delivery delivery;

  const tarn_tbl *table() const { return query.table; }
  memdb_tbl *tbl() const { return query.table->tbl; }
  char **wanted() { return query.flds; }
  int32_t max_res() const { return query.max_res; }

  bool deliver(const memdb_row *row) const { return delivery.deliver(msg, query.table, row); }
};

enum class select_start {
  ready,
  unread,  // the query couldn't be printed or parsed
  failed   // a later step failed
};

// The steps up to the table. Everything but ready is logged, up to the function's own last line.
select_start start_select(select_run *run, const select_params &params, delivery_target target);

// The same for the selects that have a last line of their own for a query that can't be read.
bool start_select_or_fail(select_run *run, const select_params &params, delivery_target target);

inline constexpr message_text<> SELECT_FAILED{"SELECT failed!\n"};

// Writes the last line of the selects that have one. SCRIPT_FAILED.
int select_failed();

// What a select says about the column whose rows it reads one by one.
struct column_texts {
  message_text<int, int> too_great;  // column, number of columns
  message_text<int> entered;
  message_text<int> indexed;
};

// False, logged, for a column that the table hasn't, that the select's own rule refuses, if it has
// one, or that is indexed.
bool check_column(const select_run &run, int32_t column, const column_texts &texts,
                  bool (*rule)(const select_run &run, uint32_t column) = nullptr);

// Delivers rows that were held, in their order, with a debug line for each. The select's result:
// SCRIPT_OK, or SCRIPT_NO_ROW without rows, or SCRIPT_FAILED.
int deliver_held(select_run *run, std::span<const memdb_row *const> rows,
                 const message_text<> &found);
