// A query as the argument of an RPC command.
#pragma once

#include "query/query_input.h"
#include "rpc/rpc_call.h"

struct rpc_query_texts {
  argument_texts missing;
  message_text<const char *> unparsed;  // the table's name
};

struct rpc_query : query_scope {
  table_name_text name = "";
};

// Reads the one argument. False, refused, if there is none.
bool read_query(const rpc_call &call, const rpc_query_texts &texts, str *text);

// Parses the text. False, refused with the table's name that was found in it, if it is no query.
bool parse_rpc_query(const rpc_call &call, const rpc_query_texts &texts, const str &text,
                     int32_t op, rpc_query *query);

// Both steps in turn.
bool open_rpc_query(const rpc_call &call, const rpc_query_texts &texts, int32_t op, str *text,
                    rpc_query *query);
