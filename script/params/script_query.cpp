// Printing, parsing and finding for script functions.
#include "script/params/script_query.h"

#include "host/log.h"
#include "query/text/buffers.h"

bool print_query(sip_msg *msg, const char *slot, const query_words &words, str *text) {
  *text = print_or_refuse(msg, slot, query_buf, words.unprintable);
  if (text->s == nullptr) return false;
  LM_DBG("%s: %s\n", words.shown_as, text->s);
  return true;
}

bool parse_query(const str &text, int32_t op, const query_words &words, script_query *query) {
  if (tarn_memdb_parse_input(text, op, query, query->name) != nullptr) return true;
  LM_ERR("Could not parse query (%s) for %s\n", text.s, words.purpose);
  return false;
}

bool print_table_name(sip_msg *msg, const char *slot, std::span<char> name) {
  return print_or_refuse(msg, slot, name, UNPRINTABLE).s != nullptr;
}

tarn_tbl *find_named_table(const char *name) {
  tarn_tbl *const table = get_tarn_tbl_by_name(name);
  if (table == nullptr) LM_ERR("Table '%s' not found\n", name);
  return table;
}
