// What the host offers a module at its start: exports of other modules, RPC registration, timers;
// and which kind of host the stand-in is.
#pragma once

#include <vector>

#include "host/imports.h"

namespace standin {

// How a host makes XAVPs, and with it which RPC container it knows (see rpc.h).
enum class host_kind {
  ninth_operation,   // the pv record's ninth place is filled; replies know "(" and "["
  exported_explode,  // eight places, and the script function xavp_params_explode; "[" only
  without_explode,   // eight places and no such function; "[" only
};

// At first exported_explode, which is what the packaged hosts are.
void set_host_kind(host_kind kind);
host_kind get_host_kind();

// Whether the pv module is loaded; without it find_export finds nothing of it.
void set_pv_module_loaded(bool loaded);

// The RPC tables that rpc_register_array was given, in order. A failed call (see calls.h: -1)
// keeps nothing.
const std::vector<rpc_export_t *> &rpc_tables();

// One registered timer. A failed register_timer gives -1 and keeps nothing.
struct timer_record {
  void (*function)(unsigned int ticks, void *param);
  void *param;
  unsigned int interval;
};
const std::vector<timer_record> &timers();

// Calls every registered timer function once with these ticks.
void tick(unsigned int ticks = 1);

// Forgets tables and timers; host kind and pv module as at first. Part of reset().
void reset_host();

}  // namespace standin
