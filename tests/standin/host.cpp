// Exports of other modules, RPC registration and timers.
#include "tests/standin/host.h"

#include <cstring>

#include "tests/standin/calls.h"
#include "tests/standin/pv.h"

namespace standin {
namespace {

struct host_state {
  host_kind kind = host_kind::exported_explode;
  bool pv_loaded = true;
  std::vector<rpc_export_t *> tables;
  std::vector<timer_record> timer_list;
};

host_state &state() {
  static host_state &only = *new host_state;
  return only;
}

void unwanted_operation() { note_misuse("one of the first eight operations of the pv record"); }

int register_pv_api(pv_api_t *api) {
  if (call_fails("pv_register_api") || api == nullptr) return 0;
  for (void *&operation : api->unused) operation = reinterpret_cast<void *>(unwanted_operation);
  // A host of the other kinds has a shorter record and leaves the ninth place as it was.
  if (state().kind == host_kind::ninth_operation) api->explode_params = explode_ninth;
  return 1;
}

}  // namespace

void set_host_kind(host_kind kind) { state().kind = kind; }
host_kind get_host_kind() { return state().kind; }
void set_pv_module_loaded(bool loaded) { state().pv_loaded = loaded; }
const std::vector<rpc_export_t *> &rpc_tables() { return state().tables; }
const std::vector<timer_record> &timers() { return state().timer_list; }

void tick(unsigned int ticks) {
  for (const timer_record &timer : timers()) timer.function(ticks, timer.param);
}

void reset_host() { state() = {}; }

}  // namespace standin

cmd_function find_export(const char *name, int param_no, int flags) {
  if (standin::call_fails("find_export") || !standin::state().pv_loaded || flags != 0)
    return nullptr;
  if (strcmp(name, "pv_register_api") == 0 && param_no == -1)
    return reinterpret_cast<cmd_function>(reinterpret_cast<void (*)()>(standin::register_pv_api));
  if (strcmp(name, "xavp_params_explode") == 0 && param_no == 2 &&
      standin::state().kind != standin::host_kind::without_explode)
    return standin::explode_exported;
  return nullptr;
}

int rpc_register_array(rpc_export_t *commands) {
  if (standin::call_fails("rpc_register_array")) return -1;
  standin::state().tables.push_back(commands);
  return 0;
}

int register_timer(void (*function)(unsigned int ticks, void *param), void *param,
                   unsigned int interval) {
  if (standin::call_fails("register_timer")) return -1;
  standin::state().timer_list.push_back({function, param, interval});
  return static_cast<int>(standin::state().timer_list.size());
}
