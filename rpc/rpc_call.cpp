// Arguments and lines of RPC commands.
#include "rpc/rpc_call.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>

#include "host/log.h"
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

bool refuse_arguments(const rpc_call &call, const rpc_words &words) {
  LM_WARN("%s%s\n", words.log_name, words.too_few_log);
  call.rpc->fault(call.ctx, RPC_FAULT, "%s", words.too_few_fault);
  return false;
}

argument_state read_table_argument(const rpc_call &call, const rpc_words &words,
                                   table_argument *argument) {
  argument->whole = nullptr;
  if (call.rpc->scan(call.ctx, "s", &argument->whole) < 1 || argument->whole == nullptr) {
    refuse_arguments(call, words);
    return argument_state::missing;
  }
  const std::string_view word = first_word(argument->whole);
  argument->name[word.copy(argument->name, sizeof(argument->name) - 1)] = '\0';
  // Looked up by the whole word: one that doesn't fit is no table, even if its beginning is.
  argument->table = get_tarn_tbl_by_name(word);
  return argument->table != nullptr ? argument_state::found : argument_state::unknown;
}
