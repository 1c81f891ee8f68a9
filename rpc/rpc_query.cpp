// From an argument to a parsed query and its table.
#include "rpc/rpc_query.h"

#include "host/log.h"

bool read_query(const rpc_call &call, const rpc_query_texts &texts, str *text) {
  *text = {nullptr, 0};
  if (call.rpc->scan(call.ctx, "S", text) < 1 || text->s == nullptr)
    return refuse_arguments(call, texts.missing);
  return true;
}

bool parse_rpc_query(const rpc_call &call, const rpc_query_texts &texts, const str &text,
                     int32_t op, rpc_query *query) {
  if (tarn_memdb_parse_input(text, op, query, query->name)) return true;
  LM_TEXT(L_ERR, texts.unparsed, query->name);
  call.rpc->fault(call.ctx, RPC_FAULT, "Parse Error of: '%s'", query->name);
  return false;
}

bool open_rpc_query(const rpc_call &call, const rpc_query_texts &texts, int32_t op, str *text,
                    rpc_query *query) {
  return read_query(call, texts, text) && parse_rpc_query(call, texts, *text, op, query);
}
