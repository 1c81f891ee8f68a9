// The numeric range selects: one column read as a number, rows delivered that lie outside two
// limits, or rows counted that lie above the lower one.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "query/text/field_strings.h"
#include "script/params/read_param.h"
#include "script/params/special_slot.h"
#include "script/select/row_list.h"
#include "script/select/select_bodies.h"
#include "script/select/select_functions.h"
#include "script/select/select_run.h"

namespace {

constexpr message_text<> LOWER_NOT_INTEGER{"Invalid pvar type - param 3: lower range limit\n"};
constexpr message_text<> UPPER_NOT_INTEGER{"Invalid pvar type - param 4: upper range limit\n"};
constexpr message_text<> FOUND{"MATCH FOUND and Saving AVP"};
constexpr column_texts COLUMN_TEXTS{
    .too_great = "main column (%d) is greater than total coumns (%d)\n",
    .entered = "Entered,column: '%d'\n",
    .indexed = "Main column (%d) is an index column, ignoring this row\n"};

// The within-the-range select visits no more rows, whatever its query asks for: alarms have lower
// thresholds.
constexpr int32_t MOST_ROWS_COUNTED = 32000;

struct number_range {
  uint32_t column;
  int32_t lower;
  int32_t upper;
};

// The third to fifth parameter as the fix-ups left them.
range_params params_in(const char *column, const char *lower, const char *upper) {
  return {column_number(column), reinterpret_cast<const num_or_pv *>(lower),
          reinterpret_cast<const num_or_pv *>(upper)};
}

// A limit that isn't given is 0.
bool read_limit(sip_msg *msg, const num_or_pv *given, const message_text<> &not_integer,
                int32_t *limit) {
  *limit = 0;
  return given == nullptr || read_number(msg, given, not_integer, limit);
}

// Reads limits and column, and makes the column a wildcard of the query: what the query says there
// has no meaning.
bool read_range(select_run *run, const range_params &params, number_range *range) {
  const int32_t column = params.column;
  if (!read_limit(run->msg, params.lower, LOWER_NOT_INTEGER, &range->lower) ||
      !read_limit(run->msg, params.upper, UPPER_NOT_INTEGER, &range->upper) ||
      !check_column(*run, column, COLUMN_TEXTS))
    return false;
  range->column = static_cast<uint32_t>(column);
  run->wanted()[column] = nullptr;
  LM_DBG("Grp column (%d) in.flds[column] =%s\n", column - 1,
         printable(column > 0 ? run->wanted()[column - 1] : nullptr));
  LM_DBG("Main column (%d) in.flds[column] =%s\n", column, printable(run->wanted()[column]));
  LM_DBG("Max_res (%d) \n", run->max_res());
  return true;
}

// What both selects judge rows by.
struct range_scan {
  const select_run &run;
  const number_range &range;
  const bool debug = host_log_enabled(L_DBG);  // asked for once a scan, not once a row

  const char *entry_of(const memdb_row *row) const {
    return memdb_get_field(run.tbl(), row, range.column);
  }
  void tell_visit() const {
    if (debug) LM_DBG("Entering 1st memdb_select for lace\n");
  }
};

// The rows outside the range, at most max_res of them.
class outside_rows {
 public:
  outside_rows(const select_run &run, const number_range &range) : scan_{run, range} {}

  int32_t count() const { return rows_.count(); }
  std::span<const memdb_row *const> rows() const { return rows_.rows(); }

  // Judges a row. False once no more are wanted.
  bool visit(const memdb_row *row, int32_t index) {
    const number_range &range = scan_.range;
    const char *const entry = scan_.entry_of(row);
    const int32_t number = atoi(entry);
    const bool is_inside = range.lower <= number && number <= range.upper;
    if (!is_inside) rows_.add(row);
    scan_.tell_visit();
    if (scan_.debug && is_inside)
      LM_DBG("Field in range [%s], length=%lu column=%d entryInt=%d range=(%d to %d) \n", entry,
             strlen(entry), static_cast<int>(range.column), number, range.lower, range.upper);
    if (scan_.debug && !is_inside)
      LM_DBG("RowIndex (%d) table content entry (%s) is out of range, processing  row\n", index,
             entry);
    return count() < scan_.run.max_res();
  }

 private:
  range_scan scan_;
  row_list rows_;
};

// The number of rows above the lower limit. The upper one is told in the debug lines and takes no
// part: alarms on registered users have one threshold.
class rows_above {
 public:
  rows_above(const select_run &run, const number_range &range) : scan_{run, range} {}

  int32_t count() const { return count_; }

  void visit(const memdb_row *row, int32_t index) {
    const int32_t number = atoi(scan_.entry_of(row));
    if (scan_.debug) tell(index, number);
    if (number <= scan_.range.lower) return;
    count_++;
    if (scan_.debug) LM_DBG("ALARM REG_USERS DBG: rowCount_in %d", count_);
  }

 private:
  void tell(int32_t index, int32_t number) {
    const number_range &range = scan_.range;
    LM_DBG(
        "Loop Debug - i=%d, rowCount=%d, in.max_res=%d, entryInt=%d, lower_range_limit=%d, upper_range_limit=%d\n",
        index, count_, scan_.run.max_res(), told_before_, range.lower, range.upper);
    scan_.tell_visit();
    LM_DBG("ALARM REG_USERS DBG: entryInt=%d, lower_range_limit=%d, upper_range_limit=%d\n", number,
           range.lower, range.upper);
    told_before_ = number;
  }

  range_scan scan_;
  int32_t count_ = 0;
  int32_t told_before_ = 0;  // the number of the row before
};

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

// Print, parse, find, enter, read the range, and work on it.
template <typename Work>
int select_in_range(sip_msg *msg, const select_params &select, const range_params &params,
                    Work work) {
  const host_log_scope log;
  select_run run(msg);
  if (!start_select_or_fail(&run, select, delivery_target::avps)) return SCRIPT_FAILED;
  const table_scope scope(run.table(), table_access::unlocked);
  number_range range;
  if (!read_range(&run, params, &range)) return SCRIPT_FAILED;
  return work(&run, range);
}

int deliver_outside(select_run *run, const number_range &range) {
  outside_rows outside(*run, range);
  // The capacity of the list limits the rows visited, the query those held, which a table's
  // MAX_ROWS of 0 or less makes none.
  const int32_t most = run->max_res() > 0 ? row_list::CAPACITY : 0;
  memdb_visit(run->tbl(), run->query.flds, most, [&outside](const memdb_row *row, int32_t index) {
    return outside.visit(row, index);
  });
  const int result = deliver_held(run, outside.rows(), FOUND);
  return result == SCRIPT_OK ? outside.count() : result;
}

int32_t number_above(select_run *run, const number_range &range) {
  rows_above above(*run, range);
  const int32_t most = std::min(run->max_res(), MOST_ROWS_COUNTED);
  memdb_visit(run->tbl(), run->query.flds, most, [&above](const memdb_row *row, int32_t index) {
    above.visit(row, index);
    return true;
  });
  return above.count();
}

// Delivers nothing, so that a call that doesn't fail finds no row; the count goes into the target.
int count_above(select_run *run, const number_range &range, char *target) {
  report_count(run->msg, target, number_above(run, range));
  LM_DBG("ALARM REG_USERS DBG Returning row count result: %d (found=%d, xavp_buff='%s')\n",
         SCRIPT_NO_ROW, 0, printable(nullptr));
  return SCRIPT_NO_ROW;
}

}  // namespace

int select_out_of_range(sip_msg *msg, const select_params &select, const range_params &params) {
  return select_in_range(msg, select, params, deliver_outside);
}

int32_t count_above_limit(sip_msg *msg, char *query, const range_params &params) {
  return select_in_range(msg, {query, nullptr}, params, number_above);
}

int tarn_memdb_nl_select_field_out_of_range(sip_msg *msg, char *query, char *avps, char *column,
                                            char *lower, char *upper) {
  return select_out_of_range(msg, {query, avps}, params_in(column, lower, upper));
}

int tarn_memdb_nl_select_field_within_the_range(sip_msg *msg, char *query, char *avps, char *column,
                                                char *lower, char *upper, char *target) {
  return select_in_range(msg, {query, avps}, params_in(column, lower, upper),
                         [target](select_run *run, const number_range &range) {
                           return count_above(run, range, target);
                         });
}
