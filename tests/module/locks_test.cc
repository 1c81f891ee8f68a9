// What happens inside and outside of a table's lock, message by message, and who gets it next.
#include "tests/module/fixture.h"
#include "tests/module/processes.h"

namespace module_test {
namespace {

using testing::ElementsAre;

const table USERS = {"users", {{"name", 31, true}, {"age"}}, 100, "USR"};
const table OTHER = {"other", {{"x"}, {"y"}}, 100, "OTH"};

class LocksTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ASSERT_TRUE(standin::use_shared_mapping(32U << 20));
    write_file(main_file("users"), table_text({"alice|30", "bob|31"}));
    write_file(main_file("other"), table_text({"1|2"}));
    start({USERS, OTHER, with(table{"full", {{"x"}}}, 0),
           with(table{"numbered", {{"id"}, {"x"}}, 100, "NUM"}, 100, "NUM", true, true)});
  }

  // Work for another process: a script function with these parameters.
  std::function<int()> calling(const std::string &function, const texts &parameters) {
    auto prepared = std::make_shared<standin::command>(fixup(function, parameters));
    EXPECT_TRUE(prepared->accepted());
    return [this, prepared] { return module().run(*prepared, msg); };
  }

  // True if a process that wants the table's lock has to wait.
  bool is_locked(const std::string &table_name) {
    const std::string query = table_name + (table_name == "full" ? ",x" : ",nothing|*");
    child_process probe(calling("tarn_memdb_delete", {query}));
    return probe.sleeps();
  }
};

TEST_F(LocksTest, AHeldLockIsSeen) {
  EXPECT_FALSE(is_locked("users"));
  lock_holder holder("users");
  EXPECT_TRUE(is_locked("users"));
  EXPECT_FALSE(is_locked("other"));
  EXPECT_EQ(holder.let_go(), 0);
  EXPECT_FALSE(is_locked("users"));
}

TEST_F(LocksTest, ASelectWithoutMemoryForItsXavpDoesntWait) {
  const std::function<int()> select = calling("tarn_memdb_xavp_select", {"users,alice|*", "row"});
  lock_holder holder("users");
  child_process caller([&] {
    standin::fail_at(pool::pkg, 2);
    return select();
  });
  EXPECT_FALSE(caller.sleeps());
  EXPECT_EQ(caller.result(), -2);
}

TEST_F(LocksTest, OtherTablesArentHeldUp) {
  lock_holder holder("users");
  for (const std::string function : {"tarn_memdb_select", "tarn_memdb_xavp_select"}) {
    child_process caller(
        calling(function, {"other,*|*", function == "tarn_memdb_select" ? "$avp(a)" : "row"}));
    EXPECT_EQ(caller.result(), 1);
  }
  child_process writer(calling("tarn_memdb_insert", {"other,3|4"}));
  EXPECT_EQ(writer.result(), 1);
}

TEST_F(LocksTest, TheTimerWaitsForAWorker) {
  stopped_process worker("USR - (1) Deleting", calling("tarn_memdb_delete", {"users,bob|*"}));
  child_process timer([] {
    standin::tick();
    return 5;
  });
  EXPECT_TRUE(timer.sleeps());
  EXPECT_EQ(worker.let_go(), 1);
  EXPECT_EQ(timer.result(), 5);
  EXPECT_EQ(read_file(main_file("users")), table_text({"alice|30"}));
}

TEST_F(LocksTest, WhatAnotherProcessChangedIsSeenHere) {
  child_process first(calling("tarn_memdb_insert", {"users,carol|32"}));
  EXPECT_EQ(first.result(), 1);
  child_process second(calling("tarn_memdb_insert", {"numbered,x|1"}));
  EXPECT_EQ(second.result(), 1);
  child_process third(calling("tarn_memdb_insert", {"numbered,x|2"}));
  EXPECT_EQ(third.result(), 2);
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,x|3"}), 3);
  expect_rows("users", {{"alice", "30"}, {"bob", "31"}, {"carol", "32"}});
  expect_rows("numbered", {{"1", "1"}, {"2", "2"}, {"3", "3"}});
  EXPECT_THAT(stored("users"), ElementsAre("alice|30", "bob|31", "carol|32"));
}

// A process is stopped at a message, and another one asks for the lock.
struct message_place {
  const char *message;
  bool locked;
  const char *table;
  const char *function;
  texts parameters;
  void (*prepare)() = [] {};
};

TEST_F(LocksTest, EachMessageStandsInsideOrOutsideOfTheLock) {
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,x|1"}), 1);
  const message_place places[] = {
      {"Insert: ", false, "users", "tarn_memdb_insert", {"users,dan|1"}},
      {"Could not parse query", false, "users", "tarn_memdb_insert", {"users,dan"}},
      {"MAX number of rows", true, "full", "tarn_memdb_insert", {"full,x"}},
      {"INSERT failed!", false, "full", "tarn_memdb_insert", {"full,x"}},
      {"Duplicated data", true, "numbered", "tarn_memdb_insert", {"numbered,x|1"}},
      {"Found a match", true, "numbered", "tarn_memdb_insert", {"numbered,x|1"}},
      {"Insertion of index failed",
       true,
       "numbered",
       "tarn_memdb_insert",
       {"numbered,x|9"},
       [] { standin::fail_at(pool::pkg, 3); }},
      {"Could not insert at table",
       true,
       "users",
       "tarn_memdb_insert",
       {"users,dan|1"},
       [] { standin::fail_at(pool::shm, 1); }},
      {"Initializing flag_treatment", true, "users", "tarn_memdb_insert", {"users,dan|1"}},
      {"row count was set", true, "users", "tarn_memdb_insert", {"users,dan|1"}},
      {"Inserting users,dan", false, "users", "tarn_memdb_insert", {"users,dan|1"}},
      {"Delete: ", false, "users", "tarn_memdb_delete", {"users,dan|*,1"}},
      {"Initializing flag_treatment", true, "users", "tarn_memdb_delete", {"users,dan|*,1"}},
      {"Deleting users,dan", true, "users", "tarn_memdb_delete", {"users,dan|*,1"}},
      {"row count was set", true, "users", "tarn_memdb_delete", {"users,dan|*,1"}},
      {"Select: ", false, "users", "tarn_memdb_update", {"users,alice|*", "*|1"}},
      {"Update: ", false, "users", "tarn_memdb_update", {"users,alice|*", "*|1"}},
      {"Before conversionL", false, "users", "tarn_memdb_update", {"users,alice|*", "age=1"}},
      {"Updating users,alice", true, "users", "tarn_memdb_update", {"users,alice|*", "*|1"}},
      {"state was set", true, "users", "tarn_memdb_update", {"users,alice|*", "*|1"}},
      {"UPDATE failed!", false, "users", "tarn_memdb_update", {"users,alice|*", "*"}},
      {"Deleting row from update", true, "users", "tarn_memdb_update", {"users,bob|*", "|"}},
      {"Select: ", false, "users", "tarn_memdb_select", {"users,alice|*", "$avp(a)"}},
      {"Could not add avp",
       true,
       "users",
       "tarn_memdb_select",
       {"users,alice|*", "$avp(a)"},
       [] { standin::fail_call("add_avp", 1); }},
      {"SELECT failed!",
       false,
       "users",
       "tarn_memdb_select",
       {"users,alice|*", "$avp(a)"},
       [] { standin::fail_call("add_avp", 1); }},
      {"Could not add avp",
       false,
       "users",
       "tarn_memdb_nl_select",
       {"users,alice|*", "$avp(a)"},
       [] { standin::fail_call("add_avp", 1); }},
      {"Select xavp", false, "users", "tarn_memdb_xavp_select", {"users,alice|*", "row"}},
      {"params to explode", true, "users", "tarn_memdb_xavp_select", {"users,alice|*", "row"}},
      {"Could not allocate xavp memory",
       false,
       "users",
       "tarn_memdb_xavp_select",
       {"users,alice|*", "row"},
       [] { standin::fail_at(pool::pkg, 2); }},
      {"params to explode", false, "users", "tarn_memdb_nl_xavp_select", {"users,alice|*", "row"}},
      {"Could not add avp",
       false,
       "users",
       "tarn_memdb_row_count",
       {"users", "$avp(a)"},
       [] { standin::fail_call("add_avp", 1); }},
      {"Table name: ", false, "users", "tarn_memdb_clear_tbl", {"users"}},
      {"Clearing table users", true, "users", "tarn_memdb_clear_tbl", {"users"}},
      {"Looking all tables", false, "users", "tarn_memdb_clear_tbl", {"users"}},
      {"was changed", true, "users", "tarn_memdb_clear_tbl", {"users"}},
  };
  for (const message_place &place : places) {
    SCOPED_TRACE(std::string(place.function) + " at " + place.message);
    const std::function<int()> work = calling(place.function, place.parameters);
    stopped_process worker(place.message, [&] {
      place.prepare();
      return work();
    });
    EXPECT_EQ(is_locked(place.table), place.locked);
    EXPECT_TRUE(worker.let_go().has_value());
    EXPECT_FALSE(is_locked(place.table)) << "the function kept the lock";
  }
}

TEST_F(LocksTest, ALockThatManyWaitForGoesToEachInTurn) {
  std::vector<std::unique_ptr<child_process>> callers;
  {
    lock_holder holder("users");
    for (int i = 0; i < 6; i++) {
      callers.push_back(std::make_unique<child_process>(
          calling("tarn_memdb_insert", {"users,name" + std::to_string(i) + "|1"})));
      EXPECT_TRUE(callers.back()->sleeps());
    }
  }
  for (const auto &caller : callers) EXPECT_EQ(caller->result(), 1);
  EXPECT_EQ(row_count("users"), 8);
  EXPECT_FALSE(is_locked("users"));
}

}  // namespace
}  // namespace module_test
