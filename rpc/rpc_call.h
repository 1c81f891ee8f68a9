// What the RPC handlers share: reading arguments, refusing them, and sending lines.
#pragma once

#include "host/abi.h"
#include "host/message_text.h"
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

// Sends the table's name and its row count, each a line. False if the reply can't be extended.
bool send_name_and_count(const rpc_call &call, const tarn_tbl *table) NEEDS_LOCK(table->lock);

// The fault of a command that fails for reasons that the log tells.
void fault_internal(const rpc_call &call);

// How a command refuses a call that lacks an argument.
struct argument_texts {
  message_text<> log;
  message_text<> fault;
};

inline constexpr message_text<> NOT_ENOUGH_PARAMETERS{"Not enough parameters"};
inline constexpr message_text<> WRONG_NUMBER{"wrong number of parameters"};

// Logs and faults a lack of arguments. Always false.
bool refuse_arguments(const rpc_call &call, const argument_texts &texts);

// What of its one argument a command takes for a table's name, in the log and in the fault.
enum class name_form {
  first_word,
  first_word_but_whole_in_fault,
  whole  // blanks included
};

struct table_argument {
  argument_texts missing;
  const message_text<const char *> *unknown_log;  // the name goes in; null for no line
  name_form form;
};

// Reads the one argument of a command: the table that it names. Null, refused, if there is no
// argument or no such table.
tarn_tbl *read_table(const rpc_call &call, const table_argument &argument);
