// A query as the argument of an RPC command.
#pragma once

#include "query/query_input.h"
#include "rpc/rpc_call.h"

struct rpc_query_words {
  rpc_words refusal;
  const char *parse_log;  // the log line on a query that doesn't parse
};

struct rpc_query : query_scope {
  char name[TARN_NAME_SIZE] = "";
};

// Reads the one argument. False, refused, if there is none.
bool read_query(const rpc_call &call, const rpc_query_words &words, str *text);

// Parses the text. False, refused with the table's name that was found in it, if it is no query.
bool parse_rpc_query(const rpc_call &call, const rpc_query_words &words, const str &text,
                     int32_t op, rpc_query *query);

// Both steps in turn.
bool open_rpc_query(const rpc_call &call, const rpc_query_words &words, int32_t op, str *text,
                    rpc_query *query);
