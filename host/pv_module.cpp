// Binding of the pv module, on hosts with and without the ninth operation of its record.
#include "host/pv_module.h"

#include "host/imports.h"

pv_api_t pv_api;

namespace {

using pv_register_api_function = int (*)(pv_api_t *);

// pv's script function for the same work, used where the record's ninth place stayed empty.
cmd_function xavp_params_explode;

fparam_t text_param(str text) {
  fparam_t param{};
  param.orig = text.s;
  param.type = FPARAM_STR;
  param.v.text = text;
  return param;
}

}  // namespace

bool host_import_pv() {
  const cmd_function exported = find_export("pv_register_api", -1, 0);
  if (exported == nullptr) return false;
  pv_api = {};
  // Exports that aren't script functions pass through the loader's table under its one type.
  reinterpret_cast<pv_register_api_function>(reinterpret_cast<void (*)()>(exported))(&pv_api);
  xavp_params_explode =
      pv_api.explode_params == nullptr ? find_export("xavp_params_explode", 2, 0) : nullptr;
  return true;
}

int host_explode_xavp(sip_msg *msg, str params, str xavp_name) {
  if (pv_api.explode_params != nullptr) return pv_api.explode_params(&params, &xavp_name);
  if (xavp_params_explode == nullptr) return -1;
  fparam_t first = text_param(params);
  fparam_t second = text_param(xavp_name);
  return xavp_params_explode(msg, reinterpret_cast<char *>(&first),
                             reinterpret_cast<char *>(&second));
}

const char *host_rpc_container() { return pv_api.explode_params != nullptr ? "(" : "["; }
