// What a call of a script function costs: allocations, and calls into the host.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}, 5000, "USR"};

class CostsTest : public ModuleTest {
 protected:
  void start_with_rows(const table &t, int number) {
    texts rows;
    for (int i = 0; i < number; i++) rows.push_back("name" + std::to_string(i) + "|30|rome");
    start_filled(t, rows);
  }

  // One call that gives this result, with all counts begun anew ahead of it.
  void call_alone(const standin::command &prepared, int result) {
    ASSERT_TRUE(prepared.accepted());
    forget();
    EXPECT_EQ(call(prepared), result);
  }

  void expect_allocations(uint64_t pkg, uint64_t shm) {
    EXPECT_EQ(standin::allocation_count(pool::pkg), pkg);
    EXPECT_EQ(standin::allocation_count(pool::shm), shm);
  }
};

TEST_F(CostsTest, ASelectIntoAvpsMakesOnePrivateAllocationWhateverItFinds) {
  start_with_rows(USERS, 200);
  for (const std::string function : {"tarn_memdb_select", "tarn_memdb_nl_select"}) {
    const std::string names = "$avp(a)|$avp(b)||";
    call_alone(fixup(function, {"users,name7|*|*", names}), 1);
    expect_allocations(1, 0);
    call_alone(fixup(function, {"users,*|30|*", names}), 1);
    expect_allocations(1, 0);
    call_alone(fixup(function, {"users,nobody|*|*", names}), -2);
    expect_allocations(1, 0);
    call_alone(fixup(function, {"users,*|*|rome,", names}), 1);
    expect_allocations(1, 0);
  }
}

TEST_F(CostsTest, AnInsertMakesOneSharedAllocationBesideTheQuerysOwn) {
  start_with_rows(USERS, 3);
  call_alone(fixup("tarn_memdb_insert", {"users,dave|1|x"}), 1);
  expect_allocations(1, 1);
}

TEST_F(CostsTest, TheDuplicateCheckOfAPlainTableCostsNoAllocation) {
  start_with_rows(with(USERS, 5000, "", false, true), 3);
  call_alone(fixup("tarn_memdb_insert", {"users,dave|1|x"}), 1);
  expect_allocations(1, 1);
}

TEST_F(CostsTest, TheNumberAndItsDuplicateCheckCostOneAllocationEach) {
  start_with_rows(with(USERS, 5000, "", true), 0);
  call_alone(fixup("tarn_memdb_insert", {"users,x|1|x"}), 1);
  expect_allocations(2, 1);
  unload();
  load();
  start_with_rows(with(USERS, 5000, "", true, true), 0);
  call_alone(fixup("tarn_memdb_insert", {"users,x|1|x"}), 1);
  expect_allocations(3, 1);
}

TEST_F(CostsTest, ADeleteMakesOnePrivateAllocationWhateverItRemoves) {
  start_with_rows(USERS, 200);
  call_alone(fixup("tarn_memdb_delete", {"users,name7|*|*"}), 1);
  expect_allocations(1, 0);
  call_alone(fixup("tarn_memdb_delete", {"users,*|*|rome"}), 1);
  expect_allocations(1, 0);
}

TEST_F(CostsTest, AnUpdateMakesOnePrivateAllocationForEachOfItsLists) {
  start_with_rows(USERS, 200);
  call_alone(fixup("tarn_memdb_update", {"users,*|*|*", "*|31|*"}), 1);
  expect_allocations(2, 0);
  // By name: the new text, and the host's record of the one item.
  call_alone(fixup("tarn_memdb_update", {"users,*|*|*", "age=32"}), 1);
  expect_allocations(4, 0);
  EXPECT_EQ(standin::calls("free_params"), 1);
}

TEST_F(CostsTest, CountingAndClearingMakeNone) {
  start_with_rows(USERS, 200);
  call_alone(fixup("tarn_memdb_row_count", {"users", "$avp(n)"}), 1);
  expect_allocations(0, 0);
  call_alone(fixup("tarn_memdb_clear_tbl", {"users"}), 1);
  expect_allocations(0, 0);
}

TEST_F(CostsTest, ASelectIntoXavpsMakesTwoPrivateAllocationsOfItsOwn) {
  start_with_rows(USERS, 50);
  const auto own = [this](const std::string &function, const std::string &query) {
    const size_t before = standin::explode_calls().size();
    call_alone(fixup(function, {query, "row"}), 1);
    // Each XAVP costs the host an allocation per item while it reads the text.
    return standin::allocation_count(pool::pkg) - 3 * (standin::explode_calls().size() - before);
  };
  for (const std::string function : {"tarn_memdb_xavp_select", "tarn_memdb_nl_xavp_select"}) {
    EXPECT_EQ(own(function, "users,name7|*|*"), 2u);
    EXPECT_EQ(own(function, "users,*|*|*"), 2u);
  }
}

TEST_F(CostsTest, TheHostIsAskedForEachTextOnceAndForNothingElse) {
  start_with_rows(USERS, 4);
  call_alone(fixup("tarn_memdb_select", {"users,*|*|*", "$avp(a)||$avp(c)"}), 1);
  EXPECT_EQ(standin::calls("pv_printf"), 1);
  EXPECT_EQ(standin::calls("add_avp"), 8);
  EXPECT_EQ(standin::calls("find_export"), 0);
  call_alone(fixup("tarn_memdb_xavp_select", {"users,*|*|*", "row"}), 1);
  EXPECT_EQ(standin::calls("pv_printf"), 1);
  EXPECT_EQ(standin::calls("get_str_fparam"), 1);
  EXPECT_EQ(standin::calls("explode_params"), 4);
  EXPECT_EQ(standin::calls("find_export"), 0);
  call_alone(fixup("tarn_memdb_update", {"users,*|*|*", "*|1|*"}), 1);
  EXPECT_EQ(standin::calls("pv_printf"), 2);
  call_alone(fixup("tarn_memdb_insert", {"users,x|1|*a"}), 1);
  EXPECT_EQ(standin::calls("pv_printf"), 1);
  call_alone(fixup("tarn_memdb_row_count", {"users", "$avp(n)"}), 1);
  EXPECT_EQ(standin::calls("pv_printf"), 1);
  EXPECT_EQ(standin::calls("add_avp"), 1);
}

struct asked {
  const char *function;
  texts parameters;
};

TEST_F(CostsTest, TheDebugLevelIsAskedForOncePerCallWhateverTheNumberOfRows) {
  const asked all[] = {
      {"tarn_memdb_select", {"users,*|30|*", "$avp(a)|$avp(b)"}},
      {"tarn_memdb_nl_select", {"users,*|30|*", "$avp(a)|$avp(b)"}},
      {"tarn_memdb_xavp_select", {"users,*|30|*", "row"}},
      {"tarn_memdb_nl_xavp_select", {"users,*|30|*", "row"}},
      {"tarn_memdb_row_count", {"users", "$avp(n)"}},
      {"tarn_memdb_insert", {"users,x|31|rome"}},
      {"tarn_memdb_update", {"users,*|30|*", "*|30|oslo"}},
      {"tarn_memdb_update", {"users,*|30|*", "city=oslo"}},
      {"tarn_memdb_update", {"users,*|31|*", "||"}},
      {"tarn_memdb_delete", {"users,*|30|*"}},
      {"tarn_memdb_clear_tbl", {"users"}},
  };
  for (const int level : {WARN_LEVEL, NOTICE_LEVEL, DBG_LEVEL}) {
    for (const int lines : {1, 300}) {
      start_with_rows(USERS, lines);
      for (const asked &one : all) {
        SCOPED_TRACE(std::string(one.function) + " of " + std::to_string(lines) +
                     " rows at level " + std::to_string(level));
        standin::set_debug_level(level);
        call_alone(fixup(one.function, one.parameters), 1);
        EXPECT_EQ(standin::debug_level_queries(), 1);
      }
      standin::set_debug_level(WARN_LEVEL);
      unload();
      load();
    }
  }
}

TEST_F(CostsTest, ARefusedCallAsksForTheDebugLevelOnceToo) {
  start_with_rows(USERS, 3);
  const asked all[] = {
      {"tarn_memdb_select", {"users,*|30", "$avp(a)"}},
      {"tarn_memdb_insert", {"users,*|31|rome"}},
      {"tarn_memdb_update", {"users,*|30|*", "*|30"}},
      {"tarn_memdb_delete", {"users,*|*|*,0"}},
      {"tarn_memdb_clear_tbl", {"nobody"}},
      {"tarn_memdb_row_count", {"users", "n"}},
  };
  for (const asked &one : all) {
    call_alone(fixup(one.function, one.parameters), -1);
    EXPECT_EQ(standin::debug_level_queries(), 1) << one.function;
  }
}

TEST_F(CostsTest, WithTheLogAtWarningsAGoodCallWritesNothing) {
  start_with_rows(USERS, 20);
  standin::set_debug_level(WARN_LEVEL);
  call_alone(fixup("tarn_memdb_insert", {"users,x|31|rome"}), 1);
  call_alone(fixup("tarn_memdb_select", {"users,*|30|*", "$avp(a)"}), 1);
  call_alone(fixup("tarn_memdb_update", {"users,*|30|*", "||"}), 1);
  call_alone(fixup("tarn_memdb_delete", {"users,*|*|*"}), 1);
  call_alone(fixup("tarn_memdb_clear_tbl", {"users"}), 1);
  EXPECT_THAT(messages(), IsEmpty());
}

}  // namespace
}  // namespace module_test
