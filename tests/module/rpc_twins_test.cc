// What an RPC command does otherwise than the script function of the same name, side by side.
#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const table USERS = {.name = "users", .columns = {{"name"}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table QUIET = {.name = "quiet", .columns = {{"a"}, {"b"}}};
const table NUMBERED = {.name = "numbered", .columns = {{"id", 10}, {"a"}}, .use_index = true};
const table MEDIA = claiming_table("media", "dynamic", "MEDIA");

class RpcTwinsTest : public RpcTest {
 protected:
  void SetUp() override {
    RpcTest::SetUp();
    write_file(main_file("users"), table_text({"alice|30|rome", "bob|31|oslo"}));
    open({USERS, QUIET, NUMBERED, MEDIA});
  }
};

// Insert

TEST_F(RpcTwinsTest, InsertADuplicateIsTakenFromTheScriptAndRefusedByRpc) {
  EXPECT_EQ(run("tarn_memdb_insert", {"users,alice|30|rome"}), 1);
  EXPECT_EQ(row_count("users"), 3);
  trace("tarn_memdb.insert", {"users,alice|30|rome"});
  EXPECT_EQ(reply.faults.at(0).text, "Internal Error");
  EXPECT_EQ(row_count("users"), 3);
}

TEST_F(RpcTwinsTest, InsertAuditLinesDifferInWidthWordAndLock) {
  EXPECT_THAT(trace_script("tarn_memdb_insert", {"users,carol|32|bern"}),
              ElementsAre("notice            USERS - (3) Inserting users,carol|32|bern"));
  EXPECT_THAT(
      trace("tarn_memdb.insert", {"users,dan|33|kyiv"}),
      ElementsAre("scan S", "{users} notice        USERS - (4) RPC Inserting users,dan|33|kyiv"));
}

TEST_F(RpcTwinsTest, InsertTellsTheIndexToTheScriptAndNothingToTheOperator) {
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,|x"}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,|y"}), 2);
  trace("tarn_memdb.insert", {"numbered,|z"});
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,|v"}), 4);
}

TEST_F(RpcTwinsTest, InsertIntoAFullTableIsAnErrorOfTheScriptAndAWarningOfRpc) {
  for (int i = 0; i < 100; i++) insert("quiet," + std::to_string(i) + "|x");
  EXPECT_THAT(trace_script("tarn_memdb_insert", {"quiet,a|b"}),
              ElementsAre("{quiet} err MAX number of rows allowed (100) for table 'quiet' reached. "
                          "Data will not be inserted!\n",
                          "err INSERT failed!\n"));
  EXPECT_EQ(result, -1);
  EXPECT_THAT(trace("tarn_memdb.insert", {"quiet,a|b"}),
              ElementsAre("scan S",
                          "{quiet} warn RPC Insert: MAX number of rows allowed (100) for table "
                          "'quiet' reached. Data will not be inserted!\n",
                          "fault 500 Internal Error"));
}

TEST_F(RpcTwinsTest, InsertWaitsForTheTimerOnBothRoads) {
  run("tarn_memdb_insert", {"quiet,1|2"});
  EXPECT_EQ(both_files("quiet"), "none / none");
  insert("quiet,3|4");
  EXPECT_EQ(both_files("quiet"), "none / none");
  EXPECT_THAT(stored("quiet"), ElementsAre("1|2", "3|4"));
}

TEST_F(RpcTwinsTest, AQueryLongerThanTheScriptsBufferPassesByRpc) {
  const std::string query = "quiet," + std::string(5000, 'v') + "|x";
  EXPECT_EQ(run("tarn_memdb_insert", {query}), -1);
  trace("tarn_memdb.insert", {query});
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(rows("quiet"), (row_list{{std::string(31, 'v'), "x"}}));
}

// Delete

TEST_F(RpcTwinsTest, DeleteWaitsForTheTimerFromTheScriptAndStoresAtOnceByRpc) {
  const std::string before = both_files("users");
  EXPECT_EQ(run("tarn_memdb_delete", {"users,alice|*|*"}), 1);
  EXPECT_EQ(both_files("users"), before);
  trace("tarn_memdb.delete", {"users,bob|*|*"});
  EXPECT_EQ(both_files("users"), "Version 1\n / Version 1\nalice|30|rome\nbob|31|oslo\n");
}

TEST_F(RpcTwinsTest, DeleteWithoutAMatchStoresByRpcAlone) {
  insert("quiet,1|2");
  EXPECT_EQ(run("tarn_memdb_delete", {"users,nobody|*|*"}), -2);
  EXPECT_EQ(both_files("quiet"), "none / none");
  trace("tarn_memdb.delete", {"users,nobody|*|*"});
  EXPECT_EQ(both_files("quiet"), "Version 1\n1|2\n / none");
}

TEST_F(RpcTwinsTest, DeleteAuditLinesDifferInWidthAndWord) {
  EXPECT_THAT(trace_script("tarn_memdb_delete", {"users,alice|*|*"}),
              ElementsAre("{users} notice            USERS - (1) Deleting users,alice|30|rome"));
  EXPECT_THAT(
      trace("tarn_memdb.delete", {"users,bob|*|*"}),
      ElementsAre("scan S", "{users} notice        USERS - (0) RPC Deleting users,bob|31|oslo"));
}

TEST_F(RpcTwinsTest, DeleteGivesPortsBackOnBothRoads) {
  insert("media,1|c1|a|b|21003|WAN||0|0");
  insert("media,2|c2|a|b|21004|WAN||0|0");
  run("tarn_memdb_delete", {"media,*|c1|*|*|*|*|*|*|*"});
  EXPECT_EQ(port_byte("INT", 21003), 0);
  trace("tarn_memdb.delete", {"media,*|c2|*|*|*|*|*|*|*"});
  EXPECT_EQ(port_byte("INT", 21004), 0);
}

// Update

TEST_F(RpcTwinsTest, UpdateTakesNamedValuesFromTheScriptAlone) {
  EXPECT_EQ(run("tarn_memdb_update", {"users,alice|*|*", "age=40"}), 1);
  EXPECT_EQ(rows("users")[0], (row{"alice", "40", "rome"}));
  trace("tarn_memdb.update", {"users,bob|*|*", "age=40"});
  EXPECT_EQ(reply.faults.at(0).text, "Bad parameter: 'age=40'");
  EXPECT_EQ(rows("users")[1], (row{"bob", "31", "oslo"}));
}

TEST_F(RpcTwinsTest, UpdateAuditLinesAndNotesDifferInWidthAndWord) {
  EXPECT_THAT(trace_script("tarn_memdb_update", {"users,alice|*|*", "*|40|*"}),
              ElementsAre("{users} notice            USERS - (2) Updating users,alice|40|rome"));
  EXPECT_THAT(
      trace("tarn_memdb.update", {"users,bob|*|*", "*|40|*"}),
      ElementsAre("scan SS", "{users} notice        USERS - (2) RPC Updating users,bob|40|oslo"));
  EXPECT_THAT(
      trace_script("tarn_memdb_update", {"users,alice|*|*", "||"}),
      ElementsAre("{users} notice            USERS - (1) Deleting from update users,||",
                  "{users} info Deleting row from update for selected index 0 in table users - "
                  "cols_len: 3\n"));
  EXPECT_THAT(
      trace("tarn_memdb.update", {"users,bob|*|*", "||"}),
      ElementsAre("scan SS", "{users} notice        USERS - (0) RPC Deleting from update users,||",
                  "{users} info RPC - Deleting row from update for selected index 0 in table users "
                  "- cols_len: 3\n"));
}

TEST_F(RpcTwinsTest, UpdateWaitsForTheTimerOnBothRoads) {
  const std::string before = both_files("users");
  run("tarn_memdb_update", {"users,alice|*|*", "*|40|*"});
  trace("tarn_memdb.update", {"users,bob|*|*", "*|41|*"});
  EXPECT_EQ(both_files("users"), before);
  EXPECT_THAT(stored("users"), ElementsAre("alice|40|rome", "bob|41|oslo"));
}

// Clear

TEST_F(RpcTwinsTest, ClearTblKeepsACopyInTheBackupFromTheScriptAndNoneByRpc) {
  run("tarn_memdb_clear_tbl", {"users"});
  EXPECT_EQ(both_files("users"), "Version 1\n / Version 1\nalice|30|rome\nbob|31|oslo\n");
  insert("users,carol|32|bern");
  standin::tick();
  trace("tarn_memdb.clear_tbl", {"users"});
  EXPECT_EQ(both_files("users"), "Version 1\n / Version 1\n");
}

TEST_F(RpcTwinsTest, ClearTblSetsStateOneFromTheScriptAndTwoByRpc) {
  EXPECT_THAT(trace_script("tarn_memdb_clear_tbl", {"users"}, DBG_LEVEL),
              Contains("{users} dbg Table 'users' state was set to value 1\n"));
  EXPECT_THAT(trace("tarn_memdb.clear_tbl", {"users"}, DBG_LEVEL),
              Contains("{users} dbg Table 'users' state was set to value 2\n"));
}

TEST_F(RpcTwinsTest, ClearTblGoesOnCountingIndexesFromTheScriptAndBeginsAnewByRpc) {
  insert("numbered,|x");
  insert("numbered,|y");
  run("tarn_memdb_clear_tbl", {"numbered"});
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,|z"}), 3);
  trace("tarn_memdb.clear_tbl", {"numbered"});
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,|z"}), 1);
}

TEST_F(RpcTwinsTest, ClearTblKeepsPortsOnBothRoads) {
  insert("media,1|c1|a|b|21003|WAN||0|0");
  run("tarn_memdb_clear_tbl", {"media"});
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
  insert("media,1|c1|a|b|21004|WAN||0|0");
  trace("tarn_memdb.clear_tbl", {"media"});
  EXPECT_EQ(port_byte("INT", 21003), 0x81);
  EXPECT_EQ(port_byte("INT", 21004), 0x81);
}

TEST_F(RpcTwinsTest, ClearAuditLinesDifferInWidthAndWord) {
  EXPECT_THAT(trace_script("tarn_memdb_clear_tbl", {"users"}),
              ElementsAre("{users} notice         USERS - (0) Clearing table users"));
  EXPECT_THAT(trace_script("tarn_memdb_clear_pmap", {}),
              ElementsAre("{media} notice        MEDIA - (0) Clearing table media"));
  EXPECT_THAT(trace("tarn_memdb.clear_tbl", {"users"}),
              ElementsAre("scan s", "{users} notice     USERS - (0) RPC Clearing table users"));
  EXPECT_THAT(trace("tarn_memdb.clear_all"),
              ElementsAre("{users} notice     USERS - (0) RPC Clearing table users",
                          "{media} notice     MEDIA - (0) RPC Clearing table media"));
}

TEST_F(RpcTwinsTest, ClearTblTakesTheWholeTextFromTheScriptAndAWordByRpc) {
  EXPECT_EQ(run("tarn_memdb_clear_tbl", {"users quiet"}), -1);
  EXPECT_EQ(row_count("users"), 2);
  trace("tarn_memdb.clear_tbl", {"users quiet"});
  EXPECT_EQ(row_count("users"), 0);
}

TEST_F(RpcTwinsTest, ClearOfAllSparesOtherTablesFromTheScriptAndNoneByRpc) {
  insert("media,1|c1|a|b|21003|WAN||0|0");
  run("tarn_memdb_clear_pmap", {});
  EXPECT_EQ(port_byte("INT", 21003), 0);
  EXPECT_EQ(row_count("media"), 0);
  EXPECT_EQ(row_count("users"), 2);
  insert("media,1|c1|a|b|21003|WAN||0|0");
  trace("tarn_memdb.clear_all");
  EXPECT_EQ(port_byte("INT", 21003), 0);
  EXPECT_EQ(row_count("users"), 0);
}

TEST_F(RpcTwinsTest, ClearOfAllKeepsACopyInTheBackupFromTheScriptAndNoneByRpc) {
  const std::string text = "1|c1|a|b|21003|WAN||0|0";
  insert("media," + text);
  standin::tick();
  run("tarn_memdb_clear_pmap", {});
  EXPECT_EQ(both_files("media"), "Version 1\n / Version 1\n" + text + "\n");
  insert("media," + text);
  standin::tick();
  trace("tarn_memdb.clear_all");
  EXPECT_EQ(both_files("media"), "Version 1\n / Version 1\n");
}

// Select

TEST_F(RpcTwinsTest, SelectOfNothingIsAMissToTheScriptAndAHeadToTheOperator) {
  for (const std::string query : {"quiet,*|*", "users,nobody|*|*"}) {
    EXPECT_EQ(run("tarn_memdb_select", {query, "$avp(a)"}), -2);
    EXPECT_EQ(lines("tarn_memdb.select", {query}), steps{"TABLE:"});
  }
}

TEST_F(RpcTwinsTest, SelectReadsOldestFirstInTheScriptAndNewestFirstByRpc) {
  EXPECT_EQ(run("tarn_memdb_select", {"users,*|*|*", "$avp(a)"}), 1);
  EXPECT_EQ(standin::avp("a"), (std::vector<value>{"alice", "bob"}));
  EXPECT_EQ(lines("tarn_memdb.select", {"users,*|*|*"}),
            (steps{"TABLE:", "bob|31|oslo", "alice|30|rome"}));
}

// The timer and the commands that store

TEST_F(RpcTwinsTest, OnlySyncStoresOneTableAndOnlySyncReplies) {
  insert("quiet,1|2");
  insert("numbered,|x");
  trace("tarn_memdb.sync", {"quiet"});
  EXPECT_EQ(reply.lines.size(), 2u);
  EXPECT_EQ(both_files("numbered"), "none / none");
  EXPECT_THAT(standin::logs(), Not(IsEmpty()));
  trace("tarn_memdb.clear_tbl", {"quiet"});
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_EQ(both_files("numbered"), "Version 1\n1|x\n / none");
}

}  // namespace
}  // namespace module_test
