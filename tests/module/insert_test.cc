// tarn_memdb_insert: what goes in, what is refused, and what is said about it.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};

class InsertTest : public ModuleTest {
 protected:
  int insert(const std::string &query) { return run("tarn_memdb_insert", {query}); }

  // A refused insert: these messages and -1, no row more or less, nothing to store, and the next
  // insert goes in.
  void expect_refused(const std::string &query, std::vector<message> said) {
    SCOPED_TRACE(query);
    const row_list before = rows("users");
    EXPECT_EQ(stored("users").size(), before.size());
    standin::clear_logs();
    EXPECT_EQ(insert(query), -1);
    said.push_back(err("INSERT failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
    EXPECT_FALSE(store_writes("users"));
    expect_rows("users", before);
  }
};

TEST_F(InsertTest, AddsARowAndGivesOne) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,alice|30|rome"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Insert: users,alice|30|rome\n"),
                                      dbg("Initializing flag_treatment ...\n"),
                                      dbg("Table 'users' state was set to value 1\n"),
                                      dbg("Table 'users' row count was set to 1\n")));
  expect_rows("users", {{"alice", "30", "rome"}});
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome"));
}

TEST_F(InsertTest, RowsAreStoredInTheOrderOfTheirInserts) {
  start({USERS});
  for (const std::string name : {"carol", "alice", "bob"})
    EXPECT_EQ(insert("users," + name + "|1|x"), 1);
  EXPECT_THAT(stored("users"), ElementsAre("carol|1|x", "alice|1|x", "bob|1|x"));
  EXPECT_EQ(insert("users,dave|1|x"), 1);
  EXPECT_TRUE(store_writes("users"));
  EXPECT_EQ(read_file(main_file("users")),
            table_text({"carol|1|x", "alice|1|x", "bob|1|x", "dave|1|x"}));
}

TEST_F(InsertTest, ValuesComeFromTheMessage) {
  start({USERS});
  const standin::command call_of_it =
      fixup("tarn_memdb_insert", {"users,$fU|$var(age)|$avp(city)"});
  standin::set_value(msg, "$fU", "alice");
  standin::set_var("age", 30);
  standin::push_avp("city", "rome");
  EXPECT_EQ(call(call_of_it), 1);
  standin::set_value(msg, "$fU", "bob");
  standin::set_value(msg, "$avp(city)", value());
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "rome"}, {"bob", "30", "<null>"}}));
}

TEST_F(InsertTest, ASubstitutedValueCanChangeTheStructure) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,$fU|x"});
  standin::set_value(msg, "$fU", "alice|30");
  EXPECT_EQ(call(call_of_it), 1);
  expect_rows("users", {{"alice", "30", "x"}});
  standin::set_value(msg, "$fU", "alice");
  standin::clear_logs();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Size mismatch"),
                          err("Wrong number of fields in field list: users,alice|x | (null)\n"),
                          err("Could not parse query (users,alice|x) for insert\n"),
                          err("INSERT failed!\n")));
}

TEST_F(InsertTest, CommasInTheListAreData) {
  start({USERS});
  EXPECT_EQ(insert("users,a,b|30|x,y,5"), 1);
  expect_rows("users", {{"a,b", "30", "x,y,5"}});
}

TEST_F(InsertTest, EscapesAreResolved) {
  start({USERS});
  EXPECT_EQ(insert("users,a\\|b|\\*|c\\\\d\\e"), 1);
  expect_rows("users", {{"a|b", "*", "c\\de"}});
}

TEST_F(InsertTest, SomeFieldsMayBeEmptyAndAStarWithinATextIsText) {
  start({USERS});
  EXPECT_EQ(insert("users,alice||"), 1);
  EXPECT_EQ(insert("users,||**"), 1);
  EXPECT_EQ(insert("users,*a|a*|"), 1);
  expect_rows("users", {{"alice", "", ""}, {"", "", "**"}, {"*a", "a*", ""}});
}

TEST_F(InsertTest, ANamedListKeepsItsSecondCommaInTheLastColumn) {
  start({USERS});
  EXPECT_EQ(insert("users,name=alice;age=30;city=rome,"), 1);
  expect_rows("users", {{"alice", "30", "rome,"}});
}

TEST_F(InsertTest, AColumnLeftOutOfANamedListIsAWildcardAndRefused) {
  start({USERS});
  expect_refused("users,name=alice;city=rome,",
                 {info("Query list after conversion [users,alice|*|rome,]\n"),
                  err("Wildcard are not allowed in INSERT operation\n"),
                  err("Could not parse query (users,alice|*|rome,) for insert\n")});
}

TEST_F(InsertTest, TheLastColumnLeftOutOfANamedListBecomesAStarWithTheComma) {
  start({USERS});
  EXPECT_EQ(insert("users,name=alice;age=30,"), 1);
  EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "*,"}}));
}

TEST_F(InsertTest, AnEmptyListLosesTheTableNameAndIsRefused) {
  start({USERS});
  expect_refused("users,",
                 {info("Query list after conversion [*|*|*]\n"), err("Field list is missing\n"),
                  err("Could not parse query (*|*|*) for insert\n")});
}

TEST_F(InsertTest, WildcardsAreRefused) {
  start({USERS});
  for (const std::string list : {"*|30|rome", "alice|*|rome", "alice|30|*", "*|*|*"})
    expect_refused("users," + list,
                   {err("Wildcard are not allowed in INSERT operation\n"),
                    err("Could not parse query (users," + list + ") for insert\n")});
}

TEST_F(InsertTest, ARowOfEmptyFieldsIsRefused) {
  start({USERS});
  expect_refused("users,||", {err("Empty fields are not allowed in INSERT operation\n"),
                              err("Could not parse query (users,||) for insert\n")});
}

TEST_F(InsertTest, AWrongNumberOfFieldsIsRefusedBeforeAnythingElse) {
  start({USERS});
  for (const std::string list : {"alice", "alice|30", "alice|30|rome|x", "*|*", "|"})
    expect_refused("users," + list,
                   {err("Size mismatch"),
                    err("Wrong number of fields in field list: users," + list + " | (null)\n"),
                    err("Could not parse query (users," + list + ") for insert\n")});
}

TEST_F(InsertTest, ABackslashAtTheEndIsRefused) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,alice|30|rome\\"});
  forget();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(warn("Bad escape detected\n"), err("Wrong input format for INSERT\n"),
                          err("Could not parse query (users,alice|30|rome\\) for insert\n"),
                          err("INSERT failed!\n")));
  expect_rows("users", {});
}

TEST_F(InsertTest, ATextThatCantBePrintedIsRefused) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,alice|30|rome"});
  forget();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("INSERT failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(InsertTest, AQueryMayHave4095CharactersAndNoMore) {
  start({{"wide", {{"a", 5000}, {"b"}}}});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"wide,$fU|x"});
  const std::string longest(4095 - strlen("wide,|x"), 'y');
  standin::set_value(msg, "$fU", longest + "z");
  forget();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("INSERT failed!\n")));
  standin::set_value(msg, "$fU", longest);
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(rows("wide"), (row_list{{longest, "x"}}));
  EXPECT_THAT(stored("wide"), ElementsAre(longest + "|x"));
}

TEST_F(InsertTest, AQueryWhosePrintedTableIsUnknownIsRefused) {
  // The host turns the two dollar signs into one, so the table known at start isn't found later.
  start({{"a$$b", {{"x"}, {"y"}}}});
  EXPECT_EQ(insert("a$$b,1|2"), -1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(err("Table 'a$b' was not found\n"), err("Table not found\n"),
                  err("Could not parse query (a$b,1|2) for insert\n"), err("INSERT failed!\n")));
}

TEST_F(InsertTest, ValuesLongerThanTheirColumnAreCutAndWarnedOf) {
  start({{"users", {{"name", 7, true}, {"age", 3}, {"city"}}}});
  EXPECT_EQ(insert("users,1234567|123|x"), 1);
  EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
  EXPECT_EQ(insert("users,abcdefgh|1234|x"), 1);
  EXPECT_THAT(
      messages(WARN_LEVEL),
      ElementsAre(
          warn("Value 'abcdefgh' too long. It will be truncated to fit field size (7 bytes)\n"),
          warn("Value '1234' too long. It will be truncated to fit field size (3 bytes)\n")));
  expect_rows("users", {{"1234567", "123", "x"}, {"abcdefg", "123", "x"}});
}

TEST_F(InsertTest, AColumnOfNoLengthTakesEmptyTextsOnly) {
  start({{"users", {{"name"}, {"none", 0}}}});
  EXPECT_EQ(insert("users,alice|x"), 1);
  EXPECT_EQ(rows("users"), (row_list{{"alice", ""}}));
}

// The row limit.

TEST_F(InsertTest, TheRowLimitRefusesAtEquality) {
  start({with(USERS, 2)});
  EXPECT_EQ(insert("users,a|1|x"), 1);
  EXPECT_EQ(insert("users,b|2|x"), 1);
  expect_refused("users,c|3|x",
                 {err("MAX number of rows allowed (2) for table 'users' reached. Data will not be "
                      "inserted!\n")});
  EXPECT_EQ(run("tarn_memdb_delete", {"users,a|*|*"}), 1);
  EXPECT_EQ(insert("users,c|3|x"), 1);
  expect_rows("users", {{"b", "2", "x"}, {"c", "3", "x"}});
}

TEST_F(InsertTest, ATableOfNoRowsTakesNone) {
  start({with(USERS, 0)});
  expect_refused("users,a|1|x",
                 {err("MAX number of rows allowed (0) for table 'users' reached. Data will not be "
                      "inserted!\n")});
}

TEST_F(InsertTest, ATableThatWasLoadedBeyondItsLimitGoesOnGrowing) {
  write_file(main_file("users"), table_text({"a|1|x", "b|2|x"}));
  start({with(USERS, 1)});
  EXPECT_EQ(insert("users,c|3|x"), 1);
  expect_rows("users", {{"a", "1", "x"}, {"b", "2", "x"}, {"c", "3", "x"}});
}

TEST_F(InsertTest, TheRowLimitIsCheckedBeforeDuplicatesAndIndex) {
  start({with(USERS, 1, "", true, true)});
  EXPECT_EQ(insert("users,x|1|a"), 1);
  expect_refused("users,x|1|a",
                 {err("MAX number of rows allowed (1) for table 'users' reached. Data will not be "
                      "inserted!\n")});
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|*|*"}), 1);
  EXPECT_EQ(insert("users,x|1|a"), 2);
}

// Duplicates.

TEST_F(InsertTest, WithTheCheckAnEqualRowIsRefused) {
  start({with(USERS, 100, "", false, true)});
  EXPECT_EQ(insert("users,alice|30|rome"), 1);
  expect_refused("users,alice|30|rome",
                 {warn("Duplicated data will not be inserted into table 'users'!\n")});
  for (const std::string other : {"bob|30|rome", "alice|31|rome", "alice|30|oslo", "alice|30|"})
    EXPECT_EQ(insert("users," + other), 1) << other;
  EXPECT_EQ(row_count("users"), 5);
}

TEST_F(InsertTest, TheCheckTellsItsResult) {
  start({with(USERS, 100, "", false, true)});
  insert("users,alice|30|rome");
  EXPECT_TRUE(standin::logged(DBG_LEVEL, "Did not find a match\n"));
  EXPECT_FALSE(standin::logged(DBG_LEVEL, "Found a match\n"));
  standin::clear_logs();
  insert("users,alice|30|rome");
  EXPECT_TRUE(standin::logged(DBG_LEVEL, "Found a match\n"));
}

TEST_F(InsertTest, WithoutTheCheckEqualRowsStandSideBySide) {
  start({USERS});
  EXPECT_EQ(insert("users,alice|30|rome"), 1);
  EXPECT_EQ(insert("users,alice|30|rome"), 1);
  expect_rows("users", {{"alice", "30", "rome"}, {"alice", "30", "rome"}});
  EXPECT_FALSE(standin::log_contains(DBG_LEVEL, "match"));
}

TEST_F(InsertTest, ACutValueEqualsNoneOfItsOwn) {
  start({with({"users", {{"name", 3}, {"age"}, {"city"}}}, 100, "", false, true)});
  EXPECT_EQ(insert("users,alice|30|rome"), 1);
  EXPECT_EQ(insert("users,alice|30|rome"), 1);
  EXPECT_EQ(insert("users,ali|30|rome"), -1);
}

TEST_F(InsertTest, TheCheckOfANumberedTableLeavesTheNumberOut) {
  start({with(USERS, 100, "", true, true)});
  EXPECT_EQ(insert("users,x|30|rome"), 1);
  expect_refused("users,anything|30|rome",
                 {warn("Duplicated data will not be inserted into table 'users'!\n")});
  EXPECT_EQ(insert("users,x|31|rome"), 2);  // the refused one used up no number
}

TEST_F(InsertTest, ALongValueDefeatsTheCheckOfANumberedTableUnlessItIsTheLast) {
  const std::string with_31(31, 'v'), with_32(32, 'v');
  start({with({"users", {{"id"}, {"age", 64}, {"city", 64}}}, 100, "", true, true)});
  EXPECT_EQ(insert("users,x|" + with_31 + "|rome"), 1);
  EXPECT_EQ(insert("users,x|" + with_31 + "|rome"), -1);
  EXPECT_EQ(insert("users,x|" + with_32 + "|rome"), 2);
  EXPECT_EQ(insert("users,x|" + with_32 + "|rome"), 3);
  EXPECT_EQ(insert("users,x|short|" + with_32), 4);
  EXPECT_EQ(insert("users,x|short|" + with_32), -1);
}

TEST_F(InsertTest, NoMemoryForTheCheckIsRefusedAsADuplicate) {
  start({with(USERS, 100, "", true, true)});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,x|30|rome"});
  forget();
  standin::fail_at(pool::pkg, 2);  // the first are the query's fields
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(WARN_LEVEL),
              ElementsAre(err("Could not allocate memory for fields_in\n"),
                          warn("Duplicated data will not be inserted into table 'users'!\n"),
                          err("INSERT failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

// The generated index.

TEST_F(InsertTest, TheNumberTakesTheFirstColumnAndIsTheResult) {
  start({with(USERS, 100, "", true)});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,whatever|30|rome"});
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Insert: users,whatever|30|rome\n"),
                                      dbg("Table 'users' next index to be used was set to 2\n"),
                                      dbg("Initializing flag_treatment ...\n"),
                                      dbg("Table 'users' state was set to value 1\n"),
                                      dbg("Table 'users' row count was set to 1\n")));
  EXPECT_EQ(call(call_of_it), 2);
  EXPECT_EQ(insert("users,|1|"), 3);
  expect_rows("users", {{"1", "30", "rome"}, {"2", "30", "rome"}, {"3", "1", ""}});
}

TEST_F(InsertTest, TheFirstColumnOfANumberedTableMustNotBeAWildcard) {
  start({with(USERS, 100, "", true)});
  expect_refused("users,*|30|rome", {err("Wildcard are not allowed in INSERT operation\n"),
                                     err("Could not parse query (users,*|30|rome) for insert\n")});
  EXPECT_EQ(insert("users,|30|rome"), 1);
}

TEST_F(InsertTest, NumbersAreNotGivenTwiceAfterADelete) {
  start({with(USERS, 100, "", true)});
  EXPECT_EQ(insert("users,x|1|x"), 1);
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|*|*"}), 1);
  EXPECT_EQ(insert("users,x|1|x"), 2);
}

TEST_F(InsertTest, NoMemoryForTheNumberIsRefusedAndUsesNoneUp) {
  start({with(USERS, 100, "", true)});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,x|30|rome"});
  forget();
  standin::fail_at(pool::pkg, 2);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Insert: users,x|30|rome\n"), dbg("Could not allocate memory for index!\n"),
                  err("Insertion of index failed!\n"), err("INSERT failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(InsertTest, AfterTheLastNumberOneInsertIsRefusedAndTheCountBeginsAnew) {
  write_file(main_file("users"), table_text({"4294967294|1|x"}));
  start({with(USERS, 100, "", true)});
  EXPECT_EQ(insert("users,x|2|x"), -1);  // 4294967295, which the script reads as -1
  EXPECT_EQ(row_count("users"), 2);
  standin::clear_logs();
  EXPECT_EQ(insert("users,x|3|x"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Insertion of index failed!\n"), err("INSERT failed!\n")));
  EXPECT_EQ(row_count("users"), 2);
  EXPECT_EQ(insert("users,x|4|x"), 1);
  EXPECT_EQ(rows("users"),
            (row_list{{"4294967294", "1", "x"}, {"4294967295", "2", "x"}, {"1", "4", "x"}}));
}

TEST_F(InsertTest, AnInsertThatFailsBehindTheNumberUsesItUp) {
  start({with(USERS, 100, "", true)});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,x|30|rome"});
  forget();
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Fail to allocate memory to the row\n"),
                          err("Could not insert at table 'users'!\n"), err("INSERT failed!\n")));
  EXPECT_EQ(call(call_of_it), 2);
}

TEST_F(InsertTest, NoMemoryForTheRowIsRefused) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,alice|30|rome"});
  forget();
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Insert: users,alice|30|rome\n"), err("Fail to allocate memory to the row\n"),
                  err("Could not insert at table 'users'!\n"), err("INSERT failed!\n")));
  EXPECT_FALSE(store_writes("users"));
  expect_rows("users", {});
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_F(InsertTest, NoMemoryForTheFieldsIsRefused) {
  start({USERS});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"users,alice|30|rome"});
  forget();
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(crit("no more pkg memory\n"),
                  err("Wrong number of fields in field list: users,alice|30|rome | (null)\n"),
                  err("Could not parse query (users,alice|30|rome) for insert\n"),
                  err("INSERT failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

// Audit lines.

TEST_F(InsertTest, ATaggedTableWritesALinePerInsertWithTheCountBehindIt) {
  start({with(USERS, 100, "USR")});
  insert("users,alice|30|rome");
  insert("users,b\\|b|31|oslo");
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("           USR - (1) Inserting users,alice|30|rome"),
                          notice("           USR - (2) Inserting users,b\\|b|31|oslo")));
}

TEST_F(InsertTest, TheLineShowsTheQueryAndNotTheNumberThatReplacedItsFirstField) {
  start({with(USERS, 100, "a_tag_of_15_chr", true)});
  insert("users,whatever|30|rome");
  EXPECT_THAT(
      messages(NOTICE_LEVEL),
      ElementsAre(notice("           a_tag_of_15_chr - (1) Inserting users,whatever|30|rome")));
}

TEST_F(InsertTest, TheLineStandsBehindTheChange) {
  start({with(USERS, 100, "USR")});
  insert("users,alice|30|rome");
  EXPECT_EQ(messages().back(), notice("           USR - (1) Inserting users,alice|30|rome"));
}

TEST_F(InsertTest, ARefusedInsertWritesNoLine) {
  start({with(USERS, 1, "USR", false, true)});
  insert("users,alice|30|rome");
  standin::clear_logs();
  insert("users,alice|30|rome");
  insert("users,*|30|rome");
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
}

TEST_F(InsertTest, ATableWithoutATagWritesNoLine) {
  start({USERS});
  insert("users,alice|30|rome");
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
}

TEST_F(InsertTest, TheLineOfTheLongestQueryIsWhole) {
  start({{"wide", {{"a", 5000}}, 100, "TAG"}});
  const standin::command call_of_it = fixup("tarn_memdb_insert", {"wide,$fU"});
  standin::set_value(msg, "$fU", std::string(4090, 'y'));
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("           TAG - (1) Inserting wide," + std::string(4090, 'y'))));
}

// Duplicates in a table whose rows hold ports.

TEST_F(InsertTest, OnlyTheThreeKeyColumnsAreComparedForDuplicates) {
  start_with_small_maps({with(port_table("users", "dynamic"), 100, "", false, true)});
  EXPECT_EQ(insert("users,i|a|b|c||WAN||||105|"), 1);
  expect_refused("users,j|a|b|c|x|LAN|y|1|2|106|206",
                 {warn("Duplicated data will not be inserted into table 'users'!\n")});
  EXPECT_EQ(insert("users,i|a|b|d||WAN||||105|"), 1);
}

TEST_F(InsertTest, ALongValueDefeatsTheCheckUnlessItIsTheLastKeyColumn) {
  const std::string with_40(31 + 9, 'v');
  table t = with(port_table("users", "dynamic"), 100, "", false, true);
  for (column &c : t.columns) c.length = 64;
  start_with_small_maps({t});
  EXPECT_EQ(insert("users,i|" + with_40 + "|b|c||||||105|"), 1);
  EXPECT_EQ(insert("users,i|" + with_40 + "|b|c||||||105|"), 1);
  EXPECT_EQ(insert("users,i|a|b|" + with_40 + "||||||105|"), 1);
  EXPECT_EQ(insert("users,i|a|b|" + with_40 + "||||||105|"), -1);
}

}  // namespace
}  // namespace module_test
