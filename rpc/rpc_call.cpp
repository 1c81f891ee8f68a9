// Arguments and lines of RPC commands.
#include "rpc/rpc_call.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>

#include "host/log.h"
#include "query/query_input.h"
#include "query/text/buffers.h"

namespace {

std::string_view first_word(std::string_view text) {
  const auto is_space = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  size_t len = 0;
  while (len < text.size() && !is_space(text[len])) len++;
  return text.substr(0, len);
}

}  // namespace

bool send_query_buf(const rpc_call &call) {
  return call.rpc->rpl_printf(call.ctx, "%s", query_buf) >= 0;
}

bool send_line(const rpc_call &call, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vsnprintf(query_buf, sizeof(query_buf), fmt, args);
  va_end(args);
  return send_query_buf(call);
}

bool send_name_and_count(const rpc_call &call, const tarn_tbl *table) {
  return send_line(call, "Table: %s", table->table_name) &&
         send_line(call, "Row count: %d", get_tbl_row_count(table));
}

void fault_internal(const rpc_call &call) {
  call.rpc->fault(call.ctx, RPC_FAULT, "Internal Error");
}

bool refuse_arguments(const rpc_call &call, const argument_texts &texts) {
  LM_TEXT(L_WARN, texts.log);
  call.rpc->fault(call.ctx, RPC_FAULT, texts.fault.format);
  return false;
}

tarn_tbl *read_table(const rpc_call &call, const table_argument &argument) {
  char *whole = nullptr;
  if (call.rpc->scan(call.ctx, "s", &whole) < 1 || whole == nullptr) {
    refuse_arguments(call, argument.missing);
    return nullptr;
  }
  // Looked up by the whole word: one that doesn't fit is no table, even if its beginning is.
  const std::string_view name = argument.form == name_form::whole ? whole : first_word(whole);
  tarn_tbl *const table = get_tarn_tbl_by_name(name);
  if (table != nullptr) return table;
  table_name_text cut;
  cut[name.copy(cut, sizeof(cut) - 1)] = '\0';
  const char *const logged = argument.form == name_form::whole ? whole : cut;
  const char *const faulted = argument.form == name_form::first_word ? cut : whole;
  if (argument.unknown_log != nullptr) LM_TEXT(L_ERR, *argument.unknown_log, logged);
  call.rpc->fault(call.ctx, RPC_FAULT, "Wrong table name: '%s'", faulted);
  return nullptr;
}
