// What the RPC handlers share: reading arguments, refusing them, and sending lines.
#pragma once

#include "host/abi.h"
#include "query/query_input.h"
#include "tables/tarn_tbl.h"

inline constexpr int RPC_FAULT = 500;  // code of every fault

// One command in work: the transport's operations and its context.
struct rpc_call {
  rpc_t *rpc;
  void *ctx;
};

// Sends query_buf as a line of the reply. False if the reply can't be extended.
bool send_query_buf(const rpc_call &call);

// Composes a line in query_buf, cut at its end, and sends it. False if the reply can't be extended.
bool send_line(const rpc_call &call, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// How a command's refusals read in the log and to the operator.
struct rpc_words {
  const char *log_name;  // begins its log lines; empty for commands that don't name themselves
  const char *too_few_log;
  const char *too_few_fault;
};

// Logs and faults a lack of arguments. Always false.
bool refuse_arguments(const rpc_call &call, const rpc_words &words);

// A table's name as an argument: its first word, and the table found by it.
struct table_argument {
  char *whole;
  char name[TARN_NAME_SIZE];
  tarn_tbl *table;
};

enum class argument_state { missing, unknown, found };

// Reads the one argument of a command and looks up the table that its first word names. missing,
// refused here, if there is no argument; unknown, which is the caller's to refuse, if no table has
// that name.
argument_state read_table_argument(const rpc_call &call, const rpc_words &words,
                                   table_argument *argument);
