// The whole stand-in: reset, and the table of what it offers.
#include "tests/standin/standin.h"

#include <algorithm>

namespace standin {
namespace {

struct symbol {
  const char *name;
  const void *address;
};

template <typename Kind>
symbol symbol_of(const char *name, Kind *object) {
  return {name, reinterpret_cast<const void *>(object)};
}

#define OFFER(name) symbol_of(#name, &(name))

// Naming each symbol here also draws its definition from the static library into every program.
const symbol OFFERED[] = {OFFER(_ksr_slog_func),
                          OFFER(_km_log_func),
                          OFFER(log_stderr),
                          OFFER(log_color),
                          OFFER(log_prefix_val),
                          OFFER(log_level_info),
                          {"dprint_crit", const_cast<int *>(&dprint_crit)},
                          OFFER(process_no),
                          OFFER(my_pid),
                          OFFER(dprint_color),
                          OFFER(dprint_color_reset),
                          OFFER(get_debug_level),
                          OFFER(get_debug_facility),
                          OFFER(_pkg_root),
                          OFFER(_shm_root),
                          OFFER(rpc_register_array),
                          OFFER(register_timer),
                          OFFER(find_export),
                          OFFER(pv_parse_format),
                          OFFER(pv_parse_spec2),
                          OFFER(parse_pvname_list),
                          OFFER(fixup_pvar_null),
                          OFFER(fixup_spve_spve),
                          OFFER(fixup_free_spve_spve),
                          OFFER(parse_params),
                          OFFER(free_params),
                          OFFER(pv_printf),
                          OFFER(pv_get_spec_value),
                          OFFER(pv_set_spec_value),
                          OFFER(pv_get_avp_name),
                          OFFER(add_avp),
                          OFFER(get_str_fparam)};

#undef OFFER

}  // namespace

void reset() {
  reset_values();
  reset_host();
  reset_rpc();
  reset_params();
  reset_log();
  reset_calls();
  reset_misuses();
  reset_memory();
}

std::vector<std::string> offered_symbols() {
  std::vector<std::string> out;
  for (const symbol &offered : OFFERED)
    if (offered.address != nullptr) out.emplace_back(offered.name);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace standin
