// The shared steps of the selects.
#include "script/select/select_run.h"

#include "host/log.h"

namespace {

// The selects speak of an insert where their query can't be parsed; log filters go by that text.
constexpr query_texts TEXTS{UNPRINTABLE_SELECT, PRINTED_SELECT, UNPARSED_INSERT};

}  // namespace

select_start start_select(select_run *run, const select_params &params, delivery_target target) {
  str text;
  if (!print_query(run->msg, params.query, TEXTS, &text) ||
      !parse_query(text, OP_SELECT, TEXTS.unparsed, &run->query))
    return select_start::unread;
  return run->delivery.open(run->msg, target, params.target) ? select_start::ready
                                                             : select_start::failed;
}

bool start_select_or_fail(select_run *run, const select_params &params, delivery_target target) {
  const select_start start = start_select(run, params, target);
  if (start == select_start::unread) select_failed();
  return start == select_start::ready;
}

int select_failed() {
  LM_TEXT(L_ERR, SELECT_FAILED);
  return SCRIPT_FAILED;
}

bool check_column(const select_run &run, int32_t column, const column_texts &texts,
                  bool (*rule)(const select_run &run, uint32_t column)) {
  const uint32_t columns = run.tbl()->col_cnt;
  // Compared without a sign, so that a negative number is too great as well.
  const auto place = static_cast<uint32_t>(column);
  if (place >= columns) {
    LM_TEXT(L_ERR, texts.too_great, column, static_cast<int>(columns));
    return false;
  }
  if (rule != nullptr && !rule(run, place)) return false;
  LM_TEXT(L_DBG, texts.entered, column);
  if (!memdb_is_indexed(run.tbl()->cols[place])) return true;
  LM_TEXT(L_ERR, texts.indexed, column);
  return false;
}

int deliver_held(select_run *run, std::span<const memdb_row *const> rows,
                 const message_text<> &found) {
  if (!run->delivery.prepare(run->table())) return SCRIPT_FAILED;
  for (const memdb_row *const row : rows) {
    LM_TEXT(L_DBG, found);
    if (!run->deliver(row)) return SCRIPT_FAILED;
  }
  return rows.empty() ? SCRIPT_NO_ROW : SCRIPT_OK;
}
