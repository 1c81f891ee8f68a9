// The module's public face: its parameters and script functions in one place.
#include "host/imports.h"
#include "host/loader_symbols.h"
#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "ports/script/script_ports.h"
#include "script/lifecycle.h"
#include "script/params/fixup.h"
#include "script/select/select_functions.h"
#include "script/statement/statement_functions.h"
#include "script/writes/write_functions.h"
#include "tables/files/table_files.h"
#include "tables/schema.h"

namespace {

constexpr unsigned int ROUTES = EVERY_ROUTE_BUT_ONSEND;

// clang-format off
constinit const cmd_export_t commands[] = {
    // name                                         function                                      parameters, fix-up, free fix-up, routes
    {"tarn_memdb_clear_pmap",                        tarn_memdb_clear_pmap,                        0, nullptr,                      nullptr,              ROUTES},
    {"tarn_memdb_clear_tbl",                         tarn_memdb_clear_tbl,                         1, fix_query_and_avps,           nullptr,              ROUTES},
    {"tarn_memdb_insert",                            tarn_memdb_insert,                            1, fix_named_query_and_formats,  nullptr,              ROUTES},
    {"tarn_memdb_delete",                            tarn_memdb_delete,                            1, fix_named_query_and_formats,  nullptr,              ROUTES},
    {"tarn_memdb_select",                            tarn_memdb_select,                            2, fix_named_query_and_avps,     nullptr,              ROUTES},
    {"tarn_memdb_select_best_match",                 tarn_memdb_select_best_match,                 3, fix_query_avps_and_numbers,   nullptr,              ROUTES},
    {"tarn_memdb_select_by_port_type",               tarn_memdb_select_by_port_type,               3, fix_port_pair_query,          nullptr,              ROUTES},
    {"tarn_memdb_nl_select",                         tarn_memdb_nl_select,                         2, fix_named_query_and_avps,     nullptr,              ROUTES},
    {"tarn_memdb_nl_select_best_match",              tarn_memdb_nl_select_best_match,              3, fix_query_avps_and_numbers,   nullptr,              ROUTES},
    {"tarn_memdb_nl_select_by_port_type",            tarn_memdb_nl_select_by_port_type,            3, fix_port_pair_query,          nullptr,              ROUTES},
    {"tarn_memdb_update",                            tarn_memdb_update,                            2, fix_named_query_and_formats,  nullptr,              ROUTES},
    {"tarn_memdb_row_count",                         tarn_memdb_row_count,                         2, fix_formats,                  nullptr,              ROUTES},
    {"sqll_tarn_memdb_select",                       sqll_tarn_memdb_select,                       2, fix_statement_and_avps,       nullptr,              ROUTES},
    {"sqll_tarn_memdb_delete",                       sqll_tarn_memdb_delete,                       1, fix_statement_and_avps,       nullptr,              ROUTES},
    {"sqll_tarn_memdb_insert",                       sqll_tarn_memdb_insert,                       1, fix_statement_and_avps,       nullptr,              ROUTES},
    {"sqll_tarn_memdb_update",                       sqll_tarn_memdb_update,                       1, fix_statement_and_avps,       nullptr,              ROUTES},
    {"tarn_memdb_get_port",                          tarn_memdb_get_port,                          2, fix_formats,                  nullptr,              ROUTES},
    {"tarn_memdb_get_port",                          tarn_memdb_get_port1,                         1, fix_statement_and_avps,       nullptr,              ROUTES},
    {"tarn_memdb_get_port_from_range",               tarn_memdb_get_port_from_range,               2, fix_formats,                  nullptr,              ROUTES},
    {"tarn_memdb_set_port",                          tarn_memdb_set_port,                          2, fix_formats,                  nullptr,              ROUTES},
    {"tarn_memdb_free_port",                         tarn_memdb_free_port,                         2, fix_formats,                  nullptr,              ROUTES},
    {"tarn_memdb_nl_select_best_match_prefix",       tarn_memdb_nl_select_best_match_prefix,       4, fix_query_avps_and_numbers,   nullptr,              ROUTES},
    {"tarn_memdb_nl_select_field_out_of_range",      tarn_memdb_nl_select_field_out_of_range,      5, fix_query_avps_and_numbers,   nullptr,              ROUTES},
    {"tarn_memdb_nl_select_field_within_the_range",  tarn_memdb_nl_select_field_within_the_range,  6, fix_query_avps_and_numbers,   nullptr,              ROUTES},
    {"tarn_memdb_nl_select_subnetmask",              tarn_memdb_nl_select_subnetmask,              5, fix_query_avps_and_formats,   nullptr,              ROUTES},
    {"tarn_memdb_xavp_select",                       tarn_memdb_xavp_select,                       2, fix_named_query_and_xavp,     fixup_free_spve_spve, ROUTES},
    {"tarn_memdb_nl_xavp_select",                    tarn_memdb_nl_xavp_select,                    2, fix_named_query_and_xavp,     fixup_free_spve_spve, ROUTES},
    {"tarn_memdb_xavp_select_best_match",            tarn_memdb_xavp_select_best_match,            3, fix_named_query_and_xavp,     fixup_free_spve_spve, ROUTES},
    {"tarn_memdb_nl_xavp_select_best_match",         tarn_memdb_nl_xavp_select_best_match,         3, fix_named_query_and_xavp,     fixup_free_spve_spve, ROUTES},
    {},
};

constinit const param_export_t params[] = {
    {"cfg_file_path", PARAM_STRING, &cfg_file_path},
    {"private_ranges_file_path", PARAM_STRING, &port_settings.private_ranges_file_path},
    {"store_tbl_auto", PARAM_INT, &store_settings.automatic},
    {"store_tbl_interval", PARAM_INT, &store_settings.interval},
    {"min_ext_port", PARAM_INT, &port_settings.external.min},
    {"max_ext_port", PARAM_INT, &port_settings.external.max},
    {"min_int_port", PARAM_INT, &port_settings.internal.min},
    {"max_int_port", PARAM_INT, &port_settings.internal.max},
    {"min_static_ext_port", PARAM_INT, &port_settings.static_external.min},
    {"max_static_ext_port", PARAM_INT, &port_settings.static_external.max},
    {"min_static_int_port", PARAM_INT, &port_settings.static_internal.min},
    {"max_static_int_port", PARAM_INT, &port_settings.static_internal.max},
    {},
};
// clang-format on

}  // namespace

// The RPC commands aren't in here: mod_init registers them.
constinit const module_exports_t exports = {
    "tarn_memdb", 0, commands, params, nullptr, nullptr, nullptr, mod_init, child_init, mod_destroy,
};
