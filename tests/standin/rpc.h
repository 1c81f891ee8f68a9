// Running the module's RPC commands with scripted arguments, and what they replied.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/imports.h"
#include "tests/standin/values.h"

namespace standin {

struct rpc_fault {
  int code;
  std::string text;
};

// A container that the command opened, with the format it used for that.
struct rpc_container {
  std::string format;
  std::vector<std::string> texts;                            // added by array_add
  std::vector<std::pair<std::string, std::string>> members;  // added by struct_add, struct_printf
};

struct rpc_reply {
  bool found = false;              // a table holds the command
  std::vector<rpc_fault> faults;   // every fault that was raised, in order
  std::optional<rpc_fault> fault;  // the one that the client gets, if the reply is a fault
  std::vector<std::string> lines;  // what rpl_printf and add (formats "s", "S", "d", "u") gave
  std::vector<rpc_container> containers;
  std::vector<int> scans;  // results of scan
  bool sent = false;       // the command sent the reply itself
};

// The transports differ where a command does something wrong:
//   ctl:      an unknown format in add turns the reply into a fault 500; of several faults the
//             first counts; a scan that finds no item leaves a text that warns of using it, and
//             prepares a fault 400, which the client gets if the command replies nothing.
//   jsonrpcs: an unknown format in add gives a negative result; of several faults the last counts;
//             a scan that finds no item leaves the variables alone; with no flags on the command
//             the client gets only the last value (here all are kept).
enum class rpc_transport { ctl, jsonrpcs };

// ctl at first.
void set_rpc_transport(rpc_transport transport);

// Runs the command of that name from the registered tables. Arguments are texts or numbers; scan
// gives a number to "s" and "S" only behind a dot, as the host does.
rpc_reply rpc_call(const std::string &name, const std::vector<value> &arguments = {});

// Runs a handler without looking it up.
rpc_reply rpc_run(rpc_function handler, const std::vector<value> &arguments = {});

// Names of all registered commands in table order.
std::vector<std::string> rpc_names();

// The table row of a command, or null.
const rpc_export_t *rpc_find(const std::string &name);

// The operations can be made to fail by their names in calls.h: add, array_add, struct_add,
// rpl_printf and struct_printf give -1 and add nothing, scan gives 0 and reads nothing.

// Part of reset().
void reset_rpc();

}  // namespace standin
