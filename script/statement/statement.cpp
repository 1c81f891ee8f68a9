// The statement under the cursor.
#include "script/statement/statement.h"

#include <cstdio>

#include "host/log.h"
#include "query/statement_scanner.h"
#include "query/text/buffers.h"

bool statement::print(sip_msg *msg, const char *slot) {
  text_ = cursor_ = print_or_refuse(msg, slot, query_buf, UNPRINTABLE).s;
  if (text_ == nullptr) return false;
  LM_TEXT(L_DBG, texts_.printed, text_);
  return true;
}

bool statement::token(const char *word) {
  cursor_ = look_for_token(cursor_, word);
  return cursor_ != nullptr;
}

bool statement::skip_word() {
  cursor_ = go_to_next_white_space(cursor_);
  return cursor_ != nullptr;
}

bool statement::skip_blanks() {
  cursor_ = skip_white_spaces(cursor_);
  return cursor_ != nullptr;
}

bool statement::read_table() {
  const pkg_owner<char> name(get_table_name_from_query(cursor_));
  if (!name) return false;
  table_ = get_tarn_tbl_by_name(name.get());
  return table_ != nullptr;
}

bool statement::read_fields(const char *text, statement_fields *fields) {
  fields->names.reset(get_fields_name(text, table_, &fields->count));
  if (!fields->names) return false;
  fields->positions.reset(validate_field_list(fields->names.get(), table_, fields->count));
  return static_cast<bool>(fields->positions);
}

bool statement::read_pairs(pair_list *list) {
  list->pairs.table = table_;
  list->pairs.flds = generate_pair_list(cursor_, table_, &list->texts);
  return list->pairs.flds != nullptr;
}

bool statement::read_where(pair_list *list) {
  return skip_word() && token("WHERE") && read_pairs(list) && read_max(&list->pairs);
}

void statement::scanned() const { LM_TEXT(L_DBG, texts_.scanned); }

int statement::failed() const {
  if (text_ != nullptr || texts_.fails_unprinted) LM_TEXT(L_ERR, texts_.failed);
  return SCRIPT_FAILED;
}

bool statement::read_max(query_in *in) {
  const char *const clause = skip_white_spaces(go_to_next_white_space(cursor_));
  if (clause == nullptr) {
    in->max_res = table_->max_rows;
    LM_DBG("MAX not found. MAX was set to %d\n", in->max_res);
    return true;
  }
  // A clause that ends before its number leaves this standing.
  in->max_res = 1;
  if (sscanf(clause, "MAX=%d", &in->max_res) == 0) return false;
  if (in->max_res < 1) {
    LM_DBG("Invalid value for MAX (%d). Setting MAX to 1\n", in->max_res);
    in->max_res = 1;
  }
  LM_DBG("MAX set to %d\n", in->max_res);
  return true;
}
