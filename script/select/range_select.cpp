// The numeric range selects: one column read as a number, rows delivered that lie outside two
// limits, or rows counted that lie above the lower one.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "query/text/field_strings.h"
#include "script/params/number_param.h"
#include "script/params/raw_text.h"
#include "script/select/row_list.h"
#include "script/select/select_functions.h"
#include "script/select/select_run.h"

namespace {

constexpr char LOWER_NOT_INTEGER[] = "Invalid pvar type - param 3: lower range limit\n";
constexpr char UPPER_NOT_INTEGER[] = "Invalid pvar type - param 4: upper range limit\n";

// The within-the-range select stops here, whatever its query asks for: alarms have lower
// thresholds.
constexpr int32_t MOST_ROWS_COUNTED = 32000;

// The slots of the third to fifth parameter.
struct range_params {
  const char *column;
  const char *lower;
  const char *upper;
};

struct number_range {
  uint32_t column;
  int32_t lower;
  int32_t upper;
};

// A limit that isn't given is 0.
bool read_limit(sip_msg *msg, const char *slot, const char *not_integer, int32_t *limit) {
  *limit = 0;
  return slot == nullptr ||
         read_number(msg, reinterpret_cast<const num_or_pv *>(slot), not_integer, limit);
}

bool check_column(const select_run &run, int32_t column) {
  const uint32_t columns = run.tbl()->col_cnt;
  // Compared without a sign, so that a negative number is too great as well.
  if (static_cast<uint32_t>(column) >= columns) {
    LM_ERR("main column (%d) is greater than total coumns (%d)\n", column,
           static_cast<int>(columns));
    return false;
  }
  LM_DBG("Entered,column: '%d'\n", column);
  if (memdb_is_indexed(run.tbl()->cols[column])) {
    LM_ERR("Main column (%d) is an index column, ignoring this row\n", column);
    return false;
  }
  return true;
}

// Reads limits and column, and makes the column a wildcard of the query: what the query says there
// has no meaning.
bool read_range(select_run *run, const range_params &params, number_range *range) {
  const int32_t column = atoi(params.column);
  if (!read_limit(run->msg, params.lower, LOWER_NOT_INTEGER, &range->lower) ||
      !read_limit(run->msg, params.upper, UPPER_NOT_INTEGER, &range->upper) ||
      !check_column(*run, column))
    return false;
  range->column = static_cast<uint32_t>(column);
  run->wanted()[column] = nullptr;
  LM_DBG("Grp column (%d) in.flds[column] =%s\n", column - 1,
         printable(column > 0 ? run->wanted()[column - 1] : nullptr));
  LM_DBG("Main column (%d) in.flds[column] =%s\n", column, printable(run->wanted()[column]));
  LM_DBG("Max_res (%d) \n", run->max_res());
  return true;
}

// Print, parse, find, lock, read the range. False if the select has failed.
bool start_range_select(select_run *run, const select_params &select, const range_params &params,
                        number_range *range) {
  const select_start start = start_select(run, select);
  if (start == select_start::unread) select_failed();
  if (start != select_start::ready) return false;
  run->enter_table();
  return read_range(run, params, range);
}

// max_res limits the rows held, the capacity of the list the rows visited.
void hold_outside(select_run *run, const number_range &range, row_list *held) {
  const bool debug = host_log_enabled(L_DBG);
  memdb_cursor cursor;
  const memdb_row *row = memdb_select(run->tbl(), run->wanted(), &cursor);
  for (int32_t visited = 0;
       row != nullptr && held->count() < run->max_res() && visited < row_list::CAPACITY;
       visited++) {
    const char *const entry = memdb_get_field(run->tbl(), row, range.column);
    const int32_t number = atoi(entry);
    if (debug) LM_DBG("Entering 1st memdb_select for lace\n");
    if (range.lower <= number && number <= range.upper) {
      if (debug)
        LM_DBG("Field in range [%s], length=%lu column=%d entryInt=%d range=(%d to %d) \n", entry,
               strlen(entry), static_cast<int>(range.column), number, range.lower, range.upper);
    } else {
      held->add(row);
      if (debug)
        LM_DBG("RowIndex (%d) table content entry (%s) is out of range, processing  row\n", visited,
               entry);
    }
    row = memdb_select_next(&cursor);
  }
}

// Rows above the lower limit. The upper one is told in the debug lines and takes no part: alarms on
// registered users have one threshold.
int32_t count_above(select_run *run, const number_range &range) {
  const bool debug = host_log_enabled(L_DBG);
  const int32_t most = std::min(run->max_res(), MOST_ROWS_COUNTED);
  int32_t count = 0;
  int32_t number = 0;
  memdb_cursor cursor;
  const memdb_row *row = memdb_select(run->tbl(), run->wanted(), &cursor);
  for (int32_t visited = 0; row != nullptr && visited < most; visited++) {
    if (debug) {
      LM_DBG(
          "Loop Debug - i=%d, rowCount=%d, in.max_res=%d, entryInt=%d, lower_range_limit=%d, "
          "upper_range_limit=%d\n",
          visited, count, run->max_res(), number, range.lower, range.upper);
      LM_DBG("Entering 1st memdb_select for lace\n");
    }
    number = atoi(memdb_get_field(run->tbl(), row, range.column));
    if (debug)
      LM_DBG("ALARM REG_USERS DBG: entryInt=%d, lower_range_limit=%d, upper_range_limit=%d\n",
             number, range.lower, range.upper);
    if (number > range.lower) {
      count++;
      if (debug) LM_DBG("ALARM REG_USERS DBG: rowCount_in %d", count);
    }
    row = memdb_select_next(&cursor);
  }
  return count;
}

// A target that can't be set is told and passed over: the script has -1 for other failures.
void report_count(sip_msg *msg, char *target, int32_t count) {
  if (target == nullptr) return;
  pv_value_t value{};
  value.ri = count;
  value.flags = PV_VAL_INT | PV_TYPE_INT;
  if (is_raw_text(target) ||
      pv_set_spec_value(msg, reinterpret_cast<pv_spec_t *>(target), 0, &value) != 0) {
    LM_ERR("ALARM REG_USERS DBG Could not set AVP for rowCount_in\n");
    return;
  }
  LM_DBG("ALARM REG_USERS DBG Set AVP rowCount_in = %d successfully\n", count);
}

int tarn_memdb_select_field_out_of_range_cmn(sip_msg *msg, const select_params &select,
                                             const range_params &params,
                                             const select_flavour &flavour) {
  const host_log_scope log;
  select_run run(msg, flavour);
  number_range range;
  if (!start_range_select(&run, select, params, &range)) return SCRIPT_FAILED;
  row_list held;
  hold_outside(&run, range, &held);
  const int result = run.deliver_held(held.rows(), "MATCH FOUND and Saving AVP");
  return result == SCRIPT_OK ? held.count() : result;
}

// Counts and delivers nothing, so that a call that doesn't fail finds no row; the count goes into
// the target. With nothing to deliver no buffer is needed for it either.
int tarn_memdb_select_field_into_of_range_cmn(sip_msg *msg, const select_params &select,
                                              const range_params &params, char *target,
                                              const select_flavour &flavour) {
  const host_log_scope log;
  select_run run(msg, flavour);
  number_range range;
  if (!start_range_select(&run, select, params, &range)) return SCRIPT_FAILED;
  report_count(msg, target, count_above(&run, range));
  LM_DBG("ALARM REG_USERS DBG Returning row count result: %d (found=%d, xavp_buff='%s')\n",
         SCRIPT_NO_ROW, 0, printable(nullptr));
  return SCRIPT_NO_ROW;
}

}  // namespace

int tarn_memdb_nl_select_field_out_of_range(sip_msg *msg, char *query, char *avps, char *column,
                                            char *lower, char *upper) {
  return tarn_memdb_select_field_out_of_range_cmn(msg, {query, avps}, {column, lower, upper},
                                                  {.locked = false, .as_xavp = false});
}

int tarn_memdb_nl_select_field_within_the_range(sip_msg *msg, char *query, char *avps, char *column,
                                                char *lower, char *upper, char *target) {
  return tarn_memdb_select_field_into_of_range_cmn(msg, {query, avps}, {column, lower, upper},
                                                   target, {.locked = false, .as_xavp = false});
}
