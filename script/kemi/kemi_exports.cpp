// The functions of KSR.tarn_memdb in one place.
#include "script/kemi/kemi_exports.h"

#include "host/imports.h"
#include "host/log.h"
#include "script/kemi/kemi_functions.h"

namespace {

constexpr char MODULE[] = TARN_MODULE_NAME;

// Kept by the host. Kinds of parameters and results follow from the functions' types.
// clang-format off
constinit sr_kemi_t functions[] = {
    kemi_row(MODULE, "clear_pmap",                        kemi_clear_pmap),
    kemi_row(MODULE, "clear_tbl",                         kemi_clear_tbl),
    kemi_row(MODULE, "insert",                            kemi_insert),
    kemi_row(MODULE, "delete",                            kemi_delete),
    kemi_row(MODULE, "update",                            kemi_update),
    kemi_row(MODULE, "row_count",                         kemi_row_count),
    kemi_row(MODULE, "select",                            kemi_select),
    kemi_row(MODULE, "nl_select",                         kemi_nl_select),
    kemi_row(MODULE, "xavp_select",                       kemi_xavp_select),
    kemi_row(MODULE, "nl_xavp_select",                    kemi_nl_xavp_select),
    kemi_row(MODULE, "select_best_match",                 kemi_select_best_match),
    kemi_row(MODULE, "nl_select_best_match",              kemi_nl_select_best_match),
    kemi_row(MODULE, "nl_select_best_match_prefix",       kemi_nl_select_best_match_prefix),
    kemi_row(MODULE, "xavp_select_best_match",            kemi_xavp_select_best_match),
    kemi_row(MODULE, "nl_xavp_select_best_match",         kemi_nl_xavp_select_best_match),
    kemi_row(MODULE, "nl_select_field_out_of_range",      kemi_nl_select_field_out_of_range),
    kemi_row(MODULE, "nl_select_field_within_the_range",  kemi_nl_select_field_within_the_range),
    kemi_row(MODULE, "nl_select_subnetmask",              kemi_nl_select_subnetmask),
    kemi_row(MODULE, "get_port",                          kemi_get_port),
    kemi_row(MODULE, "get_port_from_range",               kemi_get_port_from_range),
    kemi_row(MODULE, "set_port",                          kemi_set_port),
    kemi_row(MODULE, "free_port",                         kemi_free_port),
    kemi_row(MODULE, "escape",                            kemi_escape),
    kemi_row(MODULE, "get",                               kemi_get),
    {},
};
// clang-format on

}  // namespace

bool offer_to_script_languages() {
  if (&sr_kemi_modules_add == nullptr || sr_kemi_modules_add(functions) >= 0) return true;
  LM_ERR("failed to register functions for other script languages\n");
  return false;
}
