// Which functions wait for which lock: another process calls them while this one holds it.
#include "tests/module/all_in_one_table.h"
#include "tests/module/lock_probe.h"

namespace module_test {
namespace {

// Of a call: what it does while another process holds the table's lock, and while it holds that of
// the port maps.
struct lock_case {
  std::string function;
  texts parameters;
  probe beside_table;
  probe beside_ports;
};

std::ostream &operator<<(std::ostream &out, const lock_case &shown) {
  return out << shown.function << " " << joined(shown.parameters, " ");
}

constexpr probe goes_on(int result) { return {false, result}; }
constexpr probe waits(int result) { return {true, result}; }

class FunctionLocksTest : public LockProbeTest, public testing::WithParamInterface<lock_case> {
 protected:
  void SetUp() override {
    LockProbeTest::SetUp();
    write_file(ranges_file(), "EXT 10000 10001\n");
    start_with({all_in_one(), port_table("p", "dynamic"), all_in_one(1000, "empty")},
               {{"t", {line("5", "500", "10.0.0.1", "a")}}, {"p", {"1|a|b|c||WAN||0|0|21100|"}}});
  }
  // Of the table that the call's first parameter names, and of the one with ports for none.
  tarn_lock *table_lock() {
    const std::string text = GetParam().parameters.empty() ? "p" : GetParam().parameters[0];
    const auto names = [&text](const std::string &name) {
      return text == name || text.find(name + ",") == 0 ||
             text.find(" " + name + " ") != std::string::npos;
    };
    return view().table(names("empty") ? "empty" : names("p") ? "p" : "t").lock;
  }
  probe beside(tarn_lock *lock) {
    const standin::command prepared = fixup(GetParam().function, GetParam().parameters);
    return run_beside_holder(lock, [this, &prepared] { return ModuleTest::call(prepared); });
  }
};

TEST_P(FunctionLocksTest, WaitsForTheTableIfItIsMeantTo) {
  EXPECT_EQ(beside(table_lock()), GetParam().beside_table);
}

TEST_P(FunctionLocksTest, WaitsForThePortMapsIfItIsMeantTo) {
  EXPECT_EQ(beside(view().port_lock()), GetParam().beside_ports);
}

std::vector<lock_case> lock_cases() {
  const std::string none = query("zzz");
  return {
      // Selects with and without the lock.
      {"tarn_memdb_select", {query("*"), ID}, waits(1), goes_on(1)},
      {"tarn_memdb_nl_select", {query("*"), ID}, goes_on(1), goes_on(1)},
      {"tarn_memdb_xavp_select", {query("*"), "x"}, waits(1), goes_on(1)},
      {"tarn_memdb_nl_xavp_select", {query("*"), "x"}, goes_on(1), goes_on(1)},
      {"tarn_memdb_select_best_match", {query("5"), ID, "1"}, waits(1), goes_on(1)},
      {"tarn_memdb_nl_select_best_match", {query("5"), ID, "1"}, goes_on(1), goes_on(1)},
      {"tarn_memdb_nl_select_best_match_prefix",
       {query("5"), ID, "1", "0"},
       goes_on(1),
       goes_on(1)},
      {"tarn_memdb_xavp_select_best_match", {query("5"), "x", "1"}, waits(1), goes_on(1)},
      {"tarn_memdb_nl_xavp_select_best_match", {query("5"), "x", "1"}, goes_on(1), goes_on(1)},
      {"tarn_memdb_nl_select_field_out_of_range",
       {query("*"), ID, "1", "0", "4"},
       goes_on(1),
       goes_on(1)},
      {"tarn_memdb_nl_select_field_within_the_range",
       {query("*"), ID, "1", "0", "4", "$var(c)"},
       goes_on(-2),
       goes_on(-2)},
      {"tarn_memdb_nl_select_subnetmask",
       {query("*"), ID, "10.0.0.1", "x", "x"},
       goes_on(1),
       goes_on(1)},
      {"sqll_tarn_memdb_select",
       {"SELECT id FROM t WHERE grp=g", "$avp(id)"},
       waits(1),
       goes_on(1)},
      // Without a match they wait all the same, but the plain one not for an empty table.
      {"tarn_memdb_select", {none, ID}, waits(-2), goes_on(-2)},
      {"tarn_memdb_xavp_select", {none, "x"}, waits(-2), goes_on(-2)},
      {"tarn_memdb_select_best_match", {none, ID, "1"}, waits(-2), goes_on(-2)},
      {"tarn_memdb_select", {"empty,g" + repeated("|*", 15), ID}, goes_on(-2), goes_on(-2)},
      {"tarn_memdb_xavp_select", {"empty,g" + repeated("|*", 15), "x"}, goes_on(-2), goes_on(-2)},
      {"tarn_memdb_select_best_match",
       {"empty,g|5" + repeated("|*", 14), ID, "1"},
       waits(-2),
       goes_on(-2)},
      {"tarn_memdb_xavp_select_best_match",
       {"empty,g|5" + repeated("|*", 14) + ",", "x", "1"},
       waits(-2),
       goes_on(-2)},
      {"sqll_tarn_memdb_select",
       {"SELECT id FROM empty WHERE grp=g", "$avp(id)"},
       waits(-2),
       goes_on(-2)},
      // A column is looked at under the lock, a query that can't be parsed isn't.
      {"tarn_memdb_select_best_match", {query("5"), ID, "16"}, waits(-1), goes_on(-1)},
      {"tarn_memdb_select_best_match", {query("*"), ID, "1"}, waits(-1), goes_on(-1)},
      {"tarn_memdb_select_best_match", {"t,a|b", ID, "1"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_select", {"t,a|b", ID}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_select", {query("*", ",0"), ID}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_xavp_select", {"t,a|b", "x"}, goes_on(-1), goes_on(-1)},
      {"sqll_tarn_memdb_select",
       {"SELECT x FROM t WHERE grp=g", "$avp(x)"},
       goes_on(-1),
       goes_on(-1)},
      // Writes, those to a table that holds ports too, which take the maps' lock never.
      {"tarn_memdb_insert", {"p,2|d|e|f||WAN||0|0|21101|"}, waits(1), goes_on(1)},
      {"tarn_memdb_update", {"p,id=1,", "int_port=21102"}, waits(1), goes_on(1)},
      {"tarn_memdb_delete", {"p,id=1,"}, waits(1), goes_on(1)},
      {"sqll_tarn_memdb_insert",
       {"INSERT INTO p int_port,location VALUES 21103,WAN"},
       waits(1),
       goes_on(1)},
      {"sqll_tarn_memdb_update",
       {"UPDATE p SET int_port=21104 WHERE int_port=21100"},
       waits(1),
       goes_on(1)},
      {"sqll_tarn_memdb_delete", {"DELETE FROM p WHERE id=1"}, waits(1), goes_on(1)},
      {"sqll_tarn_memdb_insert",
       {"INSERT INTO p int_port,location VALUES 21103"},
       goes_on(-1),
       goes_on(-1)},
      {"sqll_tarn_memdb_update",
       {"UPDATE p SET int_port='x' WHERE id=1"},
       goes_on(-1),
       goes_on(-1)},
      {"sqll_tarn_memdb_delete", {"DELETE FROM p WHERE id=1 MAX=x"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_insert", {"p,1"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_update", {"p,1", "k1=x"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_update", {"p,id=1,", "*"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_delete", {"p,1"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_clear_tbl", {"p"}, waits(1), goes_on(1)},
      {"tarn_memdb_clear_tbl", {"nowhere"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_row_count", {"p", "$avp(c)"}, goes_on(1), goes_on(1)},
      // Ports.
      {"tarn_memdb_get_port", {"INT"}, goes_on(21000), waits(21000)},
      {"tarn_memdb_get_port", {"INT", "$avp(p)"}, goes_on(1), waits(1)},
      {"tarn_memdb_get_port_from_range", {"EXT", "10000"}, goes_on(10001), waits(10001)},
      {"tarn_memdb_get_port_from_range", {"EXT", "1"}, goes_on(-1), waits(-1)},
      {"tarn_memdb_get_port_from_range", {"INT", "1"}, goes_on(0), waits(0)},
      {"tarn_memdb_set_port", {"21001", "INT"}, goes_on(1), waits(1)},
      {"tarn_memdb_set_port", {"1", "INT"}, goes_on(-2), waits(-2)},
      {"tarn_memdb_free_port", {"INT", "21001"}, goes_on(0), goes_on(0)},
      {"tarn_memdb_get_port", {"wrong"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_get_port", {"wrong", "$avp(p)"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_get_port_from_range", {"wrong", "1"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_set_port", {"1", "wrong"}, goes_on(-1), goes_on(-1)},
      {"tarn_memdb_clear_pmap", {}, waits(1), waits(1)},
  };
}

INSTANTIATE_TEST_SUITE_P(All, FunctionLocksTest, testing::ValuesIn(lock_cases()),
                         [](const auto &tested) {
                           return tested.param.function + "_" + std::to_string(tested.index);
                         });

class FunctionsAtWorkTest : public LockProbeTest {};

TEST_F(FunctionsAtWorkTest, PortPairsAreSelectedWithAndWithoutTheLock) {
  start_with({all_in_one()}, {{"t", {line("5", "500", "9.9.9.9", "a")}}});
  const texts parameters = {"external_port", pair_query(), PAIR_ID};
  const standin::command locked = fixup("tarn_memdb_select_by_port_type", parameters);
  const standin::command nl = fixup("tarn_memdb_nl_select_by_port_type", parameters);
  tarn_lock *const lock = view().table("t").lock;
  EXPECT_EQ(run_beside_holder(lock, [&] { return ModuleTest::call(locked); }), waits(1));
  EXPECT_EQ(run_beside_holder(lock, [&] { return ModuleTest::call(nl); }), goes_on(1));
  tarn_lock *const ports = view().port_lock();
  EXPECT_EQ(run_beside_holder(ports, [&] { return ModuleTest::call(locked); }), goes_on(1));
  EXPECT_EQ(run_beside_holder(ports, [&] { return ModuleTest::call(nl); }), goes_on(1));
}

TEST_F(FunctionsAtWorkTest, AWrongSelectionOfPortPairsTakesNoLock) {
  start_with({all_in_one()}, {{"t", {line("5", "500", "9.9.9.9", "a")}}});
  const standin::command prepared =
      fixup("tarn_memdb_select_by_port_type", {"port", pair_query(), PAIR_ID});
  EXPECT_EQ(run_beside_holder(view().table("t").lock, [&] { return ModuleTest::call(prepared); }),
            goes_on(-1));
}

TEST_F(FunctionsAtWorkTest, TheTableOfUsersIsReadWithoutItsLock) {
  start_with({all_in_one(), {"remote_sub_dn_list", {{"dn"}, {"domain"}}}},
             {{"t", {"g|5|home|||a|||||||1|0|1|1"}}, {"remote_sub_dn_list", {"alice|home"}}});
  const standin::command prepared =
      fixup("tarn_memdb_nl_select_subnetmask", {query("*"), ID, "10.0.0.1", "alice", "alice"});
  EXPECT_EQ(run_beside_holder(view().table("remote_sub_dn_list").lock,
                              [&] { return ModuleTest::call(prepared); }),
            goes_on(1));
}

TEST_F(FunctionsAtWorkTest, AnExhaustedMapIsSeenWithoutTheLockByTheFormWithAnAvpAlone) {
  ASSERT_TRUE(module().set_param("min_int_port", 100));
  ASSERT_TRUE(module().set_param("max_int_port", 100));
  start({});
  EXPECT_EQ(run("tarn_memdb_get_port", {"INT"}), 100);
  const standin::command one = fixup("tarn_memdb_get_port", {"INT"});
  const standin::command two = fixup("tarn_memdb_get_port", {"INT", "$avp(p)"});
  EXPECT_EQ(run_beside_holder(view().port_lock(), [&] { return ModuleTest::call(one); }),
            waits(-1));
  EXPECT_EQ(run_beside_holder(view().port_lock(), [&] { return ModuleTest::call(two); }),
            goes_on(1));
}

TEST_F(FunctionsAtWorkTest, TheLastPortGoneBetweenTestAndLockIsToldAsExhaustion) {
  ASSERT_TRUE(module().set_param("min_int_port", 100));
  ASSERT_TRUE(module().set_param("max_int_port", 100));
  start({});
  const standin::command two = fixup("tarn_memdb_get_port", {"INT", "$avp(p)"});
  port_m &map = view().map("INT");
  // This process takes the port under the lock while the other one waits for it.
  const probe other = run_beside_holder(
      view().port_lock(),
      [&] {
        // The other one's first look at the map is made by now; what follows happens to it as it
        // waits.
        const int result = ModuleTest::call(two);
        return result == 1 && avp_texts("p") == texts{"-1"} ? 1 : 0;
      },
      [&] {
        map.port_map[0] = 0x80;
        map.next_free_port = -1;
      });
  EXPECT_EQ(other, waits(1));
  EXPECT_EQ(view().port("INT", 100), 0x80) << "taken once";
}

TEST_F(FunctionsAtWorkTest, ClearingThePortMapsWaitsForTablesToClearOrToStoreThem) {
  start_with({all_in_one(), port_table("p", "dynamic")}, {{"p", {"1|a|b|c||WAN||0|0|21100|"}}});
  const standin::command prepared = fixup("tarn_memdb_clear_pmap", {});
  const auto clear_pmap = [&] { return ModuleTest::call(prepared); };
  EXPECT_EQ(run_beside_holder(view().table("p").lock, clear_pmap,
                              [&] { EXPECT_EQ(view().table("p").row_count, 1) << "not cleared"; }),
            waits(1));
  ASSERT_EQ(run("tarn_memdb_insert", {"p,1|a|b|c||WAN||0|0|21100|"}), 1);
  EXPECT_EQ(run_beside_holder(view().table("t").lock, clear_pmap,
                              [&] {
                                EXPECT_EQ(view().table("p").row_count, 0) << "emptied by now";
                                EXPECT_EQ(view().port("INT", 21100), 0);
                              }),
            waits(1));
}

TEST_F(FunctionsAtWorkTest, ClearingThePortMapsWaitsForTheirLockWithoutATablesOne) {
  start_with({port_table("p", "dynamic")}, {{"p", {"1|a|b|c||WAN||0|0|21100|"}}});
  const standin::command prepared = fixup("tarn_memdb_clear_pmap", {});
  EXPECT_EQ(run_beside_holder(
                view().port_lock(), [&] { return ModuleTest::call(prepared); },
                [&] { EXPECT_EQ(view().table("p").lock->load(), 0U); }),
            waits(1));
}

}  // namespace
}  // namespace module_test
