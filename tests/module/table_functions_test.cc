// tarn_memdb_clear_tbl and tarn_memdb_row_count.
#include <cerrno>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age"}}};
const table OTHER = {"other", {{"x"}}};
const std::string NAME_OF_31(31, 'n');

class ClearTest : public ModuleTest {
 protected:
  int clear(const std::string &name) { return run("tarn_memdb_clear_tbl", {name}); }

  void expect_refused(const std::string &name, std::vector<message> said) {
    SCOPED_TRACE(name);
    standin::clear_logs();
    EXPECT_EQ(clear(name), -1);
    said.push_back(err("Clear table failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
  }
};

TEST_F(ClearTest, RemovesEveryRowAndStoresAtOnce) {
  write_file(main_file("users"), table_text({"alice|30", "bob|31"}));
  start({USERS, OTHER});
  const standin::command call_of_it = fixup("tarn_memdb_clear_tbl", {"users"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Table name: users\n"),
                                      dbg("Table 'users' state was set to value 1\n"),
                                      dbg("Looking all tables for changes\n"),
                                      dbg("Storing table 'users' to file 'users.txt'\n"),
                                      dbg("Table 'users' was changed. Saving changes to file\n"),
                                      dbg("Saving backup file '" + backup_file("users") + "'\n"),
                                      dbg("Saving file '" + main_file("users") + "'\n"),
                                      dbg("Table 'users' state was set to value 0\n"),
                                      dbg("Storing table 'other' to file 'other.txt'\n"),
                                      dbg("Table 'other' was not changed\n")));
  expect_rows("users", {});
  EXPECT_EQ(read_file(main_file("users")), table_text({}));
  EXPECT_EQ(read_file(backup_file("users")), table_text({"alice|30", "bob|31"}));
}

TEST_F(ClearTest, FreesTheRows) {
  start({USERS});
  const size_t blocks = module_blocks(pool::shm);
  for (int i = 0; i < 20; i++) run("tarn_memdb_insert", {"users,name" + std::to_string(i) + "|1"});
  EXPECT_EQ(module_blocks(pool::shm), blocks + 20);
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(module_blocks(pool::shm), blocks);
}

TEST_F(ClearTest, RowsCanBeInsertedAndFoundAfterwards) {
  write_file(main_file("users"), table_text({"alice|30", "bob|31", "alice|32"}));
  start({USERS});
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,alice|1"}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,bob|2"}), 1);
  expect_rows("users", {{"alice", "1"}, {"bob", "2"}});
}

TEST_F(ClearTest, AnEmptyTableIsMarkedAndStoredAllTheSame) {
  start({USERS});
  EXPECT_EQ(clear("users"), 1);
  EXPECT_TRUE(standin::logged(DBG_LEVEL, "Table 'users' was changed. Saving changes to file\n"));
  EXPECT_EQ(read_file(main_file("users")), table_text({}));
}

TEST_F(ClearTest, OtherTablesAreStoredAlongAndKeepTheirRows) {
  start({USERS, OTHER});
  run("tarn_memdb_insert", {"other,kept"});
  run("tarn_memdb_insert", {"users,gone|1"});
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(read_file(main_file("other")), table_text({"kept"}));
  expect_rows("other", {{"kept"}});
}

TEST_F(ClearTest, StoresWithTheTimerOffToo) {
  module().set_param("store_tbl_auto", 0);
  write_file(main_file("users"), table_text({"alice|30"}));
  start({USERS});
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(read_file(main_file("users")), table_text({}));
}

TEST_F(ClearTest, AFailedStoreIsToldAndTheTableIsClearedAllTheSame) {
  write_file(main_file("users"), table_text({"alice|30"}));
  start({USERS});
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_EQ(clear("users"), 1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not open file '" + main_file("users") + "'\n"),
                          err("Could not store table 'users' to file 'users.txt'\n")));
  expect_rows("users", {});
  EXPECT_TRUE(store_writes("users"));
}

TEST_F(ClearTest, TheNumberCounterGoesOn) {
  start({with(USERS, 100, "", true)});
  EXPECT_EQ(run("tarn_memdb_insert", {"users,x|1"}), 1);
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,x|1"}), 2);
}

TEST_F(ClearTest, ATaggedTableWritesOneLineWithSevenBlanksAndACountOfNone) {
  write_file(main_file("users"), table_text({"alice|30", "bob|31"}));
  start({with(USERS, 100, "USR")});
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(clear("users"), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("        USR - (0) Clearing table users"),
                          notice("        USR - (0) Clearing table users")));
}

TEST_F(ClearTest, TheLineStandsAheadOfTheStore) {
  start({with(USERS, 100, "USR")});
  const standin::command call_of_it = fixup("tarn_memdb_clear_tbl", {"users"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(messages()[2], notice("        USR - (0) Clearing table users"));
  EXPECT_EQ(messages()[3], dbg("Looking all tables for changes\n"));
}

TEST_F(ClearTest, ATableWithoutATagWritesNoLine) {
  start({USERS});
  EXPECT_EQ(clear("users"), 1);
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
}

TEST_F(ClearTest, TheNameComesFromTheMessage) {
  write_file(main_file("users"), table_text({"alice|30"}));
  start({USERS});
  standin::set_value(msg, "$fU", "ers");
  EXPECT_EQ(clear("us$fU"), 1);
  expect_rows("users", {});
}

TEST_F(ClearTest, AnUnknownTableIsRefused) {
  start({USERS});
  for (const std::string name : {"nobody", "Users", "users,", "users ", "user"})
    expect_refused(name, {err("Table '" + name + "' was not found\n"),
                          err("Table '" + name + "' not found\n")});
}

TEST_F(ClearTest, ANameThatPrintsToNothingIsRefused) {
  start({USERS});
  standin::set_var("empty", "");
  expect_refused("", {err(UNPRINTABLE)});
  expect_refused("$var(empty)", {err(UNPRINTABLE)});
}

TEST_F(ClearTest, ANameMayHave31CharactersAndNoMore) {
  start({{NAME_OF_31, {{"x"}}}});
  run("tarn_memdb_insert", {NAME_OF_31 + ",row"});
  expect_refused(NAME_OF_31 + "n", {err(UNPRINTABLE)});
  expect_refused(NAME_OF_31 + std::string(5000, 'n'), {err(UNPRINTABLE)});
  EXPECT_EQ(row_count(NAME_OF_31), 1);
  EXPECT_EQ(clear(NAME_OF_31), 1);
  EXPECT_EQ(row_count(NAME_OF_31), 0);
}

TEST_F(ClearTest, ANameThatCantBePrintedIsRefused) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_clear_tbl", {"users"});
  forget();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("Clear table failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(ClearTest, NeedsNoMemory) {
  write_file(main_file("users"), table_text({"alice|30"}));
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_clear_tbl", {"users"});
  standin::fail_from(pool::both, 1);
  EXPECT_EQ(call(call_of_it), 1);
  standin::stop_failing();
  expect_rows("users", {});
}

class RowCountTest : public ModuleTest {
 protected:
  int count(const std::string &name, const std::string &target) {
    return run("tarn_memdb_row_count", {name, target});
  }

  void expect_refused(const std::string &name, const std::string &target,
                      std::vector<message> said) {
    SCOPED_TRACE(name + " / " + target);
    const size_t before = standin::avp_count();
    standin::clear_logs();
    EXPECT_EQ(count(name, target), -1);
    said.push_back(err("Get row count failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
    EXPECT_EQ(standin::avp_count(), before);
  }
};

TEST_F(RowCountTest, AnEmptyTableCountsZeroAndGivesOne) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_row_count", {"users", "$avp(n)"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::avp("n"), std::vector<value>{"0"});
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(RowCountTest, TheCountFollowsInsertsDeletesUpdatesAndClears) {
  start({USERS});
  const auto counted = [&] {
    EXPECT_EQ(count("users", "$avp(n)"), 1);
    return standin::avp("n").front();
  };
  for (const std::string name : {"a", "b", "c", "d"})
    run("tarn_memdb_insert", {"users," + name + "|1"});
  EXPECT_EQ(counted(), value("4"));
  run("tarn_memdb_delete", {"users,a|*"});
  EXPECT_EQ(counted(), value("3"));
  run("tarn_memdb_update", {"users,b|*", "|"});
  EXPECT_EQ(counted(), value("2"));
  run("tarn_memdb_clear_tbl", {"users"});
  EXPECT_EQ(counted(), value("0"));
}

TEST_F(RowCountTest, TheNewValueStandsBeforeOlderOnes) {
  write_file(main_file("users"), table_text({"alice|30", "bob|31"}));
  start({USERS});
  standin::push_avp("n", "old");
  EXPECT_EQ(count("users", "$avp(n)"), 1);
  EXPECT_EQ(standin::avp("n"), (std::vector<value>{"2", "old"}));
}

TEST_F(RowCountTest, TheTargetMayBeANumberedAvpOrOneNamedByAVariable) {
  start({USERS});
  EXPECT_EQ(count("users", "$avp(i:42)"), 1);
  EXPECT_EQ(standin::avp(42), std::vector<value>{"0"});
  standin::set_var("name", "n");
  EXPECT_EQ(count("users", "$avp($var(name))"), 1);
  EXPECT_EQ(standin::avp("n"), std::vector<value>{"0"});
}

TEST_F(RowCountTest, TheFirstVariableOfTheTargetCountsWhateverStandsAroundIt) {
  start({USERS});
  EXPECT_EQ(count("users", "x$avp(n)y$avp(m)"), 1);
  EXPECT_EQ(standin::avp("n"), std::vector<value>{"0"});
  EXPECT_THAT(standin::avp("m"), IsEmpty());
}

TEST_F(RowCountTest, ATargetWithoutAVariableIsRefused) {
  start({USERS});
  for (const std::string target : {"n", ""})
    expect_refused("users", target, {err("Could not get avp name\n")});
}

// The host keeps a script variable's own record where it keeps the name of an AVP, and would follow
// it as one.
TEST_F(RowCountTest, AScriptVariableIsNoTarget) {
  start({USERS});
  expect_refused("users", "$var(n)", {err("Could not get avp name\n")});
}

TEST_F(RowCountTest, ATargetWhoseNameCantBeResolvedIsRefused) {
  start({USERS});
  expect_refused("users", "$avp($fU)", {err("Could not get avp name\n")});
  const standin::command call_of_it = fixup("tarn_memdb_row_count", {"users", "$avp(n)"});
  forget();
  standin::fail_call("pv_get_avp_name", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not get avp name\n"), err("Get row count failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(RowCountTest, ARefusedAvpIsToldAndRefused) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_row_count", {"users", "$avp(n)"});
  forget();
  standin::fail_call("add_avp", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not add avp\n"), err("Get row count failed!\n")));
  EXPECT_THAT(standin::avp("n"), IsEmpty());
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(RowCountTest, AnUnknownTableIsRefused) {
  start({USERS});
  expect_refused("nobody", "$avp(n)",
                 {err("Table 'nobody' was not found\n"), err("Table 'nobody' not found\n")});
}

TEST_F(RowCountTest, NamesThatCantBePrintedAreRefused) {
  start({{NAME_OF_31, {{"x"}}}});
  expect_refused("", "$avp(n)", {err(UNPRINTABLE)});
  expect_refused(NAME_OF_31 + "n", "$avp(n)", {err(UNPRINTABLE)});
  EXPECT_EQ(count(NAME_OF_31, "$avp(n)"), 1);
  standin::fail_call("pv_printf", 1);
  expect_refused(NAME_OF_31, "$avp(n)", {err(UNPRINTABLE)});
}

TEST_F(RowCountTest, NothingIsChangedAndNoMemoryNeeded) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_row_count", {"users", "$avp(n)"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(RowCountTest, TheCallHasToHaveItsTargetFormat) {
  start({USERS});
  EXPECT_FALSE(fixup("tarn_memdb_row_count", {"users", "$nothing"}).accepted());
  EXPECT_FALSE(fixup("tarn_memdb_row_count", {"$nothing", "$avp(n)"}).accepted());
}

}  // namespace
}  // namespace module_test
