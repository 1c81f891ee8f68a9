// "tarn_memdb.delete".
#include <cerrno>

#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char DELETE[] = "tarn_memdb.delete";

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};
const table MEDIA = claiming_table("media", "dynamic");

class RpcDeleteTest : public RpcTest {
 protected:
  steps delete_trace(const std::string &query, int least_grave = INFO_LEVEL) {
    return trace(DELETE, {query}, least_grave);
  }

  // Alice and carol are 30, bob is 31; all is stored.
  void open_with_users(const std::vector<table> &others = {}) {
    std::vector<table> tables = {USERS};
    tables.insert(tables.end(), others.begin(), others.end());
    write_file(main_file("users"), table_text({"alice|30|rome", "bob|31|oslo", "carol|30|bern"}));
    open(tables);
  }
};

TEST_F(RpcDeleteTest, MatchingRowsGoNewestFirstUnderTheLockWithTheCountThatRemains) {
  open_with_users();
  EXPECT_THAT(
      delete_trace("users,*|30|*"),
      ElementsAre("scan S", "{users} notice        USERS - (2) RPC Deleting users,carol|30|bern",
                  "{users} notice        USERS - (1) RPC Deleting users,alice|30|rome"));
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {{"bob", "31", "oslo"}});
}

TEST_F(RpcDeleteTest, TheTableIsStoredAtOnceAndItsOldFileIsTheBackup) {
  open_with_users();
  delete_trace("users,bob|*|*");
  EXPECT_EQ(both_files("users"),
            "Version 1\nalice|30|rome\ncarol|30|bern\n / "
            "Version 1\nalice|30|rome\nbob|31|oslo\ncarol|30|bern\n");
  EXPECT_EQ(info_line("users", "State"), "State: 0");
}

TEST_F(RpcDeleteTest, TheLockIsGivenBackBeforeTheStoreTakesItItself) {
  open_with_users();
  const steps seen = delete_trace("users,bob|*|*", DBG_LEVEL);
  const auto store = std::find(seen.begin(), seen.end(), "dbg Looking all tables for changes\n");
  ASSERT_NE(store, seen.end());
  EXPECT_EQ(*(store - 1), "{users} dbg Table 'users' row count was set to 2\n");
  EXPECT_EQ(*(store - 2), "{users} dbg Table 'users' state was set to value 1\n");
  EXPECT_EQ(*(store + 1), "dbg Storing table 'users' to file 'users.txt'\n");
  EXPECT_EQ(*(store + 2), "{users} dbg Table 'users' was changed. Saving changes to file\n");
}

TEST_F(RpcDeleteTest, ADeleteStoresEveryChangedTable) {
  open_with_users({QUIET});
  insert("quiet,1|2");
  EXPECT_EQ(both_files("quiet"), "none / none");
  delete_trace("users,bob|*|*");
  EXPECT_EQ(both_files("quiet"), "Version 1\n1|2\n / none");
}

TEST_F(RpcDeleteTest, WithoutAMatchNothingIsSaidAndTheStoreRunsAllTheSame) {
  open_with_users({QUIET});
  const std::string stored = both_files("users");
  insert("quiet,1|2");
  EXPECT_THAT(delete_trace("users,nobody|*|*"), ElementsAre("scan S"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(both_files("quiet"), "Version 1\n1|2\n / none");
  EXPECT_EQ(both_files("users"), stored) << "a table without a change isn't written";
}

TEST_F(RpcDeleteTest, ALimitBehindTheFieldsEndsTheWalk) {
  open_with_users();
  EXPECT_THAT(
      delete_trace("users,*|*|*,2"),
      ElementsAre("scan S", "{users} notice        USERS - (2) RPC Deleting users,carol|30|bern",
                  "{users} notice        USERS - (1) RPC Deleting users,bob|31|oslo"));
  expect_rows("users", {{"alice", "30", "rome"}});
}

TEST_F(RpcDeleteTest, WithoutALimitNoMoreRowsGoThanTheTableMayHold) {
  table two = QUIET;
  two.max_rows = 2;
  write_file(main_file("quiet"), table_text({"1|1", "2|2", "3|3"}));
  open({two});
  delete_trace("quiet,*|*");
  expect_rows("quiet", {{"1", "1"}});
}

TEST_F(RpcDeleteTest, ATableWithoutATagIsNotAudited) {
  open({QUIET});
  insert("quiet,1|2");
  EXPECT_THAT(delete_trace("quiet,*|*"), ElementsAre("scan S"));
  expect_rows("quiet", {});
}

TEST_F(RpcDeleteTest, WithoutAnArgument) {
  open_with_users();
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(DELETE), ElementsAre("scan S", "warn RPC Delete: not enough parameters\n",
                                           "fault 500 Not enough parameters"));
    EXPECT_EQ(reply.fault->text, "Not enough parameters");
  }
  EXPECT_EQ(row_count("users"), 3);
}

TEST_F(RpcDeleteTest, AQueryThatDoesNotParseIsFaultedWithTheNameFoundInIt) {
  open_with_users();
  const std::string log = "err RPC Delete: parse Error of: 'users'";
  const std::string fault = "fault 500 Parse Error of: 'users'";
  EXPECT_THAT(delete_trace("users"),
              ElementsAre("scan S", "err Field list is missing\n", log, fault));
  EXPECT_THAT(
      delete_trace("users,a|b"),
      ElementsAre("scan S", "err Size mismatch",
                  "err Wrong number of fields in field list: users,a|b | (null)\n", log, fault));
  EXPECT_THAT(delete_trace("users,*|*|*,0"),
              ElementsAre("scan S", "err Invalid value for maximum result count\n", log, fault));
  EXPECT_THAT(delete_trace(",*|*|*"),
              ElementsAre("scan S", "err Table '' was not found\n", "err Table not found\n",
                          "err RPC Delete: parse Error of: ''", "fault 500 Parse Error of: ''"));
  EXPECT_THAT(delete_trace("nobody,*|*|*"),
              ElementsAre("scan S", "err Table 'nobody' was not found\n", "err Table not found\n",
                          "err RPC Delete: parse Error of: 'nobody'",
                          "fault 500 Parse Error of: 'nobody'"));
  EXPECT_EQ(row_count("users"), 3);
}

TEST_F(RpcDeleteTest, AFailedDeleteStoresNothing) {
  open_with_users({QUIET});
  insert("quiet,1|2");
  delete_trace("users");
  EXPECT_EQ(both_files("quiet"), "none / none");
}

TEST_F(RpcDeleteTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  insert(known + ",x");
  for (const size_t length : {32u, 33u, 5000u}) {
    delete_trace(std::string(length, 'n') + ",*");
    EXPECT_EQ(reply.fault->text, "Parse Error of: '" + known + "'");
  }
  expect_rows(known, {{"x"}});
}

TEST_F(RpcDeleteTest, ARowGivesItsPortBack) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN|10003|0|0");
  insert("media,2|c2|a|b|21003|WAN|10004|0|0");
  insert("media,3|c3|a|b|21004|LAN|10005|0|0");
  delete_trace("media,*|c1|*|*|*|*|*|*|*");
  EXPECT_EQ(port_byte("INT", 21003), 0x81) << "still held by the second row";
  delete_trace("media,*|*|*|*|*|*|*|*|*");
  EXPECT_EQ(port_byte("INT", 21003), 0);
  EXPECT_EQ(port_byte("EXT", 10005), 0);
}

TEST_F(RpcDeleteTest, ThePortGoesUnderTheTablesLockAlone) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  const steps seen = delete_trace("media,*|*|*|*|*|*|*|*|*", DBG_LEVEL);
  EXPECT_THAT(seen, Contains("{media} dbg Port = 21003 is freed and value update to 0x0\n"));
  EXPECT_THAT(seen, Each(Not(HasSubstr("{ports}"))));
}

TEST_F(RpcDeleteTest, APortThatCannotBeGivenBackIsLoggedAndTheRowGoes) {
  open({MEDIA});
  insert("media,1|c1|a|b|5|WAN||0|0");
  EXPECT_THAT(delete_trace("media,*|c1|*|*|*|*|*|*|*"),
              ElementsAre("scan S", "{media} err Port 5 not cleared!\n"));
  EXPECT_EQ(row_count("media"), 0);
}

TEST_F(RpcDeleteTest, ALongRowIsCutInTheAuditLineAtTheBuffersEnd) {
  open({{.name = "long", .columns = {{"a", 3000}, {"b", 3000}}, .log_tag = "L"}});
  insert("long," + std::string(3000, 'a') + "|" + std::string(3000, 'b'));
  const steps seen = delete_trace("long,*|*");
  EXPECT_THAT(seen,
              ElementsAre("scan S", "{long} notice        L - (0) RPC Deleting long," +
                                        std::string(3000, 'a') + "|" + std::string(1094, 'b')));
  EXPECT_EQ(row_count("long"), 0);
}

TEST_F(RpcDeleteTest, AStoreThatFailsIsLoggedAndTriedAgainByTheTimer) {
  open_with_users();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_THAT(
      delete_trace("users,bob|*|*", WARN_LEVEL),
      ElementsAre("scan S", "{users} err Could not open file '" + main_file("users") + "'\n",
                  "err Could not store table 'users' to file 'users.txt'\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome", "carol|30|bern"));
}

TEST_F(RpcDeleteTest, AQueryWithoutMemoryIsOneThatDoesNotParse) {
  open_with_users();
  standin::reset_allocation_count();
  standin::fail_at(pool::both, 1);
  EXPECT_THAT(
      delete_trace("users,*|*|*"),
      ElementsAre("scan S", "crit no more pkg memory\n",
                  "err Wrong number of fields in field list: users,*|*|* | (null)\n",
                  "err RPC Delete: parse Error of: 'users'", "fault 500 Parse Error of: 'users'"));
  EXPECT_EQ(row_count("users"), 3);
  standin::reset_allocation_count();
  delete_trace("users,*|*|*");
  EXPECT_EQ(standin::allocation_count(pool::both), 1u) << "there is no other allocation to fail";
}

TEST_F(RpcDeleteTest, RowsGiveTheirMemoryBack) {
  open({QUIET});
  const size_t blocks = module_blocks(pool::shm);
  for (int i = 0; i < 50; i++) insert("quiet," + std::to_string(i) + "|x");
  EXPECT_EQ(module_blocks(pool::shm), blocks + 50);
  delete_trace("quiet,*|x");
  EXPECT_EQ(module_blocks(pool::shm), blocks);
}

}  // namespace
}  // namespace module_test
