// "tarn_memdb.clear_all" and "tarn_memdb.clear_tbl".
#include <cerrno>

#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char CLEAR_ALL[] = "tarn_memdb.clear_all";
constexpr char CLEAR_TBL[] = "tarn_memdb.clear_tbl";
constexpr char EMPTY_FILES[] = "Version 1\n / Version 1\n";

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};
const table NUMBERED = {
    .name = "numbered", .columns = {{"id", 10, true}, {"a"}}, .log_tag = "NUM", .use_index = true};
const table MEDIA = claiming_table("media", "dynamic", "MEDIA");

class RpcClearTest : public RpcTest {};

// clear_all

TEST_F(RpcClearTest, ClearAllEmptiesEveryTableInTurnUnderItsOwnLock) {
  open({USERS, QUIET, MEDIA});
  insert("users,alice|30|rome");
  insert("quiet,1|2");
  insert("media,1|c1|a|b|21003|WAN||0|0");
  EXPECT_THAT(trace(CLEAR_ALL),
              ElementsAre("{users} notice     USERS - (0) RPC Clearing table users",
                          "{media} notice     MEDIA - (0) RPC Clearing table media"));
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_THAT(reply.faults, IsEmpty());
  for (const std::string name : {"users", "quiet", "media"}) {
    expect_rows(name, {});
    EXPECT_EQ(both_files(name), EMPTY_FILES) << name;
    EXPECT_EQ(info_line(name, "State"), "State: 0") << name;
  }
}

TEST_F(RpcClearTest, ClearAllSetsStateCountAndIndexThenStoresWithoutALockHeld) {
  open({QUIET});
  insert("quiet,1|2");
  EXPECT_THAT(trace(CLEAR_ALL, {}, DBG_LEVEL),
              ElementsAre("{quiet} dbg Table 'quiet' state was set to value 2\n",
                          "{quiet} dbg Table 'quiet' row count was set to 0\n",
                          "{quiet} dbg Table 'quiet' index was set to 1\n",
                          "dbg Looking all tables for changes\n",
                          "dbg Storing table 'quiet' to file 'quiet.txt'\n",
                          "{quiet} dbg Table 'quiet' was cleared. Saving changes to file\n",
                          "{quiet} dbg Table 'quiet' state was set to value 0\n"));
}

TEST_F(RpcClearTest, ClearAllLooksAtNoArgument) {
  open({QUIET});
  insert("quiet,1|2");
  silently(CLEAR_ALL, {"users"});
  EXPECT_THAT(reply.scans, IsEmpty());
  expect_rows("quiet", {});
}

TEST_F(RpcClearTest, ClearAllTakesTheRowsOfTheBackupToo) {
  write_file(main_file("users"), table_text({"alice|30|rome"}));
  open({USERS});
  insert("users,bob|31|oslo");
  standin::tick();
  ASSERT_EQ(both_files("users"),
            "Version 1\nalice|30|rome\nbob|31|oslo\n / Version 1\nalice|30|rome\n");
  trace(CLEAR_ALL);
  EXPECT_EQ(both_files("users"), EMPTY_FILES);
  reopen();
  expect_rows("users", {});
}

TEST_F(RpcClearTest, AfterClearAllTheNextIndexIsOne) {
  open({NUMBERED});
  insert("numbered,|x");
  insert("numbered,|y");
  trace(CLEAR_ALL);
  insert("numbered,|z");
  expect_rows("numbered", {{"1", "z"}});
}

TEST_F(RpcClearTest, ClearAllFreesEveryPortOfEveryMapAtOnce) {
  write_file(ranges_file(), "INT 21001 21002\n");
  open({MEDIA, claiming_table("lines", "static")});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  insert("media,2|c2|a|b||LAN|10003|0|0");
  insert("lines,1|c1|a|b|22003|WAN||0|0");
  insert("lines,2|c2|a|b||LAN|9003|0|0");
  ASSERT_EQ(run("tarn_memdb_get_port", {"INT"}), 21000);
  const steps seen = trace(CLEAR_ALL, {}, DBG_LEVEL);
  EXPECT_THAT(seen, testing::Each(Not(testing::HasSubstr("is freed"))))
      << "no row's port is given back by itself";
  for (const small_map &map : SMALL_MAPS)
    for (int port = map.min; port <= map.max; port++)
      EXPECT_EQ(port_byte(map.word, port), 0) << map.word << " " << port;
  for (const std::string &line : lines("tarn_memdb.show_pm_info"))
    EXPECT_THAT(line, Not(testing::HasSubstr("Next free port = 21001")));
  EXPECT_EQ(run("tarn_memdb_get_port", {"INT"}), 21000);
  EXPECT_EQ(run("tarn_memdb_get_port", {"INT"}), 21001) << "no longer set aside";
}

TEST_F(RpcClearTest, ATableWithoutATagWritesNoAuditLine) {
  open({QUIET});
  insert("quiet,1|2");
  EXPECT_THAT(trace(CLEAR_ALL), IsEmpty());
  insert("quiet,1|2");
  EXPECT_THAT(trace(CLEAR_TBL, {"quiet"}), ElementsAre("scan s"));
}

TEST_F(RpcClearTest, ClearAllOfTablesThatAreEmptyAlreadyWritesTheirFilesAllTheSame) {
  open({QUIET});
  EXPECT_EQ(both_files("quiet"), "none / none");
  trace(CLEAR_ALL);
  EXPECT_EQ(both_files("quiet"), EMPTY_FILES);
}

TEST_F(RpcClearTest, ClearAllWithoutTablesClearsThePortsOnly) {
  open({});
  ASSERT_EQ(run("tarn_memdb_get_port", {"INT"}), 21000);
  silently(CLEAR_ALL, {});
  EXPECT_EQ(port_byte("INT", 21000), 0);
}

TEST_F(RpcClearTest, ClearAllWithoutARegistryIsFaulted) {
  open({QUIET});
  close();
  EXPECT_THAT(trace(CLEAR_ALL), ElementsAre("fault 500 Internal Error"));
  EXPECT_EQ(reply.fault->code, 500);
}

TEST_F(RpcClearTest, ClearAllWithATableThatWasNotMadeIsFaultedBeforeAnyChange) {
  // A start that fails at the second table leaves one table with its rows not loaded and one that
  // isn't there.
  write_file(main_file("quiet"), table_text({"1|2"}));
  configure({QUIET, USERS});
  shared_blocks_may_stay = true;
  standin::fail_from(pool::shm, 1 + 4 + 4 + 1 + 1 + 3 + 2 + 1);
  ASSERT_EQ(init(), -1);
  standin::stop_failing();
  const std::string before = both_files("quiet");
  EXPECT_THAT(trace(CLEAR_ALL, {}, DBG_LEVEL), ElementsAre("fault 500 Internal Error"));
  EXPECT_EQ(both_files("quiet"), before);
}

TEST_F(RpcClearTest, AStoreThatFailsIsLoggedForItsTableAndTriedAgain) {
  open({USERS, QUIET});
  insert("users,alice|30|rome");
  insert("quiet,1|2");
  standin::tick();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_THAT(trace(CLEAR_ALL, {}, WARN_LEVEL),
              ElementsAre("{users} err Could not open file '" + main_file("users") + "'\n",
                          "err Could not store table 'users' to file 'users.txt'\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(info_line("users", "State"), "State: 2");
  EXPECT_EQ(both_files("users"), "none / none") << "the file that couldn't be opened is removed";
  EXPECT_EQ(both_files("quiet"), EMPTY_FILES) << "the other table is stored all the same";
  standin::tick();
  EXPECT_EQ(both_files("users"), EMPTY_FILES);
}

TEST_F(RpcClearTest, ABackupThatCannotBeClearedKeepsTheStateUntilItCan) {
  open({USERS});
  insert("users,alice|30|rome");
  standin::tick();
  insert("users,bob|31|oslo");
  standin::tick();
  for (const char *command : {CLEAR_ALL, CLEAR_TBL}) {
    standin::fail_file_op("fopen", 2, EACCES);
    EXPECT_THAT(
        trace(command, {"users"}, WARN_LEVEL),
        testing::AllOf(Contains("{users} err Could not open file '" + backup_file("users") + "'\n"),
                       Contains("err Could not store table 'users' to file 'users.txt'\n")));
    EXPECT_EQ(both_files("users"), "Version 1\n / none");
    EXPECT_EQ(info_line("users", "State"), "State: 2");
    standin::tick();
    EXPECT_EQ(both_files("users"), EMPTY_FILES);
  }
}

TEST_F(RpcClearTest, AnInsertAheadOfTheStoreMakesAClearedTableAChangedOne) {
  open({USERS});
  insert("users,alice|30|rome");
  standin::tick();
  standin::fail_file_op("fopen", 1, EACCES);
  trace(CLEAR_TBL, {"users"});
  ASSERT_EQ(info_line("users", "State"), "State: 2");
  insert("users,bob|31|oslo");
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  EXPECT_THAT(stored("users"), ElementsAre("bob|31|oslo"));
}

// clear_tbl

TEST_F(RpcClearTest, ClearTblEmptiesOneTableAndItsFiles) {
  open({USERS, QUIET});
  insert("users,alice|30|rome");
  insert("quiet,1|2");
  standin::tick();
  insert("users,bob|31|oslo");
  EXPECT_THAT(trace(CLEAR_TBL, {"users"}),
              ElementsAre("scan s", "{users} notice     USERS - (0) RPC Clearing table users"));
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {});
  EXPECT_EQ(both_files("users"), EMPTY_FILES);
  expect_rows("quiet", {{"1", "2"}});
}

TEST_F(RpcClearTest, ClearTblSetsStateCountAndIndexThenStoresWithoutALockHeld) {
  open({QUIET});
  insert("quiet,1|2");
  EXPECT_THAT(trace(CLEAR_TBL, {"quiet"}, DBG_LEVEL),
              ElementsAre("scan s", "{quiet} dbg Table 'quiet' state was set to value 2\n",
                          "{quiet} dbg Table 'quiet' row count was set to 0\n",
                          "{quiet} dbg Table 'quiet' index was set to 1\n",
                          "dbg Looking all tables for changes\n",
                          "dbg Storing table 'quiet' to file 'quiet.txt'\n",
                          "{quiet} dbg Table 'quiet' was cleared. Saving changes to file\n",
                          "{quiet} dbg Table 'quiet' state was set to value 0\n"));
}

TEST_F(RpcClearTest, ClearTblStoresEveryChangedTable) {
  open({USERS, QUIET});
  insert("quiet,1|2");
  ASSERT_EQ(both_files("quiet"), "none / none");
  trace(CLEAR_TBL, {"users"});
  EXPECT_EQ(both_files("quiet"), "Version 1\n1|2\n / none");
}

TEST_F(RpcClearTest, AfterClearTblTheNextIndexIsOne) {
  open({NUMBERED});
  insert("numbered,|x");
  trace(CLEAR_TBL, {"numbered"});
  insert("numbered,|z");
  expect_rows("numbered", {{"1", "z"}});
}

TEST_F(RpcClearTest, ClearTblLeavesThePortsOfItsRowsTakenForGood) {
  open({MEDIA});
  insert("media,1|c1|a|b|21000|WAN||0|0");
  trace(CLEAR_TBL, {"media"});
  EXPECT_EQ(port_byte("INT", 21000), 0x81);
  EXPECT_EQ(run("tarn_memdb_get_port", {"INT"}), 21001);
  trace("tarn_memdb.delete", {"media,*|*|*|*|*|*|*|*|*"});
  EXPECT_EQ(port_byte("INT", 21000), 0x81);
  trace(CLEAR_ALL);
  EXPECT_EQ(port_byte("INT", 21000), 0);
}

TEST_F(RpcClearTest, ClearTblTakesTheArgumentsFirstWord) {
  open({USERS, QUIET});
  for (const std::string argument : {"users and more", "  users", "users\n", "\tusers\tquiet"}) {
    insert("users,alice|30|rome");
    silently(CLEAR_TBL, {argument});
    EXPECT_EQ(row_count("users"), 0) << argument;
  }
}

TEST_F(RpcClearTest, ClearTblWithoutAnArgument) {
  open({USERS});
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(CLEAR_TBL),
                ElementsAre("scan s", "warn RPC Clear tbl: not enough parameters\n",
                            "fault 500 Not enough parameters"));
    EXPECT_EQ(reply.fault->text, "Not enough parameters");
  }
}

TEST_F(RpcClearTest, ClearTblOnAnUnknownTableLogsTheWordAndFaultsTheWholeArgument) {
  open({USERS, QUIET});
  insert("quiet,1|2");
  EXPECT_THAT(trace(CLEAR_TBL, {" nobody %s users"}),
              ElementsAre("scan s", "err Table 'nobody' was not found\n",
                          "err RPC Clear tbl: wrong table name: 'nobody'",
                          "fault 500 Wrong table name: ' nobody %s users'"));
  EXPECT_EQ(both_files("quiet"), "none / none") << "nothing is stored";
  trace(CLEAR_TBL, {""});
  EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: ''");
}

TEST_F(RpcClearTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  insert(known + ",x");
  for (const size_t length : {32u, 33u, 5000u}) {
    const std::string name(length, 'n');
    EXPECT_THAT(trace(CLEAR_TBL, {name}),
                ElementsAre("scan s", "err Table '" + name + "' was not found\n",
                            "err RPC Clear tbl: wrong table name: '" + known + "'",
                            "fault 500 Wrong table name: '" + name + "'"));
  }
  expect_rows(known, {{"x"}});
}

TEST_F(RpcClearTest, RowsGiveTheirMemoryBackAndNoneIsNeeded) {
  open({USERS, QUIET});
  const size_t blocks = module_blocks(pool::shm);
  for (const char *command : {CLEAR_ALL, CLEAR_TBL}) {
    for (int i = 0; i < 20; i++) insert("users," + std::to_string(i) + "|30|rome");
    EXPECT_EQ(module_blocks(pool::shm), blocks + 20);
    standin::fail_from(pool::both, 1);
    trace(command, {"users"});
    standin::stop_failing();
    EXPECT_EQ(module_blocks(pool::shm), blocks);
    EXPECT_EQ(both_files("users"), EMPTY_FILES);
  }
  EXPECT_EQ(standin::failed_allocations(), 0u);
}

TEST_F(RpcClearTest, AClearedTableTakesRowsAndFindsThemByItsIndex) {
  open({USERS});
  for (const char *command : {CLEAR_ALL, CLEAR_TBL}) {
    for (int i = 0; i < 20; i++) insert("users," + std::to_string(i) + "|30|rome");
    trace(command, {"users"});
    insert("users,7|31|oslo");
    expect_rows("users", {{"7", "31", "oslo"}});
    EXPECT_EQ(lines("tarn_memdb.select", {"users,8|*|*"}), steps{"TABLE:"});
  }
}

}  // namespace
}  // namespace module_test
