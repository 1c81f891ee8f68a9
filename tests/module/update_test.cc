// tarn_memdb_update: which rows are visited, what is set, which rows go, and what is said about it.
#include <map>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};

class UpdateTest : public ModuleTest {
 protected:
  int update(const std::string &query, const std::string &values) {
    return run("tarn_memdb_update", {query, values});
  }

  void expect_refused(const std::string &query, const std::string &values,
                      std::vector<message> said) {
    SCOPED_TRACE(query + " / " + values);
    const row_list before = rows("users");
    standin::clear_logs();
    EXPECT_EQ(update(query, values), -1);
    said.push_back(err("UPDATE failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
    EXPECT_FALSE(store_writes("users"));
    expect_rows("users", before);
  }

  // The number of rows that a select by this list finds.
  size_t found(const std::string &list) {
    const quiet silence;
    run("tarn_memdb_nl_select", {"users," + list + ",", "$avp(found)"});
    const size_t count = standin::avp("found").size();
    standin::set_value(msg, "$avp(found)", value());
    return count;
  }

  static const std::vector<std::string> FOUR;
};

const std::vector<std::string> UpdateTest::FOUR = {"alice|30|rome", "bob|30|oslo", "alice|31|rome",
                                                   "carol||rome"};

TEST_F(UpdateTest, SetsTheGivenColumnsAndGivesOne) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,bob|*|*", "*|40|bergen"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,bob|*|*\n"), dbg("Update: *|40|bergen\n"),
                                      dbg("Before conversionL [*|40|bergen]\n"),
                                      dbg("Initializing flag_treatment ...\n"),
                                      dbg("Table 'users' state was set to value 1\n")));
  expect_rows("users", {{"alice", "30", "rome"},
                        {"bob", "40", "bergen"},
                        {"alice", "31", "rome"},
                        {"carol", "", "rome"}});
  EXPECT_THAT(stored("users"),
              ElementsAre("alice|30|rome", "bob|40|bergen", "alice|31|rome", "carol||rome"));
}

TEST_F(UpdateTest, SetsEveryMatchingRow) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|rome", "*|50|*"), 1);
  expect_rows("users", {{"alice", "50", "rome"},
                        {"bob", "30", "oslo"},
                        {"alice", "50", "rome"},
                        {"carol", "50", "rome"}});
}

TEST_F(UpdateTest, AnEmptyValueEmptiesTheColumn) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,bob|*|*", "*||*"), 1);
  EXPECT_EQ(update("users,carol|*|*", "*|*|"), 1);
  expect_rows(
      "users",
      {{"alice", "30", "rome"}, {"bob", "", "oslo"}, {"alice", "31", "rome"}, {"carol", "", ""}});
}

TEST_F(UpdateTest, AMissIsSilentAndChangesNothing) {
  start_filled(with(USERS, 100, "USR"), FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,dave|*|*", "*|1|*"});
  forget();
  EXPECT_EQ(call(call_of_it), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,dave|*|*\n"), dbg("Update: *|1|*\n"),
                                      dbg("Before conversionL [*|1|*]\n")));
  EXPECT_FALSE(store_writes("users"));
  EXPECT_EQ(row_count("users"), 4);
}

TEST_F(UpdateTest, WildcardsForEveryColumnLeaveTheRowsAndMarkTheTable) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|*", "*|*|*"), 1);
  EXPECT_TRUE(store_writes("users"));
  expect_rows("users", {{"alice", "30", "rome"},
                        {"bob", "30", "oslo"},
                        {"alice", "31", "rome"},
                        {"carol", "", "rome"}});
}

TEST_F(UpdateTest, ValuesComeFromTheMessage) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it =
      fixup("tarn_memdb_update", {"users,$fU|*|*", "*|$var(age)|*"});
  standin::set_value(msg, "$fU", "alice");
  standin::set_var("age", 18);
  EXPECT_EQ(call(call_of_it), 1);
  standin::set_value(msg, "$fU", "bob");
  standin::set_var("age", "19|x");
  standin::clear_logs();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_TRUE(standin::logged(ERR_LEVEL, "Could not parse query (*|19|x|*) for update\n"));
  EXPECT_EQ(rows("users"), (row_list{{"alice", "18", "rome"},
                                     {"bob", "30", "oslo"},
                                     {"alice", "18", "rome"},
                                     {"carol", "", "rome"}}));
}

TEST_F(UpdateTest, ValuesMayHoldCommasAndEscapes) {
  start_filled(USERS, {"alice|30|rome"});
  EXPECT_EQ(update("users,alice|*|*", "*|1,2|a\\|\\*\\\\"), 1);
  expect_rows("users", {{"alice", "1,2", "a|*\\"}});
}

TEST_F(UpdateTest, ValuesLongerThanTheirColumnAreCutAndWarnedOf) {
  start_filled({"users", {{"name", 31}, {"age", 3}}}, {"alice|30"});
  EXPECT_EQ(update("users,alice|*", "*|12345"), 1);
  EXPECT_THAT(messages(WARN_LEVEL),
              ElementsAre(warn(
                  "Value '12345' too long. It will be truncated to fit field size (3 bytes)\n")));
  expect_rows("users", {{"alice", "123"}});
}

// Values by name.

TEST_F(UpdateTest, ValuesMayBeGivenByName) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it =
      fixup("tarn_memdb_update", {"users,name=bob,", "city=bergen;age=40"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: users,bob|*|*,\n"), dbg("Update: city=bergen;age=40\n"),
                          dbg("Before conversionL [city=bergen;age=40]\n"),
                          info("Query list after conversion [*|40|bergen]\n"),
                          dbg("Initializing flag_treatment ...\n"),
                          dbg("Table 'users' state was set to value 1\n")));
  expect_rows("users", {{"alice", "30", "rome"},
                        {"bob", "40", "bergen"},
                        {"alice", "31", "rome"},
                        {"carol", "", "rome"}});
}

TEST_F(UpdateTest, TheFirstOfSeveralValuesOfOneNameWinsOnEveryHost) {
  start_filled(USERS, {"alice|30|rome"});
  EXPECT_EQ(update("users,alice|*|*", "age=1;city=oslo;age=2;"), 1);
  expect_rows("users", {{"alice", "1", "oslo"}});
  standin::set_params_order(standin::params_order::forward);
  EXPECT_EQ(update("users,alice|*|*", "age=3;city=bergen;age=4;"), 1);
  expect_rows("users", {{"alice", "3", "bergen"}});
}

TEST_F(UpdateTest, NamedValuesMayBeEmptyQuotedOrStars) {
  start_filled(USERS, {"alice|30|rome"});
  EXPECT_EQ(update("users,alice|*|*", "age='';city='new york'"), 1);
  expect_rows("users", {{"alice", "", "new york"}});
  EXPECT_EQ(update("users,alice|*|*", "age=*;city=\\*"), 1);
  expect_rows("users", {{"alice", "", "*"}});
}

TEST_F(UpdateTest, NamedValuesArePrintedForEachMessage) {
  start_filled(USERS, {"alice|30|rome"});
  const standin::command call_of_it =
      fixup("tarn_memdb_update", {"users,*|*|*", "age=$var(age);city=x"});
  standin::set_var("age", 7);
  EXPECT_EQ(call(call_of_it), 1);
  expect_rows("users", {{"alice", "7", "x"}});
  standin::set_var("age", 8);
  EXPECT_EQ(call(call_of_it), 1);
  expect_rows("users", {{"alice", "8", "x"}});
}

TEST_F(UpdateTest, ASubstitutedBarTurnsNamedValuesIntoPositions) {
  start_filled(USERS, {"alice|30|rome"});
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,*|*|*", "age=$var(age)"});
  standin::set_var("age", "7|b|c");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(rows("users"), (row_list{{"age=7", "b", "c"}}));
}

TEST_F(UpdateTest, AnUnknownNameIsRefusedAtTheCall) {
  start_filled(USERS, FOUR);
  expect_refused("users,*|*|*", "phone=1",
                 {err("Parameter [phone] not found in the table [users]\n")});
  expect_refused("users,*|*|*", "Age=1", {err("Parameter [Age] not found in the table [users]\n")});
}

TEST_F(UpdateTest, NamedValuesThatTheHostCantReadAreRefused) {
  start_filled(USERS, FOUR);
  expect_refused("users,*|*|*", "age=1 2", {err("Invalid formatted values [age=1 2]\n")});
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,*|*|*", "age=1"});
  forget();
  standin::fail_call("parse_params", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Invalid formatted values [age=1]\n"), err("UPDATE failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(UpdateTest, InATableOfOneColumnAnEqualsSignMeansAName) {
  start_filled({"users", {{"only"}}}, {"x"});
  expect_refused("users,x", "a=b", {err("Parameter [a] not found in the table [users]\n")});
  EXPECT_EQ(update("users,x", "only=y"), 1);
  expect_rows("users", {{"y"}});
  EXPECT_EQ(update("users,y", "z"), 1);
  expect_rows("users", {{"z"}});
}

// How many rows are visited, and which.

TEST_F(UpdateTest, TheLimitTakesTheRowsInTheOrderOfTheSearch) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|*,1", "*|1|*"), 1);
  EXPECT_EQ(update("users,*|30|*,1", "*|2|*"), 1);
  EXPECT_EQ(update("users,alice|*|*,1", "*|3|*"), 1);
  expect_rows("users", {{"alice", "30", "rome"},
                        {"bob", "2", "oslo"},
                        {"alice", "3", "rome"},
                        {"carol", "1", "rome"}});
}

TEST_F(UpdateTest, WithoutALimitTheTablesOwnOneCounts) {
  start_filled(with(USERS, 2), FOUR);
  EXPECT_EQ(update("users,*|*|*", "*|1|*"), 1);
  EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "rome"},
                                     {"bob", "30", "oslo"},
                                     {"alice", "1", "rome"},
                                     {"carol", "1", "rome"}}));
}

TEST_F(UpdateTest, ALimitThatIsntAboveZeroIsRefused) {
  start_filled(USERS, FOUR);
  for (const std::string number : {"0", "-1"})
    expect_refused("users,*|*|*," + number, "*|1|*",
                   {err("Invalid value for maximum result count\n"),
                    err("Could not parse query (users,*|*|*," + number + ") for update\n")});
}

TEST_F(UpdateTest, OverwritingTheSearchedColumnVisitsEveryRowAllTheSame) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|rome", "*|*|paris"), 1);
  EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "paris"},
                                     {"bob", "30", "oslo"},
                                     {"alice", "31", "paris"},
                                     {"carol", "", "paris"}}));
}

TEST_F(UpdateTest, NeitherLimitNorDuplicateCheckNorNumberPlaysAPart) {
  start_filled(with(USERS, 3, "", true, true), {"1|30|rome", "2|31|rome", "3|32|oslo"});
  EXPECT_EQ(update("users,*|*|rome", "9|40|bergen"), 1);
  EXPECT_EQ(rows("users"),
            (row_list{{"9", "40", "bergen"}, {"9", "40", "bergen"}, {"3", "32", "oslo"}}));
  EXPECT_EQ(run("tarn_memdb_delete", {"users,3|*|*"}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,x|1|x"}), 4);
}

// Columns with an index.

TEST_F(UpdateTest, AnOverwrittenIndexedColumnIsFoundByNeitherValue) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,bob|*|*", "zoe|*|*"), 1);
  EXPECT_EQ(found("zoe|*|*"), 0u);
  EXPECT_EQ(found("bob|*|*"), 0u);
  EXPECT_EQ(found("*|*|oslo"), 1u);
  EXPECT_EQ(rows("users")[1], (row{"zoe", "30", "oslo"}));
}

TEST_F(UpdateTest, ARestartPutsOverwrittenRowsIntoTheirPlaces) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,bob|*|*", "zoe|*|*"), 1);
  restart();
  expect_rows("users", {{"alice", "30", "rome"},
                        {"zoe", "30", "oslo"},
                        {"alice", "31", "rome"},
                        {"carol", "", "rome"}});
}

// The bucket of a text in an indexed column.
uint32_t bucket(const std::string &text) {
  uint32_t hash = 0x9D1C81C5;
  for (const char c : text) hash = hash * 130 + static_cast<uint32_t>(static_cast<signed char>(c));
  return hash % 512;
}

TEST_F(UpdateTest, AnOverwrittenIndexedColumnIsFoundIfBothValuesShareABucket) {
  std::map<uint32_t, std::string> first;
  std::string old_name, new_name;
  for (int i = 0; new_name.empty(); i++) {
    const std::string text = "name" + std::to_string(i);
    const auto [known, fresh] = first.emplace(bucket(text), text);
    if (fresh) continue;
    old_name = known->second;
    new_name = text;
  }
  start_filled(USERS, {old_name + "|1|x"});
  EXPECT_EQ(update("users," + old_name + "|*|*", new_name + "|*|*"), 1);
  EXPECT_EQ(found(new_name + "|*|*"), 1u);
  EXPECT_EQ(found(old_name + "|*|*"), 0u);
}

TEST_F(UpdateTest, NoChainLeadsToAnOverwrittenRowThatWasDeleted) {
  start_filled(USERS, {"alice|1|x", "bob|2|x", "bob|3|x", "bob|4|x"});
  EXPECT_EQ(update("users,*|3|*", "zoe|*|*"), 1);
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|3|*"}), 1);
  // The chain of the old value went through the deleted row.
  EXPECT_EQ(found("bob|*|*"), 2u);
  EXPECT_EQ(found("zoe|*|*"), 0u);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,bob|5|x"}), 1);
  expect_rows("users",
              {{"alice", "1", "x"}, {"bob", "2", "x"}, {"bob", "4", "x"}, {"bob", "5", "x"}});
  EXPECT_EQ(run("tarn_memdb_delete", {"users,bob|*|*"}), 1);
  expect_rows("users", {{"alice", "1", "x"}});
}

TEST_F(UpdateTest, OverwritingTheKeyOfASearchByIndexVisitsEveryRowOfTheKey) {
  start_filled(USERS, {"bob|1|x", "alice|2|x", "bob|3|x", "bob|4|x"});
  EXPECT_EQ(update("users,bob|*|*", "zoe|9|*"), 1);
  EXPECT_EQ(
      rows("users"),
      (row_list{{"zoe", "9", "x"}, {"alice", "2", "x"}, {"zoe", "9", "x"}, {"zoe", "9", "x"}}));
}

// Rows that lose their last text.

TEST_F(UpdateTest, ARowWithoutAnyTextLeftIsRemoved) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,bob|*|*", "||"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Select: users,bob|*|*\n"), dbg("Update: ||\n"),
                  dbg("Before conversionL [||]\n"), dbg("Initializing flag_treatment ...\n"),
                  info("Deleting row from update for selected index 0 in table users - "
                       "cols_len: 3\n"),
                  dbg("Table 'users' state was set to value 1\n"),
                  dbg("Table 'users' row count was set to 3\n")));
  expect_rows("users", {{"alice", "30", "rome"}, {"alice", "31", "rome"}, {"carol", "", "rome"}});
}

TEST_F(UpdateTest, ARowWhoseLastTextsGoIsRemovedByNameToo) {
  start_filled({"users", {{"name", 31, true}, {"age"}}}, {"|30", "bob|", "bob|31"});
  EXPECT_EQ(update("users,*|*", "age=''"), 1);
  EXPECT_EQ(rows("users"), (row_list{{"bob", ""}, {"bob", ""}}));
  EXPECT_EQ(update("users,*|*", "name='';age=*"), 1);
  EXPECT_EQ(rows("users"), row_list{});
  EXPECT_EQ(row_count("users"), 0);
}

TEST_F(UpdateTest, RemovedRowsCountAsVisited) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|*,2", "||"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "30", "oslo"}});
  EXPECT_EQ(update("users,alice|*|*,2", "||"), 1);
  expect_rows("users", {{"bob", "30", "oslo"}});
}

TEST_F(UpdateTest, EveryRowMayGo) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|*", "||"), 1);
  expect_rows("users", {});
  EXPECT_EQ(stored("users"), std::vector<std::string>());
  EXPECT_EQ(run("tarn_memdb_insert", {"users,alice|1|x"}), 1);
  expect_rows("users", {{"alice", "1", "x"}});
}

TEST_F(UpdateTest, RemovedAndKeptRowsStandSideBySide) {
  start_filled(with({"users", {{"name", 31, true}, {"age"}}}, 100, "USR"),
               {"|1", "a|2", "|3", "b|4"});
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,*|*", "*|"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(
          notice("           USR - (4) Updating users,b|"),
          notice("           USR - (2) Deleting from update users,|"),
          info("Deleting row from update for selected index 1 in table users - cols_len: 2\n"),
          notice("           USR - (4) Updating users,a|"),
          notice("           USR - (0) Deleting from update users,|"),
          info("Deleting row from update for selected index 3 in table users - cols_len: 2\n")));
  expect_rows("users", {{"a", ""}, {"b", ""}});
}

// Refusals.

TEST_F(UpdateTest, QueriesThatCantBeParsedAreRefused) {
  start_filled(USERS, FOUR);
  expect_refused(
      "users,alice|*", "*|1|*",
      {err("Size mismatch"), err("Wrong number of fields in field list: users,alice|* | (null)\n"),
       err("Could not parse query (users,alice|*) for update\n")});
}

TEST_F(UpdateTest, ValuesThatDontFitTheColumnsAreRefused) {
  start_filled(USERS, FOUR);
  for (const std::string values : {"alice", "*|1", "*|1|*|x", "|"})
    expect_refused(
        "users,alice|*|*", values,
        {err("Size mismatch"), err("Could not parse query (" + values + ") for update\n")});
}

TEST_F(UpdateTest, TextsThatCantBePrintedAreRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,*|*|*", "*|1|*"});
  forget();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("UPDATE failed!\n")));
  forget();
  standin::fail_call("pv_printf", 2);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: users,*|*|*\n"), err(UNPRINTABLE), err("UPDATE failed!\n")));
  EXPECT_FALSE(store_writes("users"));
}

TEST_F(UpdateTest, ValuesThatPrintToNothingAreRefused) {
  start_filled(USERS, FOUR);
  standin::set_var("empty", "");
  for (const std::string values : {"", "$var(empty)"}) {
    const standin::command call_of_it = fixup("tarn_memdb_update", {"users,*|*|*", values});
    forget();
    EXPECT_EQ(call(call_of_it), -1);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(UNPRINTABLE), err("UPDATE failed!\n")));
  }
}

TEST_F(UpdateTest, BothTextsMayHave4095CharactersAndNoMore) {
  const std::string longest(4095 - 2, 'y');
  start_filled({"wide", {{"a", 5000}, {"b"}}}, {"x|x"});
  const standin::command call_of_it = fixup("tarn_memdb_update", {"wide,*|*", "$fU|*"});
  standin::set_value(msg, "$fU", longest + "z");
  forget();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: wide,*|*\n"), err(UNPRINTABLE), err("UPDATE failed!\n")));
  standin::set_value(msg, "$fU", longest);
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(rows("wide"), (row_list{{longest, "x"}}));
}

TEST_F(UpdateTest, AQueryWhosePrintedTableIsUnknownIsRefused) {
  start({{"a$$b", {{"x"}, {"y"}}}});
  EXPECT_EQ(update("a$$b,1|2", "1|2"), -1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(err("Table 'a$b' was not found\n"), err("Table not found\n"),
                  err("Could not parse query (a$b,1|2) for update\n"), err("UPDATE failed!\n")));
}

TEST_F(UpdateTest, EachPrivateAllocationFailsWithItsMessage) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = fixup("tarn_memdb_update", {"users,bob|*|*", "age=1"});
  const std::vector<message> failed = {err("UPDATE failed!\n")};
  const std::vector<std::vector<message>> expected = {
      {crit("no more pkg memory\n"),
       err("Wrong number of fields in field list: users,bob|*|* | (null)\n"),
       err("Could not parse query (users,bob|*|*) for update\n")},
      {err("Invalid formatted values [age=1]\n")},  // the host's own item
      {err("Could not allocate memory for query list\n")},
      {info("Query list after conversion [*|1|*]\n"), crit("no more pkg memory\n"),
       err("Could not parse query (age=1) for update\n")},
  };
  for (size_t n = 1; n <= expected.size(); n++) {
    SCOPED_TRACE(n);
    forget();
    standin::fail_at(pool::pkg, n);
    EXPECT_EQ(call(call_of_it), -1);
    std::vector<message> said = expected[n - 1];
    said.push_back(err("UPDATE failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
  }
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::allocation_count(pool::pkg), expected.size());
}

// Audit lines.

TEST_F(UpdateTest, ATaggedTableWritesALinePerRowWithTheNewValues) {
  start_filled(with(USERS, 100, "USR"), FOUR);
  EXPECT_EQ(update("users,*|*|rome", "*|5|"), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("           USR - (4) Updating users,carol|5|"),
                          notice("           USR - (4) Updating users,alice|5|"),
                          notice("           USR - (4) Updating users,alice|5|")));
}

TEST_F(UpdateTest, TheLineOfALongRowIsCut) {
  const std::string half(3000, 'h');
  start_filled({"wide", {{"a", 3000}, {"b", 3000}, {"c"}}, 100, "TAG"}, {half + "|" + half + "|x"});
  EXPECT_EQ(update("wide,*|*|*", "*|*|y"), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL), ElementsAre(notice("           TAG - (1) Updating wide," +
                                                         (half + "|" + half).substr(0, 4095))));
  EXPECT_THAT(stored("wide"), ElementsAre(half + "|" + half + "|y"));
}

TEST_F(UpdateTest, ATableWithoutATagWritesNoLine) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(update("users,*|*|*", "*|5|*"), 1);
  EXPECT_EQ(update("users,*|*|*", "||"), 1);
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
}

}  // namespace
}  // namespace module_test
