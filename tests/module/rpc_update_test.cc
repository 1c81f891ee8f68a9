// "tarn_memdb.update".
#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char UPDATE[] = "tarn_memdb.update";

const table USERS = {.name = "users", .columns = {{"name"}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};
const table ONE = {.name = "one", .columns = {{"a"}}};
const table MEDIA = claiming_table("media", "dynamic");

class RpcUpdateTest : public RpcTest {
 protected:
  steps update_trace(const std::string &query, const std::string &values,
                     int least_grave = INFO_LEVEL) {
    return trace(UPDATE, {query, values}, least_grave);
  }

  // Alice and carol are 30, bob is 31; all is stored.
  void open_with_users() {
    write_file(main_file("users"), table_text({"alice|30|rome", "bob|31|oslo", "carol|30|bern"}));
    open({USERS});
  }
};

TEST_F(RpcUpdateTest, MatchingRowsAreChangedUnderTheLockWithTheCountAsItStands) {
  open_with_users();
  EXPECT_THAT(
      update_trace("users,*|30|*", "*|40|paris"),
      ElementsAre("scan SS", "{users} notice        USERS - (3) RPC Updating users,carol|40|paris",
                  "{users} notice        USERS - (3) RPC Updating users,alice|40|paris"));
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {{"alice", "40", "paris"}, {"bob", "31", "oslo"}, {"carol", "40", "paris"}});
}

TEST_F(RpcUpdateTest, TheChangeWaitsForTheTimer) {
  open_with_users();
  const std::string before = both_files("users");
  update_trace("users,bob|*|*", "*|*|rome");
  EXPECT_EQ(both_files("users"), before);
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome", "bob|31|rome", "carol|30|bern"));
}

TEST_F(RpcUpdateTest, NoStoreRunsAtAll) {
  open_with_users();
  const steps seen = update_trace("users,bob|*|*", "*|*|rome", DBG_LEVEL);
  EXPECT_THAT(seen, testing::Not(Contains("dbg Looking all tables for changes\n")));
  EXPECT_EQ(seen.back(), "{users} dbg Table 'users' state was set to value 1\n");
}

TEST_F(RpcUpdateTest, WithoutAMatchNothingChangesAndNothingIsSaid) {
  open_with_users();
  EXPECT_THAT(update_trace("users,nobody|*|*", "*|*|rome"), ElementsAre("scan SS"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(RpcUpdateTest, StarsForAllValuesVisitTheRowsAndMarkTheTable) {
  open_with_users();
  EXPECT_THAT(
      update_trace("users,bob|*|*", "*|*|*"),
      ElementsAre("scan SS", "{users} notice        USERS - (3) RPC Updating users,bob|31|oslo"));
  EXPECT_TRUE(store_writes("users"));
}

TEST_F(RpcUpdateTest, AnEmptyValueEmptiesItsColumn) {
  open_with_users();
  update_trace("users,bob|*|*", "*||*");
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome", "bob||oslo", "carol|30|bern"));
}

TEST_F(RpcUpdateTest, ValuesHaveTheEscapesOfAFieldList) {
  open_with_users();
  update_trace("users,bob|*|*", "\\*|3\\|1|o,s\\\\lo");
  EXPECT_EQ(rows("users")[1], (row{"*", "3|1", "o,s\\lo"}));
}

TEST_F(RpcUpdateTest, ALimitBehindTheFieldsEndsTheWalk) {
  open_with_users();
  update_trace("users,*|*|*,1", "*|99|*");
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome", "bob|31|oslo", "carol|99|bern"));
}

TEST_F(RpcUpdateTest, WithoutALimitNoMoreRowsAreVisitedThanTheTableMayHold) {
  table two = QUIET;
  two.max_rows = 2;
  write_file(main_file("quiet"), table_text({"1|1", "2|2", "3|3"}));
  open({two});
  update_trace("quiet,*|*", "*|x");
  EXPECT_EQ(rows("quiet"), (row_list{{"1", "1"}, {"2", "x"}, {"3", "x"}}));
}

TEST_F(RpcUpdateTest, RowsLeftWithoutATextGoAndEachIsTold) {
  open_with_users();
  EXPECT_THAT(
      update_trace("users,*|30|*", "||"),
      ElementsAre("scan SS", "{users} notice        USERS - (2) RPC Deleting from update users,||",
                  "{users} info RPC - Deleting row from update for selected index 0 in table users "
                  "- cols_len: 3\n",
                  "{users} notice        USERS - (1) RPC Deleting from update users,||",
                  "{users} info RPC - Deleting row from update for selected index 1 in table users "
                  "- cols_len: 3\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_rows("users", {{"bob", "31", "oslo"}});
  EXPECT_THAT(stored("users"), ElementsAre("bob|31|oslo"));
}

TEST_F(RpcUpdateTest, TheCountOfARemovalGoesByTheRowsVisitedAndNotByThoseRemoved) {
  write_file(main_file("users"), table_text({"|30|", "x|30|y"}));
  open({USERS});
  EXPECT_THAT(
      update_trace("users,*|30|*", "*||*"),
      ElementsAre("scan SS", "{users} notice        USERS - (2) RPC Updating users,x||y",
                  "{users} notice        USERS - (0) RPC Deleting from update users,||",
                  "{users} info RPC - Deleting row from update for selected index 1 in table users "
                  "- cols_len: 3\n"));
  EXPECT_EQ(row_count("users"), 1);
}

TEST_F(RpcUpdateTest, ATableWithoutATagIsNotAuditedButARemovalIsNoted) {
  open({QUIET});
  insert("quiet,1|2");
  EXPECT_THAT(update_trace("quiet,1|*", "*|3"), ElementsAre("scan SS"));
  EXPECT_THAT(update_trace("quiet,1|*", "|"),
              ElementsAre("scan SS",
                          "{quiet} info RPC - Deleting row from update for selected index 0 in "
                          "table quiet - cols_len: 2\n"));
  expect_rows("quiet", {});
}

TEST_F(RpcUpdateTest, WithoutTwoArguments) {
  open_with_users();
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    for (const std::vector<value> &arguments :
         {std::vector<value>{}, std::vector<value>{"users,*|*|*"},
          std::vector<value>{"users,*|*|*", 7}}) {
      EXPECT_THAT(trace(UPDATE, arguments),
                  ElementsAre("scan SS", "warn RPC Update: not enough parameters\n",
                              "fault 500 Not enough parameters"));
      EXPECT_EQ(reply.fault->text, "Not enough parameters");
    }
  }
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(RpcUpdateTest, AQueryThatDoesNotParseIsFaultedWithTheNameFoundInIt) {
  open_with_users();
  const std::string log = "err RPC Update: Parse Error of: 'users'";
  const std::string fault = "fault 500 Parse Error of: 'users'";
  EXPECT_THAT(update_trace("users", "*|*|*"),
              ElementsAre("scan SS", "err Field list is missing\n", log, fault));
  EXPECT_THAT(
      update_trace("users,*|*", "*|*|*"),
      ElementsAre("scan SS", "err Size mismatch",
                  "err Wrong number of fields in field list: users,*|* | (null)\n", log, fault));
  EXPECT_THAT(update_trace("users,*|*|*,-3", "*|*|*"),
              ElementsAre("scan SS", "err Invalid value for maximum result count\n", log, fault));
  EXPECT_THAT(update_trace(",*|*|*", "*|*|*"),
              ElementsAre("scan SS", "err Table '' was not found\n", "err Table not found\n",
                          "err RPC Update: Parse Error of: ''", "fault 500 Parse Error of: ''"));
  EXPECT_THAT(update_trace("nobody,*|*|*", "*|*|*"),
              ElementsAre("scan SS", "err Table 'nobody' was not found\n", "err Table not found\n",
                          "err RPC Update: Parse Error of: 'nobody'",
                          "fault 500 Parse Error of: 'nobody'"));
}

TEST_F(RpcUpdateTest, AValueListOfTheWrongLengthIsFaultedWhole) {
  open_with_users();
  for (const std::string list : {"a|b", "a|b|c|d", "", "%s%n"}) {
    EXPECT_THAT(
        update_trace("users,*|*|*", list),
        ElementsAre("scan SS", "err Size mismatch", "err RPC Update: bad parameter: '" + list + "'",
                    "fault 500 Bad parameter: '" + list + "'"));
  }
  const std::string longest(5000, '|');
  update_trace("users,*|*|*", longest);
  EXPECT_EQ(reply.faults[0].text, "Bad parameter: '" + longest + "'");
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(RpcUpdateTest, ValuesByNameAreNotUnderstood) {
  write_file(main_file("users"), table_text({"alice|30|rome"}));
  open({USERS, ONE});
  EXPECT_THAT(update_trace("users,*|*|*", "age=31"),
              ElementsAre("scan SS", "err Size mismatch", "err RPC Update: bad parameter: 'age=31'",
                          "fault 500 Bad parameter: 'age=31'"));
  insert("one,x");
  update_trace("one,x", "a=y");
  EXPECT_EQ(rows("one"), (row_list{{"a=y"}})) << "in a table of one column it is a value";
}

TEST_F(RpcUpdateTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  insert(known + ",x");
  for (const size_t length : {32u, 33u, 5000u}) {
    update_trace(std::string(length, 'n') + ",*", "y");
    EXPECT_EQ(reply.fault->text, "Parse Error of: '" + known + "'");
  }
  expect_rows(known, {{"x"}});
}

TEST_F(RpcUpdateTest, ANewPortReleasesTheOldOneThatTheSelectionNamesAndIsNotTakenItself) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  update_trace("media,*|c1|*|*|21003|*|*|*|*", "*|*|*|*|21004|*|*|*|*");
  EXPECT_EQ(port_byte("INT", 21003), 0);
  EXPECT_EQ(port_byte("INT", 21004), 0);
  EXPECT_EQ(rows("media")[0][4], "21004");
}

TEST_F(RpcUpdateTest, APortThatTheSelectionDoesNotNameStaysTaken) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  update_trace("media,*|c1|*|*|*|*|*|*|*", "*|*|*|*|21004|*|*|*|*");
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
}

TEST_F(RpcUpdateTest, TheSamePortAgainReleasesNothing) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  update_trace("media,*|*|*|*|21003|*|*|*|*", "*|*|*|*|21003|*|*|*|*");
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
}

TEST_F(RpcUpdateTest, TheSideIsThatOfTheRowBeforeTheChange) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN|10003|0|0");
  update_trace("media,*|*|*|*|21003|*|10003|*|*", "*|*|*|*|21004|LAN|10004|*|*");
  EXPECT_EQ(port_byte("INT", 21003), 0);
}

TEST_F(RpcUpdateTest, AnEmptyPortForAnEmptyPortCannotBeReleased) {
  open({MEDIA});
  insert("media,1|c1|a|b||WAN||0|0");
  EXPECT_THAT(update_trace("media,*|*|*|*||*|*|*|*", "*|*|*|*||*|*|*|*"),
              ElementsAre("scan SS", "{media} err Port  not cleared!\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
}

TEST_F(RpcUpdateTest, ALongRowIsCutInTheAuditLineAtTheBuffersEnd) {
  open({{.name = "long", .columns = {{"a", 3000}, {"b", 3000}}, .log_tag = "L"}});
  insert("long," + std::string(3000, 'a') + "|" + std::string(3000, 'b'));
  EXPECT_THAT(update_trace("long,*|*", "*|" + std::string(3000, 'c')),
              ElementsAre("scan SS", "{long} notice        L - (1) RPC Updating long," +
                                         std::string(3000, 'a') + "|" + std::string(1094, 'c')));
}

TEST_F(RpcUpdateTest, ARowMovedToAnotherKeyIsStillDeletedWhole) {
  table users = USERS;
  users.columns[0].indexed = true;
  open({users});
  insert("users,alice|30|rome");
  insert("users,bob|31|oslo");
  update_trace("users,alice|*|*", "zoe|*|*");
  update_trace("users,*|30|*", "||");
  EXPECT_EQ(rows("users"), (row_list{{"bob", "31", "oslo"}}));
  insert("users,alice|32|bern");
  EXPECT_EQ(lines("tarn_memdb.select", {"users,alice|*|*"}), (steps{"TABLE:", "alice|32|bern"}));
}

TEST_F(RpcUpdateTest, EachAllocationFailingInTurnIsTheFaultOfItsStep) {
  open_with_users();
  standin::fail_at(pool::both, 1);
  EXPECT_THAT(
      update_trace("users,*|*|*", "*|*|x"),
      ElementsAre("scan SS", "crit no more pkg memory\n",
                  "err Wrong number of fields in field list: users,*|*|* | (null)\n",
                  "err RPC Update: Parse Error of: 'users'", "fault 500 Parse Error of: 'users'"));
  standin::fail_at(pool::both, 2);
  EXPECT_THAT(
      update_trace("users,*|*|*", "*|*|x"),
      ElementsAre("scan SS", "crit no more pkg memory\n", "err RPC Update: bad parameter: '*|*|x'",
                  "fault 500 Bad parameter: '*|*|x'"));
  EXPECT_FALSE(store_writes("users"));
  standin::reset_allocation_count();
  update_trace("users,*|*|*", "*|*|x");
  EXPECT_EQ(standin::allocation_count(pool::both), 2u) << "there is no other allocation to fail";
}

}  // namespace
}  // namespace module_test
