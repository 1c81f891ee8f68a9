// Printing, parsing and finding for script functions.
#include "script/params/script_query.h"

#include "host/log.h"
#include "query/text/buffers.h"

bool print_query(sip_msg *msg, const char *slot, const query_texts &texts, str *text) {
  *text = print_or_refuse(msg, slot, query_buf, texts.unprintable);
  if (text->s == nullptr) return false;
  LM_TEXT(L_DBG, texts.printed, text->s);
  return true;
}

bool parse_query(const str &text, int32_t op, const message_text<const char *> &unparsed,
                 script_query *query) {
  if (tarn_memdb_parse_input(text, op, query, query->name)) return true;
  LM_TEXT(L_ERR, unparsed, text.s);
  return false;
}

bool print_table_name(sip_msg *msg, const char *slot, table_name_text &name) {
  return print_or_refuse(msg, slot, name, UNPRINTABLE).s != nullptr;
}

tarn_tbl *find_named_table(const char *name) {
  tarn_tbl *const table = get_tarn_tbl_by_name(name);
  if (table == nullptr) LM_ERR("Table '%s' not found\n", name);
  return table;
}
