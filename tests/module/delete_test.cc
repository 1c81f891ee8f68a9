// tarn_memdb_delete: which rows go, in which order, and what is said about it.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};

class DeleteTest : public ModuleTest {
 protected:
  int remove(const std::string &query) { return run("tarn_memdb_delete", {query}); }

  void expect_refused(const std::string &query, std::vector<message> said) {
    SCOPED_TRACE(query);
    const row_list before = rows("users");
    standin::clear_logs();
    EXPECT_EQ(remove(query), -1);
    said.push_back(err("DELETE failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
    EXPECT_FALSE(store_writes("users"));
    expect_rows("users", before);
  }

  static const std::vector<std::string> FOUR;
};

const std::vector<std::string> DeleteTest::FOUR = {"alice|30|rome", "bob|30|oslo", "alice|31|rome",
                                                   "carol||rome"};

TEST_F(DeleteTest, RemovesAMatchingRowAndGivesOne) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"users,bob|*|*"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Delete: users,bob|*|*\n"), dbg("Initializing flag_treatment ...\n"),
                          dbg("Table 'users' state was set to value 1\n"),
                          dbg("Table 'users' row count was set to 3\n")));
  expect_rows("users", {{"alice", "30", "rome"}, {"alice", "31", "rome"}, {"carol", "", "rome"}});
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome", "alice|31|rome", "carol||rome"));
}

TEST_F(DeleteTest, RemovesEveryMatchingRow) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*|*|rome"), 1);
  expect_rows("users", {{"bob", "30", "oslo"}});
}

TEST_F(DeleteTest, EveryFieldThatIsGivenHasToBeEqual) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,alice|30|oslo"), -2);
  EXPECT_EQ(remove("users,alice|31|rome"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}, {"carol", "", "rome"}});
}

TEST_F(DeleteTest, AnEmptyFieldMatchesEmptyTextsOnly) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*||*"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}, {"alice", "31", "rome"}});
}

TEST_F(DeleteTest, AMissIsSilentAndChangesNothing) {
  start_filled(with(USERS, 100, "USR"), FOUR);
  for (const std::string list : {"dave|*|*", "*|99|*", "*|*|Rome", "alic|*|*", "|*|*"}) {
    const standin::command call_of_it = fixup("tarn_memdb_delete", {"users," + list});
    forget();
    EXPECT_EQ(call(call_of_it), -2);
    EXPECT_THAT(messages(), ElementsAre(dbg("Delete: users," + list + "\n")));
  }
  EXPECT_FALSE(store_writes("users"));
  EXPECT_EQ(row_count("users"), 4);
}

TEST_F(DeleteTest, AnEmptyTableIsAMiss) {
  start({USERS});
  EXPECT_EQ(remove("users,*|*|*"), -2);
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(DeleteTest, ValuesComeFromTheMessage) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"users,$fU|*|*,$var(n)"});
  standin::set_value(msg, "$fU", "alice");
  standin::set_var("n", 1);
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(row_count("users"), 3);
  standin::set_value(msg, "$fU", "bob");
  EXPECT_EQ(call(call_of_it), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"carol", "", "rome"}});
}

TEST_F(DeleteTest, NamedListsGiveTheColumnsThatMatter) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,city=rome;name=alice,1"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}, {"carol", "", "rome"}});
  EXPECT_EQ(remove("users,age='',"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}});
  EXPECT_EQ(remove("users,,"), 1);
  expect_rows("users", {});
}

TEST_F(DeleteTest, EscapedValuesMatchTheirPlainText) {
  start_filled(USERS, {"a,b|1|x", "c|2|\\*", "d|3|y"});
  EXPECT_EQ(remove("users,a\\,b|*|*"), 1);
  EXPECT_EQ(remove("users,*|*|\\*"), 1);
  expect_rows("users", {{"d", "3", "y"}});
}

// How many rows go, and which.

TEST_F(DeleteTest, AFullScanStartsWithTheNewestRow) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*|*|*,1"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}, {"alice", "31", "rome"}});
}

TEST_F(DeleteTest, ASearchWithoutAnIndexStartsWithTheNewestRow) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*|30|*,1"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"alice", "31", "rome"}, {"carol", "", "rome"}});
}

TEST_F(DeleteTest, ASearchByAnIndexStartsWithTheNewestRowOfTheKey) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,alice|*|*,1"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}, {"carol", "", "rome"}});
}

TEST_F(DeleteTest, TheLimitMayBeMoreThanThereIs) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*|*|rome,2"), 1);
  EXPECT_EQ(row_count("users"), 2);
  EXPECT_EQ(remove("users,*|*|*,500"), 1);
  EXPECT_EQ(row_count("users"), 0);
}

TEST_F(DeleteTest, WithoutALimitTheTablesOwnOneCounts) {
  for (const std::string tail : {"", ",", ",abc", ",99999999999", ",1x", ",\\1"}) {
    start_filled(with(USERS, 2), FOUR);
    EXPECT_EQ(remove("users,*|*|*" + tail), 1) << tail;
    EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "rome"}, {"bob", "30", "oslo"}})) << tail;
    unload();
    load();
  }
}

TEST_F(DeleteTest, ASignedLimitAndTextBehindItAreTaken) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*|*|*,+2"), 1);
  EXPECT_EQ(row_count("users"), 2);
  EXPECT_EQ(remove("users,*|*|*,1,whatever"), 1);
  EXPECT_EQ(row_count("users"), 1);
}

TEST_F(DeleteTest, ATableOfNoRowsLimitDeletesNothingWithoutANumber) {
  start_filled(with(USERS, 0), FOUR);
  EXPECT_EQ(remove("users,*|*|*"), -2);
  EXPECT_EQ(remove("users,*|*|*,1"), 1);
  EXPECT_EQ(row_count("users"), 3);
}

TEST_F(DeleteTest, ALimitThatIsntAboveZeroIsRefused) {
  start_filled(USERS, FOUR);
  for (const std::string number : {"0", "-3", "+", "-0"})
    expect_refused("users,*|*|*," + number,
                   {err("Invalid value for maximum result count\n"),
                    err("Could not parse query (users,*|*|*," + number + ") for delete\n")});
}

TEST_F(DeleteTest, RowsOfOneKeyGoWithoutLosingTheirNeighbours) {
  std::vector<std::string> lines;
  for (int i = 0; i < 60; i++)
    lines.push_back("key" + std::to_string(i % 3) + "|" + std::to_string(i) + "|x");
  start_filled(USERS, lines);
  EXPECT_EQ(remove("users,key1|*|*"), 1);
  row_list left;
  for (int i = 0; i < 60; i++)
    if (i % 3 != 1) left.push_back({"key" + std::to_string(i % 3), std::to_string(i), "x"});
  expect_rows("users", left);
}

// Refusals.

TEST_F(DeleteTest, QueriesThatCantBeParsedAreRefused) {
  start_filled(USERS, FOUR);
  expect_refused(
      "users,alice|*",
      {err("Size mismatch"), err("Wrong number of fields in field list: users,alice|* | (null)\n"),
       err("Could not parse query (users,alice|*) for delete\n")});
  expect_refused(
      "users,alice|*|*|*,5",
      {err("Size mismatch"), err("Wrong number of fields in field list: users,alice|*|*|*,5 | 5\n"),
       err("Could not parse query (users,alice|*|*|*,5) for delete\n")});
}

TEST_F(DeleteTest, ATextThatCantBePrintedIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"users,*|*|*"});
  forget();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("DELETE failed!\n")));
  EXPECT_EQ(row_count("users"), 4);
}

TEST_F(DeleteTest, AQueryMayHave4095CharactersAndNoMore) {
  const std::string longest(4095 - strlen("wide,|*"), 'y');
  start_filled({"wide", {{"a", 5000}, {"b"}}}, {longest + "|x"});
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"wide,$fU|*"});
  standin::set_value(msg, "$fU", longest + "z");
  forget();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("DELETE failed!\n")));
  standin::set_value(msg, "$fU", longest);
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(row_count("wide"), 0);
}

TEST_F(DeleteTest, AQueryWhosePrintedTableIsUnknownIsRefused) {
  start({{"a$$b", {{"x"}, {"y"}}}});
  EXPECT_EQ(remove("a$$b,1|2"), -1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(err("Table 'a$b' was not found\n"), err("Table not found\n"),
                  err("Could not parse query (a$b,1|2) for delete\n"), err("DELETE failed!\n")));
}

TEST_F(DeleteTest, NoMemoryForTheFieldsIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"users,*|*|*,1"});
  forget();
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(crit("no more pkg memory\n"),
                          err("Wrong number of fields in field list: users,*|*|*,1 | 1\n"),
                          err("Could not parse query (users,*|*|*,1) for delete\n"),
                          err("DELETE failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

// Audit lines.

TEST_F(DeleteTest, ATaggedTableWritesALinePerRowWithTheCountThatRemains) {
  start_filled(with(USERS, 100, "USR"), FOUR);
  EXPECT_EQ(remove("users,*|*|rome"), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("           USR - (3) Deleting users,carol||rome"),
                          notice("           USR - (2) Deleting users,alice|31|rome"),
                          notice("           USR - (1) Deleting users,alice|30|rome")));
}

TEST_F(DeleteTest, TheLineStandsBetweenThePortsAndTheCount) {
  start_filled(with(USERS, 100, "USR"), {"alice|30|rome"});
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"users,*|*|*"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Delete: users,*|*|*\n"), dbg("Initializing flag_treatment ...\n"),
                          notice("           USR - (0) Deleting users,alice|30|rome"),
                          dbg("Table 'users' state was set to value 1\n"),
                          dbg("Table 'users' row count was set to 0\n")));
}

TEST_F(DeleteTest, TheLineShowsStoredTextsWithoutEscapes) {
  start_filled(with(USERS, 100, "USR"), {"a\\|b||\\*"});
  EXPECT_EQ(remove("users,*|*|*"), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("           USR - (0) Deleting users,a|b||*")));
}

TEST_F(DeleteTest, TheLineOfALongRowIsCut) {
  const std::string half(3000, 'h');
  start_filled({"wide", {{"a", 3000}, {"b", 3000}}, 100, "TAG"}, {half + "|" + half});
  EXPECT_EQ(remove("wide,*|*"), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL), ElementsAre(notice("           TAG - (0) Deleting wide," +
                                                         (half + "|" + half).substr(0, 4095))));
}

TEST_F(DeleteTest, ATableWithoutATagWritesNoLine) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(remove("users,*|*|*"), 1);
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
}

TEST_F(DeleteTest, NothingIsComposedWhenNoticesArentWritten) {
  start_filled(with(USERS, 100, "USR"), FOUR);
  standin::set_debug_level(WARN_LEVEL);
  EXPECT_EQ(remove("users,*|*|*"), 1);
  EXPECT_THAT(messages(), IsEmpty());
}

// Ports that rows hold.

TEST_F(DeleteTest, APortGoesWithTheRowAndByTheRowsOwnValues) {
  write_file(main_file("held"), table_text({"i|a|b|c||WAN||||105|205", "i|a|b|d||LAN||||106|206"}));
  start_with_small_maps({port_table("held", "dynamic")});
  const standin::command call_of_it = fixup("tarn_memdb_delete", {"held,*|a|*|*|*|*|*|*|*|*|*,"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Delete: held,*|a|*|*|*|*|*|*|*|*|*,\n"),
                                      dbg("Initializing flag_treatment ...\n"),
                                      dbg("Port = 206 is freed and value update to 0x0\n"),
                                      dbg("Initializing flag_treatment ...\n"),
                                      dbg("Port = 105 is freed and value update to 0x0\n"),
                                      dbg("Table 'held' state was set to value 1\n"),
                                      dbg("Table 'held' row count was set to 0\n")));
}

}  // namespace
}  // namespace module_test
