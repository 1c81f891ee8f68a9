// Which functions for other script languages wait for which lock: the same as their native twins.
#include "tests/module/all_in_one_table.h"
#include "tests/module/kemi_fixture.h"
#include "tests/module/lock_probe.h"

namespace module_test {
namespace {

// Of a call: what it does while another process holds the table's lock, and while it holds that of
// the port maps.
struct lock_case {
  std::string function;
  values given;
  probe beside_table;
  probe beside_ports;
  std::string table = "t";
};

std::ostream &operator<<(std::ostream &out, const lock_case &shown) {
  return out << shown.function << " on " << shown.table;
}

constexpr probe goes_on(int result) { return {false, result}; }
constexpr probe waits(int result) { return {true, result}; }
constexpr int GIVEN = 1, NONE_GIVEN = 0;  // a text, or null, in place of a number

class KemiLocksTest : public LockProbeTest, public testing::WithParamInterface<lock_case> {
 protected:
  void SetUp() override {
    standin::forget_kemi();
    LockProbeTest::SetUp();
    write_file(ranges_file(), "EXT 10000 10001\n");
    texts routes;
    for (int i = 0; i < 100; i++) routes.push_back("g|" + std::to_string(i) + "|x");
    start_with(
        {all_in_one(), port_table("p", "dynamic"), {"routes", {{"grp"}, {"prefix"}, {"gw"}}, 5000}},
        {{"t", {line("5", "500", "10.0.0.1", "a")}},
         {"p", {"1|a|b|c||WAN||0|0|21100|"}},
         {"routes", routes}});
  }

  int called() {
    const standin::kemi_result result =
        standin::kemi_call(*standin::kemi_find(GetParam().function), GetParam().given, &msg);
    if (result.kind == SR_KEMIP_INT) return result.number;
    return result.kind == SR_KEMIP_STR ? GIVEN : NONE_GIVEN;
  }
  probe beside(tarn_lock *lock) {
    return run_beside_holder(lock, [this] { return called(); });
  }
};

TEST_P(KemiLocksTest, WaitsForTheTableIfItIsMeantTo) {
  EXPECT_EQ(beside(view().table(GetParam().table).lock), GetParam().beside_table);
}

TEST_P(KemiLocksTest, WaitsForThePortMapsIfItIsMeantTo) {
  EXPECT_EQ(beside(view().port_lock()), GetParam().beside_ports);
}

std::vector<lock_case> lock_cases() {
  const std::string route = "routes,g|4711|*";
  return {
      {"select", {query("*"), ID}, waits(1), goes_on(1)},
      {"nl_select", {query("*"), ID}, goes_on(1), goes_on(1)},
      {"xavp_select", {query("*"), "x"}, waits(1), goes_on(1)},
      {"nl_xavp_select", {query("*"), "x"}, goes_on(1), goes_on(1)},
      {"select_best_match", {query("5"), ID, 1}, waits(1), goes_on(1)},
      {"nl_select_best_match", {query("5"), ID, 1}, goes_on(1), goes_on(1)},
      {"nl_select_best_match_prefix", {query("5"), ID, 1, 0}, goes_on(1), goes_on(1)},
      {"xavp_select_best_match", {query("5"), "x", 1}, waits(1), goes_on(1)},
      {"nl_xavp_select_best_match", {query("5"), "x", 1}, goes_on(1), goes_on(1)},
      {"nl_select_field_out_of_range", {query("*"), ID, 1, 0, 4}, goes_on(1), goes_on(1)},
      {"nl_select_field_within_the_range", {query("*"), 1, 0}, goes_on(1), goes_on(1)},
      {"nl_select_subnetmask", {query("*"), ID, "10.0.0.1", "x", "x"}, goes_on(1), goes_on(1)},
      {"get", {query("*"), 5}, waits(GIVEN), goes_on(GIVEN)},
      {"get", {query("*"), 16}, goes_on(NONE_GIVEN), goes_on(NONE_GIVEN)},
      {"escape", {"a|b"}, goes_on(GIVEN), goes_on(GIVEN)},
      // A large table's look-up is made under the lock, once, whoever asks for it.
      {"nl_select_best_match", {route, "||$avp(gw)", 1}, waits(1), goes_on(1), "routes"},
      {"nl_select_best_match_prefix",
       {route, "||$avp(gw)", 1, 1},
       goes_on(1),
       goes_on(1),
       "routes"},
      {"insert", {"p,2|d|e|f||WAN||0|0|21101|"}, waits(1), goes_on(1), "p"},
      {"insert", {"p,2|d|e|\\|||WAN||0|0|21101|"}, goes_on(-1), goes_on(-1), "p"},
      {"update",
       {"p,1" + repeated("|*", 10), "*|*|*|z" + repeated("|*", 7)},
       waits(1),
       goes_on(1),
       "p"},
      {"update",
       {"p,1" + repeated("|*", 10), "*|*|*|\\|" + repeated("|*", 7)},
       goes_on(-1),
       goes_on(-1),
       "p"},
      {"delete", {"p,1" + repeated("|*", 10)}, waits(1), goes_on(1), "p"},
      {"clear_tbl", {"p"}, waits(1), goes_on(1), "p"},
      {"row_count", {"p"}, goes_on(1), goes_on(1), "p"},
      {"get_port", {"INT"}, goes_on(21000), waits(21000)},
      {"get_port_from_range", {"EXT", 10000}, goes_on(10001), waits(10001)},
      {"set_port", {21001, "INT"}, goes_on(1), waits(1)},
      {"free_port", {"INT", 21001}, goes_on(1), goes_on(1)},
      {"clear_pmap", {}, waits(1), waits(1), "p"},
  };
}

INSTANTIATE_TEST_SUITE_P(All, KemiLocksTest, testing::ValuesIn(lock_cases()),
                         [](const auto &tested) {
                           return tested.param.function + "_" + std::to_string(tested.index);
                         });

}  // namespace
}  // namespace module_test
