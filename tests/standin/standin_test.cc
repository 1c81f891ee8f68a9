#include "tests/standin/standin.h"

#include <gtest/gtest.h>

#include "tests/standin/pv.h"

namespace standin {
namespace {

TEST(StandinTest, OffersAllThatAModuleMayImport) {
  EXPECT_EQ(
      offered_symbols(),
      (std::vector<std::string>{
          "_km_log_func",    "_ksr_slog_func",       "_pkg_root",          "_shm_root",
          "add_avp",         "dprint_color",         "dprint_color_reset", "dprint_crit",
          "find_export",     "fixup_free_spve_spve", "fixup_pvar_null",    "fixup_spve_spve",
          "free_params",     "get_debug_facility",   "get_debug_level",    "get_str_fparam",
          "log_color",       "log_level_info",       "log_prefix_val",     "log_stderr",
          "my_pid",          "parse_params",         "parse_pvname_list",  "process_no",
          "pv_get_avp_name", "pv_get_spec_value",    "pv_parse_format",    "pv_parse_spec2",
          "pv_printf",       "pv_set_spec_value",    "register_timer",     "rpc_register_array"}));
}

TEST(StandinTest, ResetBringsEverythingBackToItsFirstState) {
  reset();
  sip_msg msg;
  push_avp("a", 1);
  set_var("v", 2);
  set_host_kind(host_kind::ninth_operation);
  set_pv_module_loaded(false);
  set_debug_level(0);
  use_log_sink(log_sink::syslog);
  fail_calls_from("add_avp", 1);
  fail_from(pool::both, 1);
  note_misuse("x");
  register_timer(nullptr, nullptr, 1);
  set_params_order(params_order::forward);
  set_rpc_transport(rpc_transport::jsonrpcs);
  reset();
  EXPECT_EQ(avp_count(), 0u);
  EXPECT_EQ(var("v"), value(0));
  EXPECT_EQ(get_host_kind(), host_kind::exported_explode);
  EXPECT_NE(find_export("pv_register_api", -1, 0), nullptr);
  EXPECT_EQ(get_debug_level("", 0), L_DBG);
  EXPECT_NE(_ksr_slog_func, nullptr);
  EXPECT_EQ(calls("register_timer"), 0);
  int_str name, content;
  name.n = content.n = 1;
  EXPECT_EQ(add_avp(0, name, content), 0);
  void *block = core_pkg_malloc(1, "f", 1);
  EXPECT_NE(block, nullptr);
  core_pkg_free(block);
  EXPECT_TRUE(misuses().empty());
  EXPECT_TRUE(timers().empty());
  EXPECT_FALSE(params_forward());
}

TEST(StandinTest, CallsAreCountedByNameAndFailFromOneOnUntilStopped) {
  reset();
  int_str name, content;
  name.n = content.n = 1;
  fail_calls_from("add_avp", 2);
  EXPECT_EQ(add_avp(0, name, content), 0);
  EXPECT_NE(add_avp(0, name, content), 0);
  EXPECT_NE(add_avp(0, name, content), 0);
  stop_failing_calls();
  EXPECT_EQ(add_avp(0, name, content), 0);
  EXPECT_EQ(calls("add_avp"), 4);
  reset_calls();
  EXPECT_EQ(calls("add_avp"), 0);
}

}  // namespace
}  // namespace standin
