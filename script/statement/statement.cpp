// The statement under the cursor.
#include "script/statement/statement.h"

#include <cstdio>

#include "host/log.h"
#include "query/statement_scanner.h"
#include "query/text/buffers.h"

bool statement::print(sip_msg *msg, const char *slot) {
  text_ = cursor_ = print_or_refuse(msg, slot, query_buf, UNPRINTABLE).s;
  return text_ != nullptr;
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

bool statement::read_pairs(pair_list *pairs) {
  pairs->in.table = table_;
  pairs->in.flds = generate_value_list2(cursor_, table_, &pairs->texts);
  return pairs->in.flds != nullptr;
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
