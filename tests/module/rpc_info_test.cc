// "tarn_memdb.show_tbl_info", "tarn_memdb.show_tbls_lst" and "tarn_memdb.show_pm_info".
#include <cerrno>

#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char INFO[] = "tarn_memdb.show_tbl_info";
constexpr char LIST[] = "tarn_memdb.show_tbls_lst";
constexpr char MAPS[] = "tarn_memdb.show_pm_info";

const table USERS = {.name = "users",
                     .columns = {{"name", 31, true}, {"age"}, {"city"}},
                     .max_rows = 50,
                     .log_tag = "USERS",
                     .check_duplicates = true};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};

table numbered_media() {
  table media = claiming_table("media", "dynamic", "FIFTEEN_LETTERS");
  media.use_index = true;
  return media;
}

class RpcInfoTest : public RpcTest {
 protected:
  // Every line of a command fails in turn: what came before it stays, nothing is faulted, and the
  // command after it is whole.
  void expect_each_line_to_fail(const std::string &command, const std::vector<value> &arguments,
                                const steps &last_steps) {
    const steps all = lines(command, arguments);
    for (size_t failing = 1; failing <= all.size(); failing++) {
      standin::fail_call("rpc.rpl_printf", static_cast<int>(failing));
      const steps seen = trace(command, arguments, DBG_LEVEL);
      EXPECT_THAT(reply.faults, IsEmpty());
      EXPECT_EQ(reply.lines, steps(all.begin(), all.begin() + static_cast<long>(failing) - 1));
      ASSERT_GE(seen.size(), last_steps.size());
      EXPECT_EQ(steps(seen.end() - static_cast<long>(last_steps.size()), seen.end()), last_steps);
      EXPECT_EQ(seen.size(), (arguments.empty() ? 0 : 1) + failing + last_steps.size());
      EXPECT_EQ(lines(command, arguments), all);
    }
  }
};

TEST_F(RpcInfoTest, ATableWithoutPortsAndIndexHasNineLines) {
  open({QUIET});
  EXPECT_THAT(trace(INFO, {"quiet"}),
              ElementsAre("scan s", "{quiet} line Table: quiet", "{quiet} line Row count: 0",
                          "{quiet} line Max rows: 100", "{quiet} line Number of columns: 2",
                          "{quiet} line State: 0", "{quiet} line Use index: 0",
                          "{quiet} line Log tag: ", "{quiet} line Check for duplicated data: 0",
                          "{quiet} line File name: quiet.txt"));
  EXPECT_THAT(reply.faults, IsEmpty());
}

TEST_F(RpcInfoTest, ATableWithPortsAndIndexHasThirteenLines) {
  open({numbered_media()});
  insert("media,|c1|a|b|21003|WAN||0|0");
  insert("media,|c2|a|b|21004|WAN||0|0");
  EXPECT_THAT(
      lines(INFO, {"media"}),
      ElementsAre("Table: media", "Row count: 2", "Max rows: 100", "Number of columns: 9",
                  "State: 1", "Use index: 1", "Next index: 3", "Port range: dynamic",
                  "Internal port field: 4", "External port field: 6", "Log tag: FIFTEEN_LETTERS",
                  "Check for duplicated data: 0", "File name: media.txt"));
}

TEST_F(RpcInfoTest, IndexAndPortsHaveTheirLinesEachByItself) {
  table numbered = QUIET;
  numbered.use_index = true;
  open({numbered, claiming_table("lines", "static")});
  EXPECT_THAT(lines(INFO, {"quiet"}),
              ElementsAre("Table: quiet", "Row count: 0", "Max rows: 100", "Number of columns: 2",
                          "State: 0", "Use index: 1", "Next index: 1",
                          "Log tag: ", "Check for duplicated data: 0", "File name: quiet.txt"));
  EXPECT_THAT(lines(INFO, {"lines"}),
              ElementsAre("Table: lines", "Row count: 0", "Max rows: 100", "Number of columns: 9",
                          "State: 0", "Use index: 0", "Port range: static",
                          "Internal port field: 4", "External port field: 6",
                          "Log tag: ", "Check for duplicated data: 0", "File name: lines.txt"));
}

TEST_F(RpcInfoTest, SettingsAreToldAsTheSchemaHasThem) {
  open({USERS});
  EXPECT_THAT(lines(INFO, {"users"}),
              ElementsAre("Table: users", "Row count: 0", "Max rows: 50", "Number of columns: 3",
                          "State: 0", "Use index: 0", "Log tag: USERS",
                          "Check for duplicated data: 1", "File name: users.txt"));
}

TEST_F(RpcInfoTest, AnIndexBeyondThirtyOneBitsShowsNegative) {
  table numbered = QUIET;
  numbered.use_index = true;
  write_file(main_file("quiet"), table_text({"4294967293|x"}));
  open({numbered});
  EXPECT_EQ(info_line("quiet", "Next index"), "Next index: -2");
}

TEST_F(RpcInfoTest, EachChangeStateIsSeen) {
  open({USERS});
  EXPECT_EQ(info_line("users", "State"), "State: 0");
  insert("users,alice|30|rome");
  EXPECT_EQ(info_line("users", "State"), "State: 1");
  standin::fail_file_op("fopen", 1, EACCES);
  trace("tarn_memdb.clear_tbl", {"users"});
  EXPECT_EQ(info_line("users", "State"), "State: 2");
  standin::tick();
  EXPECT_EQ(info_line("users", "State"), "State: 0");
}

TEST_F(RpcInfoTest, InfoTakesTheArgumentsFirstWord) {
  open({USERS, QUIET});
  for (const std::string argument : {"users quiet", "users\nquiet", " \tusers"})
    EXPECT_EQ(lines(INFO, {argument}).front(), "Table: users") << argument;
}

TEST_F(RpcInfoTest, InfoWithoutAnArgument) {
  open({USERS});
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(INFO),
                ElementsAre("scan s", "warn RPC Show info: wrong number of parameters\n",
                            "fault 500 wrong number of parameters"));
    EXPECT_EQ(reply.fault->text, "wrong number of parameters");
  }
}

TEST_F(RpcInfoTest, InfoOnAnUnknownTable) {
  open({USERS});
  EXPECT_THAT(trace(INFO, {"nobody users"}),
              ElementsAre("scan s", "err Table 'nobody' was not found\n",
                          "err RPC Show info: wrong table name: 'nobody'",
                          "fault 500 Wrong table name: 'nobody'"));
  trace(INFO, {""});
  EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: ''");
}

TEST_F(RpcInfoTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  for (const size_t length : {32u, 33u, 5000u}) {
    trace(INFO, {std::string(length, 'n')});
    EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: '" + known + "'");
  }
  EXPECT_EQ(lines(INFO, {known}).front(), "Table: " + known);
}

TEST_F(RpcInfoTest, EachOfTheThirteenLinesThatFailsEndsTheInfoWithoutAWord) {
  open({numbered_media()});
  ASSERT_THAT(lines(INFO, {"media"}), SizeIs(13));
  expect_each_line_to_fail(INFO, {"media"}, {});
}

TEST_F(RpcInfoTest, TheListNamesTablesInSchemaOrderWithoutALock) {
  open({USERS, numbered_media(), QUIET});
  EXPECT_EQ(trace(LIST, {}, DBG_LEVEL),
            (steps{"line DB has 3 tables defined:", "line users", "line media", "line quiet"}));
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_each_line_to_fail(LIST, {}, {});
}

TEST_F(RpcInfoTest, TheListOfNoTables) {
  open({});
  EXPECT_THAT(lines(LIST), ElementsAre("DB has 0 tables defined:"));
}

TEST_F(RpcInfoTest, TheDefaultMapsWithoutAPrivateRangeFile) {
  start({});
  EXPECT_THAT(lines(MAPS),
              ElementsAre("PM Info",
                          "Dynamic Internal Range:\nMin port = 21000; Max port = 21255; Next free "
                          "port = 21000; Private Port Range = No;",
                          "Dynamic External Range:\nMin port = 10000; Max port = 15000; Next free "
                          "port = 10000; Private Port Range = No;",
                          "Static Internal Range:\nMin port = 21000; Max port = 21255; Next free "
                          "port = 21000; Private Port Range = No;",
                          "Static External Range:\nMin port = 9000; Max port = 9255; Next free "
                          "port = 9000; Private Port Range = No;"));
}

TEST_F(RpcInfoTest, PrivateRangesFollowTheirMapUnderThePortLock) {
  write_file(ranges_file(),
             "INT 21003 21004\n"
             "INT 21005 21006 21007\n"
             "STATIC_EXT 9001 9002 9003 9004 9005 9006 9007 9008 9009 9010 9011\n"
             "EXT\n");
  open({});
  EXPECT_THAT(
      trace(MAPS, {}, DBG_LEVEL),
      ElementsAre("{ports} line PM Info",
                  "{ports} line Dynamic Internal Range:\nMin port = 21000; Max port = 21010; Next "
                  "free port = 21000; Private Port Range = Yes;",
                  "{ports} line Listing 2 Private Range(s):\n",
                  "{ports} line 21003 21004 -1 -1 -1 -1 -1 -1 -1 -1\n",
                  "{ports} line 21005 21006 21007 -1 -1 -1 -1 -1 -1 -1\n",
                  "{ports} line Dynamic External Range:\nMin port = 10000; Max port = 10012; Next "
                  "free port = 10000; Private Port Range = Yes;",
                  "{ports} line Listing 1 Private Range(s):\n",
                  "{ports} line -1 -1 -1 -1 -1 -1 -1 -1 -1 -1\n",
                  "{ports} line Static Internal Range:\nMin port = 22000; Max port = 22016; Next "
                  "free port = 22000; Private Port Range = No;",
                  "{ports} line Static External Range:\nMin port = 9000; Max port = 9018; Next "
                  "free port = 9000; Private Port Range = Yes;",
                  "{ports} line Listing 1 Private Range(s):\n",
                  "{ports} line 9001 9002 9003 9004 9005 9006 9007 9008 9009 9010\n"));
  EXPECT_THAT(reply.faults, IsEmpty());
  expect_each_line_to_fail(MAPS, {}, {"{ports} err Error to allocate port map"});
}

TEST_F(RpcInfoTest, TheNextPortMovesAndAnExhaustedMapShowsMinusOne) {
  open({});
  run("tarn_memdb_get_port", {"INT"});
  EXPECT_EQ(lines(MAPS).at(1),
            "Dynamic Internal Range:\nMin port = 21000; Max port = 21010; Next free port = 21001; "
            "Private Port Range = No;");
  for (int port = 21001; port <= 21010; port++) run("tarn_memdb_get_port", {"INT"});
  EXPECT_EQ(lines(MAPS).at(1),
            "Dynamic Internal Range:\nMin port = 21000; Max port = 21010; Next free port = -1; "
            "Private Port Range = No;");
}

TEST_F(RpcInfoTest, PrivateRangesAreStillListedAfterTheMapsWereCleared) {
  write_file(ranges_file(), "INT 21001 21002\n");
  open({});
  EXPECT_EQ(port_byte("INT", 21001), 0x40);
  const steps before = lines(MAPS);
  silently("tarn_memdb.clear_all", {});
  EXPECT_EQ(port_byte("INT", 21001), 0) << "the mark is gone";
  EXPECT_EQ(lines(MAPS), before);
  EXPECT_THAT(before, Contains("21001 21002 -1 -1 -1 -1 -1 -1 -1 -1\n"));
}

TEST_F(RpcInfoTest, ARangeWithoutMemoryAtStartIsCountedAndNotListed) {
  write_file(ranges_file(), "INT 21001 21002\nINT 21003 21004\n");
  // Four records, four maps and a lock come first, then place and record of each range.
  configure({});
  standin::fail_at(pool::shm, 1 + 4 + 4 + 1 + 4);
  ASSERT_EQ(init(), 0);
  ASSERT_TRUE(standin::logged(ERR_LEVEL, "Could not allocate memory for port_m->private_range\n"));
  const standin::rpc_reply shown = rpc(MAPS);
  EXPECT_THAT(shown.lines,
              ElementsAre("PM Info", testing::HasSubstr("Private Port Range = Yes;"),
                          "Listing 2 Private Range(s):\n", "21001 21002 -1 -1 -1 -1 -1 -1 -1 -1\n",
                          testing::HasSubstr("Dynamic External Range"),
                          testing::HasSubstr("Static Internal Range"),
                          testing::HasSubstr("Static External Range")));
}

TEST_F(RpcInfoTest, RangesWhoseListFoundNoMemoryAtStartAreNoRanges) {
  write_file(ranges_file(), "INT 21001 21002\nINT 21003 21004\n");
  configure({});
  standin::fail_at(pool::shm, 1 + 4 + 4 + 1 + 3);
  ASSERT_EQ(init(), 0);
  ASSERT_TRUE(standin::logged(ERR_LEVEL, "Could not allocate memory for port_m->private_range\n"));
  const standin::rpc_reply shown = rpc(MAPS);
  EXPECT_THAT(shown.lines, SizeIs(5));
  EXPECT_THAT(shown.lines.at(1), testing::HasSubstr("Private Port Range = No;"));
}

TEST_F(RpcInfoTest, MapsForWhichAFailedStartHadNoMemoryAreLeftOut) {
  configure({});
  shared_blocks_may_stay = true;
  // The registry and the first map's record are all that there is memory for.
  standin::fail_from(pool::shm, 3);
  ASSERT_EQ(init(), -1);
  standin::stop_failing();
  EXPECT_THAT(
      rpc(MAPS).lines,
      ElementsAre("PM Info",
                  "Dynamic Internal Range:\nMin port = 0; Max port = 0; Next free port = 0; "
                  "Private Port Range = No;"));
}

TEST_F(RpcInfoTest, NoMemoryOfTheModuleIsNeeded) {
  write_file(ranges_file(), "INT 21001 21002\n");
  open({numbered_media()});
  standin::fail_from(pool::both, 1);
  EXPECT_THAT(lines(INFO, {"media"}), SizeIs(13));
  EXPECT_THAT(lines(LIST), SizeIs(2));
  EXPECT_THAT(lines(MAPS), SizeIs(7));
  EXPECT_EQ(standin::failed_allocations(), 0u);
}

TEST_F(RpcInfoTest, NothingChanges) {
  open({USERS});
  lines(INFO, {"users"});
  lines(LIST);
  lines(MAPS);
  EXPECT_FALSE(store_writes("users"));
}

}  // namespace
}  // namespace module_test
