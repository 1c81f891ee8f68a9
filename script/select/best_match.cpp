// The longest-prefix select: a column holds prefixes, the query gives a full value, and the rows
// with the longest prefix of it are delivered. Rows with an empty prefix are the default. The other
// fields of the query filter, so that one table can hold several groups of prefixes.
#include <cstring>

#include "host/log.h"
#include "memdb/prefix/prefix.h"
#include "query/text/field_strings.h"
#include "script/params/read_param.h"
#include "script/select/row_list.h"
#include "script/select/select_bodies.h"
#include "script/select/select_functions.h"
#include "script/select/select_run.h"

namespace {

constexpr message_text<> FLAGS_NOT_INTEGER{"Invalid pvar type - param 3: flags\n"};
constexpr message_text<> FOUND{"memdb_select_best_match: MATCH FOUND and Saving AVP"};
constexpr column_texts COLUMN_TEXTS{
    .too_great = "memdb_select_best_match: main column (%d) is greater than total coumns (%d)\n",
    .entered = "memdb_select_best_match: entered,column: '%d'\n",
    .indexed = "memdb_select_best_match: main column (%d) is an index column, ignoring this row\n"};

// What is searched for, and where.
struct prefix_search {
  uint32_t column;
  const char *key;
  size_t left_out;  // characters at the end of an entry that aren't compared
};

void log_column(const select_run &run, uint32_t column) {
  LM_DBG("memdb_select_best_match: main column (%d) in.flds[column] =%s\n",
         static_cast<int>(column), printable(run.query.flds[column]));
}

bool has_key(const select_run &run, uint32_t column) {
  log_column(run, column);
  const char *const key = run.query.flds[column];
  if (key != nullptr && *key != '\0') return true;
  LM_ERR("memdb_select_best_match: main column (%d) value is not set or empty, ignoring this row\n",
         static_cast<int>(column));
  return false;
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

bool read_search(select_run *run, const prefix_params &params, prefix_search *search) {
  int32_t left_out = 0;
  if (params.left_out != nullptr &&
      !read_number(run->msg, params.left_out, FLAGS_NOT_INTEGER, &left_out))
    return false;
  if (!check_column(*run, params.column, COLUMN_TEXTS, has_key)) return false;
  search->column = static_cast<uint32_t>(params.column);
  // Widened with its sign and then taken without it: a negative number leaves everything out.
  search->left_out = static_cast<size_t>(static_cast<int64_t>(left_out));
  take_key(run, search);
  return true;
}

// True if the whole entry begins the key; else *rest is the part that doesn't. An unlocked reader
// may meet an entry that is being overwritten, so no character is read twice.
bool begins_key(const char *key, const char *entry, const char **rest) {
  size_t len = 0;
  char c;
  while ((c = entry[len]) != '\0' && c == key[len]) len++;
  *rest = entry + len;
  return c == '\0';
}

// True if the entry, less the characters that are left out, begins the key.
bool is_prefix(const prefix_search &search, const char *entry) {
  const char *rest;
  return begins_key(search.key, entry, &rest) || strlen(rest) <= search.left_out;
}

// The rows that share the best entry so far.
class best_rows {
 public:
  explicit best_rows(const prefix_search &search) : search_(search) {}

  bool tells_all() const { return debug_; }
  std::span<const memdb_row *const> rows() const { return rows_.rows(); }

  // Takes rows that were found otherwise than by visits.
  void take(std::span<const memdb_row *const> found) {
    for (const memdb_row *const row : found) rows_.add(row);
  }

  // Judges the row that was visited as the given one. False once the list is full: that ends the
  // scan, even with a longer entry ahead. Few rows come here, and what is done about them isn't to
  // take registers from the scan's loop.
  __attribute__((noinline)) bool visit(const memdb_row *row, const char *entry, int32_t row_index) {
    const size_t len = strlen(entry);
    if (debug_) tell_entry(entry, len);
    if (!is_prefix(search_, entry)) {
      LM_DBG(
          "memdb_select_best_match: table content entry (%s) does not match, ignoring this row\n",
          entry);
    } else if (static_cast<int32_t>(len) < max_length_) {
      if (debug_) tell_shorter(entry);
    } else {
      keep(row, entry, static_cast<int32_t>(len), row_index);
    }
    return !rows_.is_full();
  }

 private:
  void keep(const memdb_row *row, const char *entry, int32_t len, int32_t row_index) {
    const bool is_better = len > max_length_;
    if (is_better) {
      max_length_ = len;
      rows_.clear();
    }
    rows_.add(row);
    if (!debug_) return;
    if (is_better)
      LM_DBG(
          "memdb_select_best_match: rowIndex (%d) maxLength (%d) table content entry (%s) is new best match, discard old one, processing  row\n",
          row_index, max_length_, entry);
    else
      LM_DBG(
          "memdb_select_best_match: rowIndex (%d) maxLength (%d) table content entry (%s) is best match as old one, processing  row\n",
          row_index, max_length_, entry);
  }

  static void tell_entry(const char *entry, size_t len) {
    LM_DBG("memdb_select_best_match: entering 1st memdb_select for lace\n");
    if (len != 0)
      LM_DBG("memdb_select_best_match: processing entry [%s], length=%lu\n", entry,
             static_cast<unsigned long>(len));
  }

  void tell_shorter(const char *entry) const {
    if (*entry == '\0')
      LM_DBG("memdb_select_best_match: main column (%d) table content empty, ignoring this row\n",
             static_cast<int>(search_.column));
    else
      LM_DBG(
          "memdb_select_best_match: table content entry (%s) is match but not the best one match, ignoring this row\n",
          entry);
  }

  const prefix_search &search_;
  const bool debug_ = host_log_enabled(L_DBG);  // asked for once a scan, not once a row
  int32_t max_length_ = 0;
  row_list rows_;
};

// What a scan would come to, from the table's look-up. False, with nothing done, where there is
// none that could tell, or where the visits themselves are to be told.
bool look_up(const select_run &run, const prefix_search &search, best_rows *best) {
  // A scan ends with a full list, so that the engine's limit is that list's.
  static_assert(MEMDB_PREFIX_MOST_EQUAL < row_list::CAPACITY);
  if (host_log_enabled(L_DBG) || search.left_out != 0) return false;
  const memdb_row *found[MEMDB_PREFIX_MOST_EQUAL];
  const int32_t count = memdb_longest_prefix(
      run.tbl(), {search.column, search.key, run.query.flds, run.max_res()}, found);
  if (count == MEMDB_PREFIX_UNKNOWN) return false;
  best->take({found, static_cast<size_t>(count)});
  return true;
}

// max_res limits the rows visited. Nearly every entry differs from the key in its first characters:
// with nothing to tell, that is all there is to do about such a row.
void scan(const select_run &run, const prefix_search &search, best_rows *best) {
  const uint32_t offset = run.tbl()->cols[search.column].offset;
  const auto scan_those = [&run, best, offset](auto is_wanted) {
    memdb_visit(run.tbl(), run.query.flds, run.max_res(), [=](const memdb_row *row, int32_t index) {
      const char *const entry = memdb_data(row) + offset;
      return !is_wanted(entry) || best->visit(row, entry, index);
    });
  };
  if (best->tells_all()) {
    scan_those([](const char *) { return true; });
  } else if (search.left_out != 0) {
    scan_those([search](const char *entry) { return is_prefix(search, entry); });
  } else {
    scan_those([key = search.key](const char *entry) {
      const char *rest;
      return begins_key(key, entry, &rest);
    });
  }
}

// Asks for the look-up of such searches, if the table could do with it. The first call of many in
// any process waits for the table's lock, the others don't come to it.
void want_look_up(const select_run &run, int32_t column) {
  tarn_tbl *const table = run.query.table;
  uint32_t given;
  if (!memdb_lacks_prefixes(
          table->tbl, {static_cast<uint32_t>(column), "", run.query.flds, run.max_res()}, &given))
    return;
  const lock_scope lock(table->lock);
  memdb_want_prefixes(rows_to_change(table), static_cast<uint32_t>(column), given);
}

int select_longest(sip_msg *msg, const select_params &params, const char *column,
                   const char *left_out, const select_flavour &flavour) {
  return select_best_match(
      msg, params,
      {column_number(column), reinterpret_cast<const num_or_pv *>(left_out), look_ups::told},
      flavour);
}

}  // namespace

int select_best_match(sip_msg *msg, const select_params &params, const prefix_params &prefix,
                      const select_flavour &flavour) {
  const host_log_scope log;
  select_run run(msg);
  if (!start_select_or_fail(&run, params, flavour.target)) return SCRIPT_FAILED;
  if (prefix.look_up == look_ups::asked_for) want_look_up(run, prefix.column);
  const table_scope scope(run.table(), flavour.access);
  prefix_search search;
  if (!read_search(&run, prefix, &search)) return SCRIPT_FAILED;
  best_rows best(search);
  if (!look_up(run, search, &best)) scan(run, search, &best);
  return deliver_held(&run, best.rows(), FOUND);
}

int tarn_memdb_select_best_match(sip_msg *msg, char *query, char *avps, char *column) {
  return select_longest(msg, {query, avps}, column, nullptr, LOCKED_AVPS);
}

int tarn_memdb_nl_select_best_match(sip_msg *msg, char *query, char *avps, char *column) {
  return select_longest(msg, {query, avps}, column, nullptr, UNLOCKED_AVPS);
}

int tarn_memdb_nl_select_best_match_prefix(sip_msg *msg, char *query, char *avps, char *column,
                                           char *flags) {
  return select_longest(msg, {query, avps}, column, flags, UNLOCKED_AVPS);
}

int tarn_memdb_xavp_select_best_match(sip_msg *msg, char *query, char *xavp, char *column) {
  return select_longest(msg, {query, xavp}, column, nullptr, LOCKED_XAVP);
}

int tarn_memdb_nl_xavp_select_best_match(sip_msg *msg, char *query, char *xavp, char *column) {
  return select_longest(msg, {query, xavp}, column, nullptr, UNLOCKED_XAVP);
}
