// "tarn_memdb.reload_table" and "tarn_memdb.sync".
#include <cerrno>

#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char RELOAD[] = "tarn_memdb.reload_table";
constexpr char SYNC[] = "tarn_memdb.sync";

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};
const table NUMBERED = {
    .name = "numbered", .columns = {{"id", 10, true}, {"a"}}, .use_index = true};
const table MEDIA = claiming_table("media", "dynamic");

class RpcReloadTest : public RpcTest {
 protected:
  void write_rows(const std::string &name, const std::vector<std::string> &texts) {
    write_file(main_file(name), table_text(texts));
  }
  void write_backup(const std::string &name, const std::vector<std::string> &texts) {
    write_file(backup_file(name), table_text(texts));
  }
};

// reload_table

TEST_F(RpcReloadTest, TheRowsOfTheFileTakeThePlaceOfThoseInMemory) {
  open({USERS, QUIET});
  insert("users,alice|30|rome");
  insert("quiet,1|2");
  write_rows("users", {"bob|31|oslo", "carol|32|bern"});
  EXPECT_THAT(trace(RELOAD, {"users"}), ElementsAre("scan s"));
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {{"bob", "31", "oslo"}, {"carol", "32", "bern"}});
  expect_rows("quiet", {{"1", "2"}});
}

TEST_F(RpcReloadTest, TheLockIsHeldThroughTheWholeLoad) {
  write_rows("users", {"bob|31|oslo"});
  open({USERS});
  const steps seen = trace(RELOAD, {"users"}, DBG_LEVEL);
  EXPECT_EQ(seen, (steps{"scan s", "{users} dbg Table 'users' state was set to value 1\n",
                         "{users} dbg Loading table 'users' from file 'users.txt'\n",
                         "{users} dbg Table 'users' row count was set to 0\n",
                         "{users} dbg Table 'users' index was set to 1\n",
                         "{users} dbg Initializing flag_treatment ...\n",
                         "{users} dbg Table 'users' row count was set to 1\n"}));
}

TEST_F(RpcReloadTest, TheTableCountsAsChangedSoTheNextStoreRotatesTheFileJustRead) {
  write_rows("users", {"bob|31|oslo"});
  open({USERS});
  const std::string by_hand = "Version 1\n# by hand\n\ncarol|32|bern";
  write_file(main_file("users"), by_hand);
  trace(RELOAD, {"users"});
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  EXPECT_EQ(both_files("users"), by_hand + " / none") << "nothing is stored by the command";
  standin::tick();
  EXPECT_EQ(both_files("users"), "Version 1\ncarol|32|bern\n / " + by_hand);
}

TEST_F(RpcReloadTest, WithoutFilesTheTableIsEmptyAndTheNextStoreWritesOne) {
  open({USERS});
  insert("users,alice|30|rome");
  EXPECT_THAT(trace(RELOAD, {"users"}), ElementsAre("scan s"));
  expect_rows("users", {});
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  EXPECT_EQ(both_files("users"), "none / none");
  standin::tick();
  EXPECT_EQ(both_files("users"), "Version 1\n / none");
}

TEST_F(RpcReloadTest, WithoutAMainFileTheBackupServes) {
  open({USERS});
  insert("users,alice|30|rome");
  write_backup("users", {"bob|31|oslo"});
  trace(RELOAD, {"users"});
  expect_rows("users", {{"bob", "31", "oslo"}});
  EXPECT_EQ(both_files("users"), "none / Version 1\nbob|31|oslo\n");
}

TEST_F(RpcReloadTest, ABadMainFileIsSetAsideAndTheBackupServes) {
  open({USERS});
  write_rows("users", {"carol|32|bern", "only two|fields"});
  write_backup("users", {"bob|31|oslo"});
  EXPECT_THAT(
      trace(RELOAD, {"users"}),
      ElementsAre("scan s", "{users} err Size mismatch",
                  "{users} err Wrong number of fields in field list: users,only two|fields | "
                  "(null)\n",
                  "{users} err Could not parse 'users,only two|fields'\n",
                  "{users} warn " + set_aside(main_file("users"))));
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {{"bob", "31", "oslo"}});
  EXPECT_EQ(both_files("users"), "none / Version 1\nbob|31|oslo\n");
}

TEST_F(RpcReloadTest, TwoBadFilesAreSetAsideWithoutAFault) {
  open({USERS});
  insert("users,alice|30|rome");
  write_file(main_file("users"), "Version 2\nbob|31|oslo\n");
  write_file(backup_file("users"), "");
  EXPECT_THAT(trace(RELOAD, {"users"}),
              ElementsAre("scan s",
                          "{users} err Wrong database version. Current DB: Version 1, Prensent on "
                          "File: Version 2\n",
                          "{users} warn " + set_aside(main_file("users")),
                          "{users} warn " + set_aside(backup_file("users"))));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_THAT(reply.lines, IsEmpty());
  expect_rows("users", {});
  EXPECT_EQ(both_files("users"), "none / none");
  EXPECT_EQ(read_file(refused(main_file("users"))), "Version 2\nbob|31|oslo\n");
  EXPECT_EQ(read_file(refused(backup_file("users"))), "");
}

TEST_F(RpcReloadTest, AValueThatItsFileCannotCarryHasTheFileSetAside) {
  open({USERS});
  insert("users,alice\\|x|30|rome");
  standin::tick();
  trace(RELOAD, {"users"});
  expect_rows("users", {});
  EXPECT_EQ(both_files("users"), "none / none");
  EXPECT_EQ(read_file(refused(main_file("users"))), table_text({"alice|x|30|rome"}));
}

TEST_F(RpcReloadTest, NeitherRowLimitNorDuplicatesAreCheckedInALoad) {
  table two = QUIET;
  two.max_rows = 2;
  two.check_duplicates = true;
  open({two});
  write_rows("quiet", {"1|1", "1|1", "1|1"});
  trace(RELOAD, {"quiet"});
  expect_rows("quiet", {{"1", "1"}, {"1", "1"}, {"1", "1"}});
}

TEST_F(RpcReloadTest, TheNextIndexIsOneAboveTheHighestInTheFile) {
  open({NUMBERED});
  for (int i = 0; i < 9; i++) insert("numbered,|" + std::to_string(i));
  write_rows("numbered", {"7|x", "3|y"});
  trace(RELOAD, {"numbered"});
  EXPECT_EQ(info_line("numbered", "Next index"), "Next index: 8");
  write_rows("numbered", {});
  trace(RELOAD, {"numbered"});
  EXPECT_EQ(info_line("numbered", "Next index"), "Next index: 1");
}

TEST_F(RpcReloadTest, EachReloadCountsThePortsOfTheLoadedRowsOnceMore) {
  write_rows("media", {"1|c1|a|b|21003|WAN||0|0"});
  open({MEDIA});
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
  trace(RELOAD, {"media"});
  EXPECT_EQ(port_byte("INT", 21003), 0x82);
  trace(RELOAD, {"media"});
  EXPECT_EQ(port_byte("INT", 21003), 0x83);
  trace("tarn_memdb.delete", {"media,*|*|*|*|*|*|*|*|*"});
  EXPECT_EQ(port_byte("INT", 21003), 0x82) << "the row's end no longer frees it";
}

TEST_F(RpcReloadTest, ThePortsOfTheRowsThatGoStayTaken) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  write_rows("media", {"2|c2|a|b|21004|WAN||0|0"});
  trace(RELOAD, {"media"});
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
  EXPECT_EQ(port_byte("INT", 21004), 0x81);
}

TEST_F(RpcReloadTest, PortsOfABadFilesRowsStayCountedBesideThoseOfTheBackup) {
  open({MEDIA});
  write_rows("media", {"1|c1|a|b|21003|WAN||0|0", "bad"});
  write_backup("media", {"1|c1|a|b|21003|WAN||0|0"});
  trace(RELOAD, {"media"});
  EXPECT_EQ(row_count("media"), 1);
  EXPECT_EQ(port_byte("INT", 21003), 0x82);
}

TEST_F(RpcReloadTest, ThePortLockIsNotTaken) {
  write_rows("media", {"1|c1|a|b|21003|WAN||0|0"});
  open({MEDIA});
  const steps seen = trace(RELOAD, {"media"}, DBG_LEVEL);
  EXPECT_EQ(seen.front(), "scan s");
  EXPECT_THAT(steps(seen.begin() + 1, seen.end()), Each(StartsWith("{media} ")));
}

TEST_F(RpcReloadTest, ReloadTakesTheArgumentsFirstWord) {
  open({USERS});
  for (const std::string argument : {"users and more", "  users", "users\n"}) {
    insert("users,alice|30|rome");
    silently(RELOAD, {argument});
    EXPECT_EQ(row_count("users"), 0) << argument;
  }
}

TEST_F(RpcReloadTest, ReloadWithoutAnArgument) {
  open({USERS});
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(RELOAD), ElementsAre("scan s", "warn wrong number of parameters\n",
                                           "fault 500 wrong number of parameters"));
    EXPECT_EQ(reply.fault->text, "wrong number of parameters");
  }
}

TEST_F(RpcReloadTest, ReloadOfAnUnknownTableFaultsTheWord) {
  open({USERS});
  EXPECT_THAT(trace(RELOAD, {"nobody users"}),
              ElementsAre("scan s", "err Table 'nobody' was not found\n",
                          "fault 500 Wrong table name: 'nobody'"));
  trace(RELOAD, {" "});
  EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: ''");
}

TEST_F(RpcReloadTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  insert(known + ",x");
  for (const size_t length : {32u, 33u, 5000u}) {
    for (const char *command : {RELOAD, SYNC}) {
      EXPECT_THAT(
          trace(command, {std::string(length, 'n')}),
          ElementsAre("scan s", "err Table '" + std::string(length, 'n') + "' was not found\n",
                      "fault 500 Wrong table name: '" + known + "'"));
    }
  }
  expect_rows(known, {{"x"}});
}

TEST_F(RpcReloadTest, EachAllocationFailingInTurnIsABadFile) {
  const std::vector<std::string> stored = {"bob|31|oslo", "carol|32|bern"};
  write_rows("users", stored);
  write_backup("users", {"dan|33|kyiv"});
  open({USERS});
  standin::reset_allocation_count();
  trace(RELOAD, {"users"});
  const uint64_t allocations = standin::allocation_count(pool::both);
  EXPECT_EQ(allocations, 4u) << "fields and a block for each of two rows";
  for (uint64_t n = 1; n <= allocations; n++) {
    write_rows("users", stored);
    write_backup("users", {"dan|33|kyiv"});
    standin::fail_at(pool::both, n);
    const steps seen = trace(RELOAD, {"users"});
    EXPECT_THAT(reply.faults, IsEmpty());
    const std::string failed = n <= 2 ? stored[0] : stored[1];
    EXPECT_THAT(seen, Contains((n % 2 == 1 ? "{users} err Could not parse 'users,"
                                           : "{users} err Could not insert 'users,") +
                               failed + "'\n"));
    expect_rows("users", {{"dan", "33", "kyiv"}});
    EXPECT_FALSE(file_exists(main_file("users")));
    EXPECT_EQ(read_file(refused(main_file("users"))), table_text(stored));
  }
}

TEST_F(RpcReloadTest, AFileThatCannotBeOpenedIsABadOne) {
  open({USERS});
  write_rows("users", {"bob|31|oslo"});
  write_backup("users", {"dan|33|kyiv"});
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_THAT(
      trace(RELOAD, {"users"}),
      ElementsAre("scan s", "{users} err Could not open file '" + main_file("users") + "'\n",
                  "{users} warn " + set_aside(main_file("users"))));
  expect_rows("users", {{"dan", "33", "kyiv"}});
  EXPECT_EQ(both_files("users"), "none / Version 1\ndan|33|kyiv\n");
}

TEST_F(RpcReloadTest, AReadErrorAmongTheRowsKeepsWhatWasReadAndEveryFile) {
  open({USERS});
  write_rows("users", {"bob|31|oslo", "carol|32|bern"});
  write_backup("users", {"dan|33|kyiv"});
  standin::fail_file_op("getline", 3, EINVAL);
  EXPECT_THAT(trace(RELOAD, {"users"}),
              ElementsAre("scan s", "{users} err Error reading '" + main_file("users") +
                                        "' line: 2 err: 22\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {{"bob", "31", "oslo"}});
  EXPECT_TRUE(file_exists(main_file("users")));
}

TEST_F(RpcReloadTest, TheOldRowsGiveTheirMemoryBack) {
  write_rows("users", {"bob|31|oslo", "carol|32|bern"});
  open({USERS});
  const size_t blocks = module_blocks(pool::shm);
  for (int i = 0; i < 10; i++) trace(RELOAD, {"users"});
  EXPECT_EQ(module_blocks(pool::shm), blocks);
}

// sync

TEST_F(RpcReloadTest, SyncTellsTwoLinesUnderTheLockAndThenStores) {
  open({USERS});
  insert("users,alice|30|rome");
  const steps seen = trace(SYNC, {"users"}, DBG_LEVEL);
  ASSERT_GE(seen.size(), 5u);
  EXPECT_EQ(steps(seen.begin(), seen.begin() + 5),
            (steps{"scan s", "{users} line Table: users", "{users} line Row count: 1",
                   "dbg Storing table 'users' to file 'users.txt'\n",
                   "{users} dbg Table 'users' was changed. Saving changes to file\n"}));
  EXPECT_THAT(reply.lines, ElementsAre("Table: users", "Row count: 1"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(both_files("users"), "Version 1\nalice|30|rome\n / none");
}

TEST_F(RpcReloadTest, SyncStoresNoOtherTable) {
  open({USERS, QUIET});
  insert("users,alice|30|rome");
  insert("quiet,1|2");
  trace(SYNC, {"users"});
  EXPECT_EQ(both_files("quiet"), "none / none");
}

TEST_F(RpcReloadTest, SyncOfAnUnchangedTableTellsItsLinesAndTouchesNoFile) {
  write_rows("users", {"bob|31|oslo"});
  open({USERS});
  const size_t operations = standin::file_history().size();
  EXPECT_THAT(lines(SYNC, {"users"}), ElementsAre("Table: users", "Row count: 1"));
  EXPECT_EQ(standin::file_history().size(), operations);
}

TEST_F(RpcReloadTest, SyncOfAClearedTableEmptiesBothFiles) {
  open({USERS});
  insert("users,alice|30|rome");
  standin::tick();
  insert("users,bob|31|oslo");
  standin::tick();
  standin::fail_file_op("fopen", 1, EACCES);
  trace("tarn_memdb.clear_tbl", {"users"});
  ASSERT_EQ(info_line("users", "State"), "State: 2");
  EXPECT_THAT(lines(SYNC, {"users"}), ElementsAre("Table: users", "Row count: 0"));
  EXPECT_EQ(both_files("users"), "Version 1\n / Version 1\n");
}

TEST_F(RpcReloadTest, SyncTakesTheArgumentsFirstWord) {
  open({USERS, QUIET});
  for (const std::string argument : {"users quiet", "\tusers", "users\n"})
    EXPECT_EQ(lines(SYNC, {argument}).at(0), "Table: users") << argument;
}

TEST_F(RpcReloadTest, SyncWithoutAnArgument) {
  open({USERS});
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(SYNC), ElementsAre("scan s", "warn wrong number of parameters\n",
                                         "fault 500 wrong number of parameters"));
    EXPECT_EQ(reply.fault->text, "wrong number of parameters");
  }
}

TEST_F(RpcReloadTest, SyncOfAnUnknownTableFaultsTheWord) {
  open({USERS});
  EXPECT_THAT(trace(SYNC, {"nobody users"}),
              ElementsAre("scan s", "err Table 'nobody' was not found\n",
                          "fault 500 Wrong table name: 'nobody'"));
}

TEST_F(RpcReloadTest, ALineOfSyncThatCannotBeSentIsLoggedAndNothingIsStored) {
  open({USERS});
  insert("users,alice|30|rome");
  standin::fail_call("rpc.rpl_printf", 1);
  EXPECT_THAT(trace(SYNC, {"users"}, DBG_LEVEL), ElementsAre("scan s", "{users} line Table: users",
                                                             "{users} err Error to write buffer"));
  standin::fail_call("rpc.rpl_printf", 2);
  EXPECT_THAT(trace(SYNC, {"users"}, DBG_LEVEL),
              ElementsAre("scan s", "{users} line Table: users", "{users} line Row count: 1",
                          "{users} err Error to write buffer"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_THAT(reply.lines, ElementsAre("Table: users"));
  EXPECT_EQ(both_files("users"), "none / none");
  trace(SYNC, {"users"});
  EXPECT_EQ(both_files("users"), "Version 1\nalice|30|rome\n / none");
}

TEST_F(RpcReloadTest, AFailedStoreOfSyncIsSeenInTheLogAlone) {
  open({USERS});
  insert("users,alice|30|rome");
  standin::fail_file_op("fopen", 1, EROFS);
  EXPECT_THAT(trace(SYNC, {"users"}),
              ElementsAre("scan s", "{users} line Table: users", "{users} line Row count: 1",
                          "{users} err Could not open file '" + main_file("users") + "'\n",
                          "err Could not store table 'users' to file 'users.txt'\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  standin::fail_file_op("write", 1, ENOSPC);
  EXPECT_THAT(trace(SYNC, {"users"}),
              Contains("{users} err Could not write to file '" + main_file("users") + "'\n"));
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome"));
}

TEST_F(RpcReloadTest, SyncNeedsNoMemoryOfTheModule) {
  open({USERS});
  insert("users,alice|30|rome");
  standin::fail_from(pool::both, 1);
  EXPECT_THAT(lines(SYNC, {"users"}), ElementsAre("Table: users", "Row count: 1"));
  EXPECT_EQ(both_files("users"), "Version 1\nalice|30|rome\n / none");
  EXPECT_EQ(standin::failed_allocations(), 0u);
}

}  // namespace
}  // namespace module_test
