// The longest-prefix select: a column holds prefixes, the query gives a full value, and the rows
// with the longest prefix of it are delivered. Rows with an empty prefix are the default. The other
// fields of the query filter, so that one table can hold several groups of prefixes.
#include <cstdlib>
#include <cstring>

#include "host/log.h"
#include "query/text/field_strings.h"
#include "script/params/number_param.h"
#include "script/select/row_list.h"
#include "script/select/select_functions.h"
#include "script/select/select_run.h"

namespace {

constexpr char FLAGS_NOT_INTEGER[] = "Invalid pvar type - param 3: flags\n";

// What is searched for, and where.
struct prefix_search {
  uint32_t column;
  const char *key;
  int32_t flags;  // characters at the end of an entry that aren't compared
};

void log_column(const select_run &run, uint32_t column) {
  LM_DBG("memdb_select_best_match: main column (%d) in.flds[column] =%s\n",
         static_cast<int>(column), printable(run.query.flds[column]));
}

bool check_column(const select_run &run, int32_t column) {
  const uint32_t columns = run.tbl()->col_cnt;
  // Compared without a sign, so that a negative number is too great as well.
  if (static_cast<uint32_t>(column) >= columns) {
    LM_ERR("memdb_select_best_match: main column (%d) is greater than total coumns (%d)\n", column,
           static_cast<int>(columns));
    return false;
  }
  const auto place = static_cast<uint32_t>(column);
  log_column(run, place);
  const char *const key = run.query.flds[place];
  if (key == nullptr || *key == '\0') {
    LM_ERR(
        "memdb_select_best_match: main column (%d) value is not set or empty, ignoring this row\n",
        column);
    return false;
  }
  LM_DBG("memdb_select_best_match: entered,column: '%d'\n", column);
  if (memdb_is_indexed(run.tbl()->cols[place])) {
    LM_ERR("memdb_select_best_match: main column (%d) is an index column, ignoring this row\n",
           column);
    return false;
  }
  return true;
}

// Takes the key out of the query, so that the other fields filter alone.
void take_key(select_run *run, prefix_search *search) {
  search->key = run->wanted()[search->column];
  run->wanted()[search->column] = nullptr;
  LM_DBG("memdb_select_best_match: grp column (%d) in.flds[column] =%s\n",
         static_cast<int>(search->column) - 1,
         printable(search->column > 0 ? run->wanted()[search->column - 1] : nullptr));
  log_column(*run, search->column);
  LM_DBG("memdb_select_best_match: max_res (%d) \n", run->max_res());
}

bool read_search(select_run *run, const char *column_text, const num_or_pv *flags,
                 prefix_search *search) {
  const int32_t column = atoi(column_text);
  search->flags = 0;
  if (flags != nullptr && !read_number(run->msg, flags, FLAGS_NOT_INTEGER, &search->flags))
    return false;
  if (!check_column(*run, column)) return false;
  search->column = static_cast<uint32_t>(column);
  take_key(run, search);
  return true;
}

// True if the entry, less the characters that flags leave out, begins the key. Flags are widened
// with their sign and then taken without it: a negative number leaves everything out.
bool is_prefix(const prefix_search &search, const char *entry, size_t len) {
  const auto left_out = static_cast<size_t>(static_cast<int64_t>(search.flags));
  return left_out >= len || strncmp(search.key, entry, len - left_out) == 0;
}

// The rows that share the best entry so far.
class best_rows {
 public:
  explicit best_rows(const prefix_search &search) : search_(search) {}

  bool is_full() const { return rows_.is_full(); }
  std::span<const memdb_row *const> rows() const { return rows_.rows(); }

  // Judges the row that was visited as the given one.
  void visit(const memdb_row *row, const char *entry, int32_t row_index) {
    const auto len = static_cast<int32_t>(strlen(entry));
    if (len == 0) {
      if (max_length_ != 0) {
        if (debug_)
          LM_DBG(
              "memdb_select_best_match: main column (%d) table content empty, ignoring this row\n",
              static_cast<int>(search_.column));
        return;
      }
    } else {
      if (debug_)
        LM_DBG("memdb_select_best_match: processing entry [%s], length=%lu\n", entry,
               static_cast<unsigned long>(len));
      if (!is_prefix(search_, entry, static_cast<size_t>(len))) {
        if (debug_)
          LM_DBG(
              "memdb_select_best_match: table content entry (%s) does not match, ignoring this "
              "row\n",
              entry);
        return;
      }
      if (len > max_length_) {
        max_length_ = len;
        rows_.clear();
        rows_.add(row);
        if (debug_)
          LM_DBG(
              "memdb_select_best_match: rowIndex (%d) maxLength (%d) table content entry (%s) is "
              "new best match, discard old one, processing  row\n",
              row_index, max_length_, entry);
        return;
      }
      if (len < max_length_) {
        if (debug_)
          LM_DBG(
              "memdb_select_best_match: table content entry (%s) is match but not the best one "
              "match, ignoring this row\n",
              entry);
        return;
      }
    }
    rows_.add(row);
    if (debug_)
      LM_DBG(
          "memdb_select_best_match: rowIndex (%d) maxLength (%d) table content entry (%s) is best "
          "match as old one, processing  row\n",
          row_index, max_length_, entry);
  }

 private:
  const prefix_search &search_;
  const bool debug_ = host_log_enabled(L_DBG);
  int32_t max_length_ = 0;
  row_list rows_;
};

// True if the entry, as a whole, doesn't begin the key.
bool differs(const char *key, const char *entry) {
  while (*entry != '\0' && *entry == *key) {
    entry++;
    key++;
  }
  return *entry != '\0';
}

// A row under the cursor and the number of rows visited before it.
struct scan_place {
  const memdb_row *row;
  int32_t index;
};

// Goes on to a row whose entry begins the key, or to the end of the scan.
scan_place skip_others(scan_place at, int32_t max_res, const char *key, uint32_t offset,
                       memdb_cursor *cursor) {
  while (at.row != nullptr && at.index < max_res && differs(key, memdb_data(at.row) + offset)) {
    at.row = memdb_select_next(cursor, at.row);
    at.index++;
  }
  return at;
}

// max_res limits the rows visited, and a full list ends the scan, even with a longer entry ahead.
void scan(select_run *run, const prefix_search &search, best_rows *best) {
  const bool debug = host_log_enabled(L_DBG);
  // Nearly every entry differs from the key in its first characters. With whole entries compared
  // and nothing to tell, that is all there is to do about such a row.
  const bool skips = !debug && search.flags == 0;
  const int32_t max_res = run->max_res();
  const uint32_t offset = run->tbl()->cols[search.column].offset;
  memdb_cursor cursor;
  scan_place at{memdb_select(run->tbl(), run->wanted(), &cursor), 0};
  for (; !best->is_full(); at.index++) {
    if (skips) at = skip_others(at, max_res, search.key, offset, &cursor);
    if (at.row == nullptr || at.index >= max_res) return;
    if (debug) LM_DBG("memdb_select_best_match: entering 1st memdb_select for lace\n");
    best->visit(at.row, memdb_data(at.row) + offset, at.index);
    at.row = memdb_select_next(&cursor);
  }
}

int tarn_memdb_select_best_match_cmn(sip_msg *msg, const select_params &params,
                                     const char *column_text, const num_or_pv *flags,
                                     const select_flavour &flavour) {
  const host_log_scope log;
  select_run run(msg, flavour);
  const select_start start = start_select(&run, params);
  if (start == select_start::unread) return select_failed();
  if (start != select_start::ready) return SCRIPT_FAILED;
  run.enter_table();
  prefix_search search;
  if (!read_search(&run, column_text, flags, &search)) return SCRIPT_FAILED;
  best_rows best(search);
  scan(&run, search, &best);
  return run.deliver_held(best.rows(), "memdb_select_best_match: MATCH FOUND and Saving AVP");
}

const num_or_pv *number_slot(const char *slot) { return reinterpret_cast<const num_or_pv *>(slot); }

}  // namespace

int tarn_memdb_select_best_match(sip_msg *msg, char *query, char *avps, char *column) {
  return tarn_memdb_select_best_match_cmn(msg, {query, avps}, column, nullptr,
                                          {.locked = true, .as_xavp = false});
}

int tarn_memdb_nl_select_best_match(sip_msg *msg, char *query, char *avps, char *column) {
  return tarn_memdb_select_best_match_cmn(msg, {query, avps}, column, nullptr,
                                          {.locked = false, .as_xavp = false});
}

int tarn_memdb_nl_select_best_match_prefix(sip_msg *msg, char *query, char *avps, char *column,
                                           char *flags) {
  return tarn_memdb_select_best_match_cmn(msg, {query, avps}, column, number_slot(flags),
                                          {.locked = false, .as_xavp = false});
}

int tarn_memdb_xavp_select_best_match(sip_msg *msg, char *query, char *xavp, char *column) {
  return tarn_memdb_select_best_match_cmn(msg, {query, xavp}, column, nullptr,
                                          {.locked = true, .as_xavp = true});
}

int tarn_memdb_nl_xavp_select_best_match(sip_msg *msg, char *query, char *xavp, char *column) {
  return tarn_memdb_select_best_match_cmn(msg, {query, xavp}, column, nullptr,
                                          {.locked = false, .as_xavp = true});
}
