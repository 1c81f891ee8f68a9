// "tarn_memdb.insert".
#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char INSERT[] = "tarn_memdb.insert";

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};
const table NUMBERED = {
    .name = "numbered", .columns = {{"id", 10, true}, {"a"}, {"b"}}, .use_index = true};
const table MEDIA = claiming_table("media", "dynamic");
const table LINES = claiming_table("lines", "static");

constexpr char REFUSED[] = "fault 500 Internal Error";
const auto FULL = [](int limit, const std::string &name) {
  return "warn RPC Insert: MAX number of rows allowed (" + std::to_string(limit) + ") for table '" +
         name + "' reached. Data will not be inserted!\n";
};
const auto DUPLICATE = [](const std::string &name) {
  return "warn RPC Insert: duplicated data will not be inserted into table '" + name + "'!\n";
};

class RpcInsertTest : public RpcTest {
 protected:
  steps insert_trace(const std::string &query) { return trace(INSERT, {query}); }
};

TEST_F(RpcInsertTest, ARowIsAddedUnderTheLockAndNothingIsReplied) {
  open({USERS});
  EXPECT_THAT(
      insert_trace("users,alice|30|rome"),
      ElementsAre("scan S", "{users} notice        USERS - (1) RPC Inserting users,alice|30|rome"));
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_FALSE(reply.sent);
  insert_trace("users,bob|31|oslo");
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "31", "oslo"}});
}

TEST_F(RpcInsertTest, StateAndCountFollowInThatOrderBeforeTheAuditLine) {
  open({USERS});
  const steps seen = trace(INSERT, {"users,alice|30|rome"}, DBG_LEVEL);
  EXPECT_THAT(seen,
              ElementsAre("scan S", "{users} dbg Did not find a match\n",
                          "{users} dbg Initializing flag_treatment ...\n",
                          "{users} dbg Table 'users' state was set to value 1\n",
                          "{users} dbg Table 'users' row count was set to 1\n",
                          "{users} notice        USERS - (1) RPC Inserting users,alice|30|rome"));
}

TEST_F(RpcInsertTest, ATableWithoutATagIsNotAudited) {
  open({QUIET});
  EXPECT_THAT(insert_trace("quiet,1|2"), ElementsAre("scan S"));
  expect_rows("quiet", {{"1", "2"}});
}

TEST_F(RpcInsertTest, TheChangeWaitsForTheTimer) {
  open({USERS});
  insert("users,alice|30|rome");
  EXPECT_EQ(both_files("users"), "none / none");
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  standin::tick();
  EXPECT_EQ(both_files("users"), "Version 1\nalice|30|rome\n / none");
  EXPECT_EQ(info_line("users", "State"), "State: 0");
}

TEST_F(RpcInsertTest, WithoutAnArgumentOnBothTransports) {
  open({USERS});
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    for (const std::vector<value> &arguments : {std::vector<value>{}, std::vector<value>{5}}) {
      EXPECT_THAT(trace(INSERT, arguments),
                  ElementsAre("scan S", "warn RPC Insert: not enough parameters\n",
                              "fault 500 Not enough parameters"));
      EXPECT_EQ(reply.fault->code, 500);
      EXPECT_EQ(reply.fault->text, "Not enough parameters");
    }
  }
}

TEST_F(RpcInsertTest, AQueryThatDoesNotParseIsFaultedWithTheNameFoundInIt) {
  open({USERS});
  EXPECT_THAT(insert_trace("users"), ElementsAre("scan S", "err Field list is missing\n",
                                                 "err RPC Insert: parse Error of: 'users'",
                                                 "fault 500 Parse Error of: 'users'"));
  EXPECT_THAT(
      insert_trace("users,alice|30"),
      ElementsAre("scan S", "err Size mismatch",
                  "err Wrong number of fields in field list: users,alice|30 | (null)\n",
                  "err RPC Insert: parse Error of: 'users'", "fault 500 Parse Error of: 'users'"));
  EXPECT_THAT(
      insert_trace("users,alice|*|rome"),
      ElementsAre("scan S", "err Wildcard are not allowed in INSERT operation\n",
                  "err RPC Insert: parse Error of: 'users'", "fault 500 Parse Error of: 'users'"));
  EXPECT_THAT(
      insert_trace("users,||"),
      ElementsAre("scan S", "err Empty fields are not allowed in INSERT operation\n",
                  "err RPC Insert: parse Error of: 'users'", "fault 500 Parse Error of: 'users'"));
  EXPECT_THAT(insert_trace("users,alice|30|rome\\"),
              AllOf(testing::Contains("err Wrong input format for INSERT\n"),
                    testing::Contains("fault 500 Parse Error of: 'users'")));
  expect_rows("users", {});
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(RpcInsertTest, AnUnknownTableIsAQueryThatDoesNotParse) {
  open({USERS});
  EXPECT_THAT(insert_trace("nobody,a|b|c"),
              ElementsAre("scan S", "err Table 'nobody' was not found\n", "err Table not found\n",
                          "err RPC Insert: parse Error of: 'nobody'",
                          "fault 500 Parse Error of: 'nobody'"));
}

TEST_F(RpcInsertTest, AQueryThatBeginsWithACommaShowsNoName) {
  open({USERS});
  EXPECT_THAT(insert_trace(",a|b|c"),
              ElementsAre("scan S", "err Table '' was not found\n", "err Table not found\n",
                          "err RPC Insert: parse Error of: ''", "fault 500 Parse Error of: ''"));
}

TEST_F(RpcInsertTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  for (const size_t length : {32u, 33u, 64u, 5000u}) {
    insert_trace(std::string(length, 'n') + ",x");
    ASSERT_EQ(reply.faults.size(), 1u);
    EXPECT_EQ(reply.fault->text, "Parse Error of: '" + known + "'");
  }
  expect_rows(known, {});
  insert(known + ",x");
  expect_rows(known, {{"x"}});
}

TEST_F(RpcInsertTest, AFullTableRefusesWithAWarningAndStaysAsItWas) {
  table two = USERS;
  two.max_rows = 2;
  open({two});
  insert("users,alice|30|rome");
  insert("users,bob|31|oslo");
  standin::tick();
  EXPECT_THAT(insert_trace("users,carol|32|bern"),
              ElementsAre("scan S", "{users} " + FULL(2, "users"), REFUSED));
  EXPECT_EQ(reply.fault->text, "Internal Error");
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "31", "oslo"}});
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(RpcInsertTest, ATableOfNoRowsTakesNone) {
  table none = QUIET;
  none.max_rows = 0;
  open({none});
  EXPECT_THAT(insert_trace("quiet,1|2"),
              ElementsAre("scan S", "{quiet} " + FULL(0, "quiet"), REFUSED));
}

TEST_F(RpcInsertTest, ATableLoadedBeyondItsLimitGoesOnTakingRows) {
  table two = QUIET;
  two.max_rows = 2;
  write_file(main_file("quiet"), table_text({"1|1", "2|2", "3|3"}));
  open({two});
  EXPECT_THAT(insert_trace("quiet,4|4"), ElementsAre("scan S"));
  expect_rows("quiet", {{"1", "1"}, {"2", "2"}, {"3", "3"}, {"4", "4"}});
}

TEST_F(RpcInsertTest, ADuplicateIsRefusedWhateverTheSchemaSays) {
  table checked = USERS;
  checked.name = "checked";
  checked.check_duplicates = true;
  open({USERS, checked});
  for (const std::string name : {"users", "checked"}) {
    insert(name + ",alice|30|rome");
    standin::tick();
    EXPECT_THAT(insert_trace(name + ",alice|30|rome"),
                ElementsAre("scan S", "{" + name + "} " + DUPLICATE(name), REFUSED));
    expect_rows(name, {{"alice", "30", "rome"}});
    EXPECT_FALSE(store_writes(name));
    insert(name + ",alice|30|oslo");
    expect_rows(name, {{"alice", "30", "rome"}, {"alice", "30", "oslo"}});
  }
}

TEST_F(RpcInsertTest, AFullTableIsToldBeforeADuplicate) {
  table one = QUIET;
  one.max_rows = 1;
  open({one});
  insert("quiet,1|2");
  EXPECT_THAT(insert_trace("quiet,1|2"),
              ElementsAre("scan S", "{quiet} " + FULL(1, "quiet"), REFUSED));
}

TEST_F(RpcInsertTest, TheGeneratedIndexTakesTheFirstFieldsPlace) {
  open({NUMBERED});
  insert("numbered,|x|y");
  insert("numbered,77|x|z");
  expect_rows("numbered", {{"1", "x", "y"}, {"2", "x", "z"}});
}

TEST_F(RpcInsertTest, TheAuditLineShowsTheQueryAsItCame) {
  table numbered = NUMBERED;
  numbered.log_tag = "NUM";
  open({numbered});
  EXPECT_THAT(insert_trace("numbered,ignored|%n%s\\|x|y,z"),
              ElementsAre("scan S",
                          "{numbered} notice        NUM - (1) RPC Inserting "
                          "numbered,ignored|%n%s\\|x|y,z"));
  expect_rows("numbered", {{"1", "%n%s|x", "y,z"}});
}

TEST_F(RpcInsertTest, ADuplicateDrawsNoIndexAndIsSoughtInAllColumnsButTheFirst) {
  open({NUMBERED});
  insert("numbered,|x|y");
  EXPECT_THAT(insert_trace("numbered,5|x|y"),
              ElementsAre("scan S", "{numbered} " + DUPLICATE("numbered"), REFUSED));
  insert("numbered,|x|z");
  expect_rows("numbered", {{"1", "x", "y"}, {"2", "x", "z"}});
}

TEST_F(RpcInsertTest, AnIndexThatHasWrappedToZeroIsRefusedOnceAndGoesOnFromOne) {
  write_file(main_file("numbered"), table_text({"4294967295|x|y"}));
  open({NUMBERED});
  EXPECT_THAT(
      insert_trace("numbered,|a|b"),
      ElementsAre("scan S", "{numbered} err RPC Insert: insertion of index failed!\n", REFUSED));
  EXPECT_EQ(row_count("numbered"), 1);
  insert("numbered,|a|b");
  expect_rows("numbered", {{"4294967295", "x", "y"}, {"1", "a", "b"}});
}

TEST_F(RpcInsertTest, AnIndexWithoutMemoryIsRefused) {
  open({NUMBERED});
  standin::fail_at(pool::pkg, 3);
  EXPECT_THAT(trace(INSERT, {"numbered,|a|b"}, DBG_LEVEL),
              ElementsAre("scan S", "{numbered} dbg Did not find a match\n",
                          "{numbered} dbg Could not allocate memory for index!\n",
                          "{numbered} err RPC Insert: insertion of index failed!\n", REFUSED));
  insert("numbered,|a|b");
  expect_rows("numbered", {{"1", "a", "b"}});
}

TEST_F(RpcInsertTest, ACheckWithoutMemoryIsRefusedAsADuplicate) {
  open({NUMBERED});
  standin::fail_at(pool::pkg, 2);
  EXPECT_THAT(insert_trace("numbered,|a|b"),
              ElementsAre("scan S", "{numbered} err Could not allocate memory for fields_in\n",
                          "{numbered} " + DUPLICATE("numbered"), REFUSED));
  insert("numbered,|a|b");
  expect_rows("numbered", {{"1", "a", "b"}});
}

TEST_F(RpcInsertTest, ARowWithoutMemoryIsRefusedAndItsIndexIsUsedUp) {
  open({NUMBERED});
  standin::fail_at(pool::shm, 1);
  EXPECT_THAT(
      insert_trace("numbered,|a|b"),
      ElementsAre("scan S", "{numbered} err Fail to allocate memory to the row\n",
                  "{numbered} err RPC Insert: insertion into table 'numbered' failed!\n", REFUSED));
  expect_rows("numbered", {});
  EXPECT_FALSE(store_writes("numbered"));
  insert("numbered,|a|b");
  expect_rows("numbered", {{"2", "a", "b"}});
}

TEST_F(RpcInsertTest, AQueryWithoutMemoryIsOneThatDoesNotParse) {
  open({USERS});
  standin::fail_at(pool::pkg, 1);
  EXPECT_THAT(
      insert_trace("users,alice|30|rome"),
      ElementsAre("scan S", "crit no more pkg memory\n",
                  "err Wrong number of fields in field list: users,alice|30|rome | "
                  "(null)\n",
                  "err RPC Insert: parse Error of: 'users'", "fault 500 Parse Error of: 'users'"));
  expect_rows("users", {});
}

TEST_F(RpcInsertTest, ValuesMayHoldCommasEscapesAndEmptyFields) {
  open({USERS});
  insert("users,al\\|ice|3,0|a\\*\\\\");
  insert("users,bob||");
  EXPECT_EQ(rows("users"), (row_list{{"al|ice", "3,0", "a*\\"}, {"bob", "", ""}}));
}

TEST_F(RpcInsertTest, AValueLongerThanItsColumnIsCutWithAWarning) {
  open({{.name = "quiet", .columns = {{"a", 3}, {"b"}}}});
  EXPECT_THAT(insert_trace("quiet,12345|x"),
              ElementsAre("scan S",
                          "{quiet} warn Value '12345' too long. It will be truncated to fit field "
                          "size (3 bytes)\n"));
  expect_rows("quiet", {{"123", "x"}});
  // The check compares what was given and not what would be stored.
  EXPECT_THAT(insert_trace("quiet,12345|x"), testing::SizeIs(2));
  EXPECT_EQ(row_count("quiet"), 2);
}

TEST_F(RpcInsertTest, AnArgumentOfAnyLengthIsReadWhole) {
  open({{.name = "quiet", .columns = {{"a", 20000}, {"b"}}, .log_tag = "Q"}});
  const std::string query = "quiet," + std::string(20000, 'v') + "|x";
  EXPECT_THAT(insert_trace(query),
              ElementsAre("scan S", "{quiet} notice        Q - (1) RPC Inserting " + query));
  EXPECT_EQ(rows("quiet"), (row_list{{std::string(20000, 'v'), "x"}}));
}

TEST_F(RpcInsertTest, ARowTakesItsPortInTheMapOfItsSideAndRange) {
  open({MEDIA, LINES});
  insert("media,1|c1|a|b|21003|WAN|10003|0|0");
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
  insert("media,2|c2|a|b|21004|LAN|10004|0|3");
  EXPECT_EQ(port_byte("EXT", 10004), 0x81);
  EXPECT_EQ(port_byte("INT", 21004), 0);
  insert("media,3|c3|a|b|21005|LAN|10005|0|6");
  EXPECT_EQ(port_byte("INT", 21005), 0x81);
  insert("lines,1|c1|a|b|22003|WAN|9003|0|0");
  EXPECT_EQ(port_byte("STATIC_INT", 22003), 0x81);
  insert("lines,2|c2|a|b|22004||9004|3|6");
  EXPECT_EQ(port_byte("STATIC_EXT", 9004), 0x81);
  insert("lines,3|c3|a|b|22005||9005|6|0");
  EXPECT_EQ(port_byte("STATIC_INT", 22005), 0x81);
  insert("media,4|c4|a|b|21003|WAN|10003|0|0");
  EXPECT_EQ(port_byte("INT", 21003), 0x82) << "a second row on the port";
}

TEST_F(RpcInsertTest, TheLockOfThePortMapsIsNotTakenForARowsPort) {
  open({MEDIA});
  const steps seen = trace(INSERT, {"media,1|c1|a|b|21003|WAN||0|0"}, DBG_LEVEL);
  EXPECT_THAT(seen, testing::Contains("{media} dbg Port 21003 Before Value = 0xffffff80\n"));
  EXPECT_THAT(seen, testing::Each(testing::Not(HasSubstr("{ports}"))));
}

TEST_F(RpcInsertTest, APortOutsideItsMapKeepsTheRow) {
  open({MEDIA});
  EXPECT_THAT(trace(INSERT, {"media,1|c1|a|b|5|WAN||0|0"}, DBG_LEVEL),
              testing::Contains("{media} dbg Port 5 NOT set on load for range dynamic!\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(row_count("media"), 1);
}

TEST_F(RpcInsertTest, APortTablesDuplicateIsSoughtInColumnsOneToThree) {
  open({MEDIA});
  insert("media,1|c1|a|b|21003|WAN||0|0");
  EXPECT_THAT(insert_trace("media,2|c1|a|b|21004|WAN||0|0"),
              ElementsAre("scan S", "{media} " + DUPLICATE("media"), REFUSED));
  EXPECT_EQ(port_byte("INT", 21004), 0);
}

TEST_F(RpcInsertTest, AValueOf32CharactersEscapesTheCheckOfAPortTable) {
  table calls = claiming_table("calls", "dynamic");
  calls.columns[1].length = 63;
  open({calls});
  const std::string longer(40, 'c');
  insert("calls,1|" + longer + "|a|b|21003|WAN||0|0");
  insert("calls,2|" + longer + "|a|b|21003|WAN||0|0");
  EXPECT_EQ(row_count("calls"), 2);
}

TEST_F(RpcInsertTest, EveryAllocationFailingInTurnLeavesTheTableAsItWas) {
  table numbered = NUMBERED;
  numbered.log_tag = "NUM";
  open({numbered});
  standin::reset_allocation_count();
  insert("numbered,|x|y");
  const uint64_t allocations = standin::allocation_count(pool::both);
  EXPECT_EQ(allocations, 4u) << "fields, key of the check, index, row";
  for (uint64_t n = 1; n <= allocations; n++) {
    const std::string query = "numbered,|a|" + std::to_string(n);
    const size_t blocks = module_blocks(pool::both);
    standin::fail_at(pool::both, n);
    insert_trace(query);
    EXPECT_EQ(reply.faults.size(), 1u) << n;
    EXPECT_EQ(module_blocks(pool::both), blocks) << n;
    EXPECT_EQ(row_count("numbered"), static_cast<int>(n)) << n;
    insert(query);
  }
  EXPECT_EQ(row_count("numbered"), static_cast<int>(allocations) + 1);
}

}  // namespace
}  // namespace module_test
