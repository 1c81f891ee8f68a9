// The four functions that take a statement.
#include "tests/module/issue3_injection.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char INSERT[] = "sqll_tarn_memdb_insert";
constexpr char DELETE[] = "sqll_tarn_memdb_delete";
constexpr char SELECT[] = "sqll_tarn_memdb_select";
constexpr char UPDATE[] = "sqll_tarn_memdb_update";

const message INSERT_FAILED = err("INSERT failed!\n");
const message DELETE_FAILED = err("DELETE failed!\n");
const message SELECT_FAILED = err("SELECT failed!\n");
const message UPDATE_FAILED = err("UPDATE failed!\n");
const message NO_FIELD_POS = err("NULL value for field_pos\n");
const message BAD_QUOTE = err("Ilegal sintax for empty string. It should be: field_name=''\n");
const message NULL_TEXT = dbg("NULL value for str_q\n");
const message PORTS_LOOKED_AT = dbg("Initializing flag_treatment ...\n");

message no_token(const std::string &word) { return err("Could not find token '" + word + "'\n"); }
message end_before_token(const std::string &word) {
  return err("End of string reached before finding token '" + word + "'\n");
}
const message END_BEFORE_FIELDS = err("End of string reached before finding fields name\n");
message no_field(const std::string &table_name, const std::string &field) {
  return err("Table '" + table_name + "' does not have a field named '" + field + "'\n");
}
message too_many_fields(int count, const std::string &table_name, int columns) {
  return err("Wrong number of fields (" + std::to_string(count) + ") for table '" + table_name +
             "' (" + std::to_string(columns) + ")\n");
}
message too_few_values(int values, int fields) {
  return err("Number of values (" + std::to_string(values) + ") does not match number of fields (" +
             std::to_string(fields) + ")\n");
}
message no_table(const std::string &name) { return err("Table '" + name + "' was not found\n"); }
message no_memory(const std::string &block) {
  return err("Could not allocate memory for " + block + "\n");
}
message max_not_found(int rows) {
  return dbg("MAX not found. MAX was set to " + std::to_string(rows) + "\n");
}
message max_set(int rows) { return dbg("MAX set to " + std::to_string(rows) + "\n"); }
message max_invalid(int rows) {
  return dbg("Invalid value for MAX (" + std::to_string(rows) + "). Setting MAX to 1\n");
}
message state_set(int state) {
  return dbg("Table 't' state was set to value " + std::to_string(state) + "\n");
}
message count_set(int rows) {
  return dbg("Table 't' row count was set to " + std::to_string(rows) + "\n");
}

// Columns a, b and c; long ones, so that nothing but the scanner cuts a text.
table three(int max_rows = 100, const std::string &tag = "") {
  table out{"t", {{"a", 600}, {"b", 600}, {"c", 600}}, max_rows};
  out.log_tag = tag;
  return out;
}

class StatementTest : public InjectionTest {
 protected:
  void start_rows(const texts &rows, const table &columns = three()) {
    start_with({columns}, {{"t", rows}});
  }

  // Runs a statement; the AVPs of a select are x, y and z.
  int sql(const std::string &statement) {
    const standin::command prepared = prepare(statement);
    clear();
    return call(prepared);
  }
  standin::command prepare(const std::string &statement) {
    const std::string word = statement.substr(statement.find_first_not_of(' '), 6);
    if (word == "SELECT") return fixup(SELECT, {statement, "$avp(x);$avp(y);$avp(z)"});
    return fixup(word == "INSERT" ? INSERT : word == "DELETE" ? DELETE : UPDATE, {statement});
  }
  // Runs a statement that fails, through the function of that name; what it said above debug.
  std::vector<message> failure(const char *function, const std::string &statement) {
    texts parameters = {statement};
    if (function == SELECT) parameters.push_back("$avp(x)");
    const standin::command prepared = fixup(function, parameters);
    const row_list before = rows("t");
    const int state = view().table("t").state;
    clear();
    EXPECT_EQ(call(prepared), -1) << statement;
    const std::vector<message> told = messages(INFO_LEVEL);
    EXPECT_TRUE(rows("t") == before) << statement;
    EXPECT_EQ(view().table("t").state, state) << statement;
    EXPECT_EQ(standin::avp_count(), 0U) << statement;
    return told;
  }
};

// INSERT.

TEST_F(StatementTest, InsertTellsEveryStep) {
  start({three(100, "TAG")});
  EXPECT_EQ(sql("INSERT INTO t a,c VALUES 1,2"), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Insert query: 'INSERT INTO t a,c VALUES 1,2'\n"),
                                      dbg("Parse for INSERT OK!\n"), PORTS_LOOKED_AT, state_set(1),
                                      count_set(1), notice("      TAG - (1) SQLL Inserting t,1")));
  expect_rows("t", {{"1", "", "2"}});
}

TEST_F(StatementTest, InsertLeavesUnnamedColumnsEmpty) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t b VALUES 2"), 1);
  EXPECT_EQ(sql("INSERT INTO t c,a VALUES 3,1"), 1);
  expect_rows("t", {{"", "2", ""}, {"1", "", "3"}});
}

TEST_F(StatementTest, InsertTakesARowOfEmptyValuesOnly) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES ,,"), 1);
  expect_rows("t", {{"", "", ""}});
}

TEST_F(StatementTest, InsertGivesTheGeneratedIndex) {
  table indexed = three();
  indexed.use_index = true;
  start({indexed});
  EXPECT_EQ(sql("INSERT INTO t b VALUES x"), 1);
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 77,y"), 2) << "a value of its own is replaced";
  EXPECT_EQ(sql("INSERT INTO t a VALUES " + std::string(500, '7')), 3);
  expect_rows("t", {{"1", "x", ""}, {"2", "y", ""}, {"3", "", ""}});
}

TEST_F(StatementTest, InsertLogsTheGeneratedIndexAsItsFirstColumn) {
  table indexed = three(100, "TAG");
  indexed.use_index = true;
  start({indexed});
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 77,x"), 1);
  EXPECT_THAT(messages(), Contains(notice("      TAG - (1) SQLL Inserting t,1")));
}

TEST_F(StatementTest, InsertFailsWhenTheIndexIsUsedUpAndGoesOnFromOne) {
  table indexed = three();
  indexed.use_index = true;
  start({indexed});
  view().table("t").next_index = 0;
  EXPECT_THAT(failure(INSERT, "INSERT INTO t b VALUES x"),
              ElementsAre(err("Insertion of index failed!\n"), INSERT_FAILED));
  EXPECT_EQ(sql("INSERT INTO t b VALUES x"), 1);
}

TEST_F(StatementTest, InsertIntoAFullTableWarnsAndFails) {
  start_rows({"1|2|3"}, three(1));
  EXPECT_THAT(failure(INSERT, "INSERT INTO t a VALUES 4"),
              ElementsAre(warn("MAX number of rows allowed (1) for table 't' reached. Data will "
                               "not be inserted!\n"),
                          INSERT_FAILED));
}

TEST_F(StatementTest, InsertTakesRowsIntoATableLoadedBeyondItsLimit) {
  start_rows({"1|2|3", "4|5|6"}, three(1));
  EXPECT_EQ(sql("INSERT INTO t a VALUES 7"), 1);
  EXPECT_EQ(row_count("t"), 3);
}

TEST_F(StatementTest, InsertTakesNoRowIntoATableWithoutRoom) {
  start({three(0)});
  EXPECT_THAT(failure(INSERT, "INSERT INTO t a VALUES 4"), Contains(INSERT_FAILED));
}

TEST_F(StatementTest, InsertRefusesADuplicateAndDrawsNoIndex) {
  table checked = three();
  checked.check_duplicates = true;
  checked.use_index = true;
  start_rows({"1|2|3"}, checked);
  ASSERT_EQ(view().table("t").next_index, 2U);
  EXPECT_THAT(
      failure(INSERT, "INSERT INTO t b,c VALUES 2,3"),
      ElementsAre(warn("Duplicated data will not be inserted into table 't'!\n"), INSERT_FAILED));
  EXPECT_EQ(view().table("t").next_index, 2U);
  EXPECT_EQ(sql("INSERT INTO t b,c VALUES 2,4"), 2);
}

TEST_F(StatementTest, InsertLooksForRowsEqualInEveryColumn) {
  table checked = three();
  checked.check_duplicates = true;
  start_rows({"1|2|"}, checked);
  EXPECT_THAT(failure(INSERT, "INSERT INTO t a,b VALUES 1,2"), Contains(INSERT_FAILED));
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 1,3"), 1);
}

TEST_F(StatementTest, InsertLooksForDuplicatesBehindTheRowLimit) {
  table checked = three(1);
  checked.check_duplicates = true;
  start_rows({"1|2|"}, checked);
  EXPECT_THAT(failure(INSERT, "INSERT INTO t a,b VALUES 1,2"),
              ElementsAre(warn("MAX number of rows allowed (1) for table 't' reached. Data will "
                               "not be inserted!\n"),
                          INSERT_FAILED));
}

TEST_F(StatementTest, InsertRefusesTheRowWhenTheDuplicateCheckHasNoMemory) {
  table checked = three();
  checked.check_duplicates = true;
  checked.use_index = true;
  start({checked});
  const standin::command prepared = prepare("INSERT INTO t b VALUES 2");
  clear();
  standin::fail_at(pool::pkg, 5);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(err("Could not allocate memory for fields_in\n"),
                  warn("Duplicated data will not be inserted into table 't'!\n"), INSERT_FAILED));
  EXPECT_EQ(view().table("t").next_index, 1U);
}

TEST_F(StatementTest, InsertFailsWithoutMemoryForTheRowAndUsesTheIndexUp) {
  table indexed = three();
  indexed.use_index = true;
  start({indexed});
  const standin::command prepared = prepare("INSERT INTO t b VALUES 2");
  clear();
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Fail to allocate memory to the row\n"),
                          err("Could not insert at table 't'!\n"), INSERT_FAILED));
  expect_rows("t", {});
  EXPECT_EQ(call(prepared), 2);
}

TEST_F(StatementTest, InsertStoresTheTwoQuotesAsTheyAre) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES '','x'"), 1);
  expect_rows("t", {{"''", "'x'", ""}});
}

TEST_F(StatementTest, InsertKnowsNoEscape) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES x\\,y"), 1);
  EXPECT_EQ(sql("INSERT INTO t a VALUES *"), 1);
  EXPECT_EQ(sql("INSERT INTO t a VALUES x|y"), 1);
  EXPECT_EQ(rows("t"), (row_list{{"x\\", "y", ""}, {"*", "", ""}, {"x|y", "", ""}}));
}

TEST_F(StatementTest, InsertCountsValues) {
  start({three()});
  EXPECT_THAT(failure(INSERT, "INSERT INTO t a,b VALUES 1"),
              ElementsAre(too_few_values(1, 2), INSERT_FAILED));
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 1,2,3"), 1) << "a third value is ignored";
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 4,5 6 and anything"), 1);
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 1,,"), 1);
  expect_rows("t", {{"1", "2", ""}, {"4", "5", ""}, {"1", "", ""}});
}

TEST_F(StatementTest, InsertTakesALeadingCommaForOneToStepOver) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t ,a,b VALUES ,1,2"), 1);
  expect_rows("t", {{"1", "2", ""}});
}

TEST_F(StatementTest, InsertReadsAnEmptyValueBehindTheLastComma) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 1,"), 1);
  expect_rows("t", {{"1", "", ""}});
  EXPECT_THAT(failure(INSERT, "INSERT INTO t a,b VALUES ,"),
              ElementsAre(too_few_values(1, 2), INSERT_FAILED))
      << "the first comma is stepped over";
}

TEST_F(StatementTest, InsertTakesTheLaterValueOfAColumnNamedTwice) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a,a VALUES 1,2"), 1);
  expect_rows("t", {{"2", "", ""}});
}

TEST_F(StatementTest, InsertMatchesKeywordsAsPrefixes) {
  start({three()});
  EXPECT_EQ(sql("INSERTINTO t a VALUES 1"), 1);
  EXPECT_EQ(sql("   INSERT   INTO   t   a   VALUES   2"), 1);
  EXPECT_EQ(sql("INSERT INTOt a VALUES3"), 1);
  expect_rows("t", {{"1", "", ""}, {"2", "", ""}, {"3", "", ""}});
}

TEST_F(StatementTest, InsertFailsAtEachStepWithItsMessage) {
  start({three()});
  const std::vector<std::pair<std::string, std::vector<message>>> cases = {
      {"   ", {end_before_token("INSERT")}},
      {"insert INTO t a VALUES 1", {no_token("INSERT")}},
      {"INSER INTO t a VALUES 1", {no_token("INSERT")}},
      {"INSERT", {}},
      {"INSERT ", {}},
      {"INSERT into t a VALUES 1", {no_token("INTO")}},
      {"INSERT\tINTO t a VALUES 1", {no_token("INTO")}},
      {"INSERT INTO", {}},
      {"INSERT INTO   ", {}},
      {"INSERT INTO t", {}},
      {"INSERT INTO nowhere", {no_table("nowhere")}},
      {"INSERT INTO T a VALUES 1", {no_table("T")}},
      {"INSERT INTO \tt a VALUES 1", {no_table("\tt")}},
      {"INSERT INTO t,u a VALUES 1", {no_table("t,u")}},
      {"INSERT INTO t ", {END_BEFORE_FIELDS}},
      {"INSERT INTO t a", {}},
      {"INSERT INTO t a ", {end_before_token("VALUES")}},
      {"INSERT INTO t a values 1", {no_token("VALUES")}},
      {"INSERT INTO t a WHERE 1", {no_token("VALUES")}},
      {"INSERT INTO t a VALUES", {}},
      {"INSERT INTO t a VALUES ", {}},
      {"INSERT INTO t a, b VALUES 1,2", {no_field("t", "")}},
      {"INSERT INTO t d VALUES 1", {no_field("t", "d")}},
      {"INSERT INTO t A VALUES 1", {no_field("t", "A")}},
      {"INSERT INTO t a,,b VALUES 1", {too_many_fields(3, "t", 3)}},
      {"INSERT INTO t a, VALUES 1", {no_field("t", "")}},
      {"INSERT INTO t ,, VALUES 1", {no_field("t", "")}},
      {"INSERT INTO t a\t VALUES 1", {no_field("t", "a\t")}},
      {"INSERT INTO t a=1 VALUES 1", {no_field("t", "a=1")}},
      {"INSERT INTO t a,b,c VALUES 1,2,3", {too_many_fields(3, "t", 3)}},
      {"INSERT INTO t a,b,c,d,e VALUES 1,2,3", {too_many_fields(3, "t", 3)}},
      {"INSERT INTO t (a,b) VALUES 1,2", {no_field("t", "(a")}},
  };
  for (const auto &[statement, told] : cases) {
    std::vector<message> expected = told;
    expected.push_back(INSERT_FAILED);
    EXPECT_EQ(failure(INSERT, statement), expected) << statement;
  }
}

// DELETE.

TEST_F(StatementTest, DeleteTellsEveryStep) {
  start_rows({"1|x|3", "2|y|3", "4|z|3"}, three(100, "TAG"));
  EXPECT_EQ(sql("DELETE FROM t WHERE c=3 MAX=2"), 1);
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Delete query: 'DELETE FROM t WHERE c=3 MAX=2'\n"), max_set(2),
                  dbg("Parse for DELETE OK!\n"), PORTS_LOOKED_AT,
                  notice("      TAG - (2) SQLL Deleting t,4|z|3"), PORTS_LOOKED_AT,
                  notice("      TAG - (1) SQLL Deleting t,2|y|3"), state_set(1), count_set(1)));
  expect_rows("t", {{"1", "x", "3"}});
}

TEST_F(StatementTest, DeleteTellsEveryStepThatFindsNothing) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a=2"), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Delete query: 'DELETE FROM t WHERE a=2'\n"), NULL_TEXT,
                                      max_not_found(100), dbg("Parse for DELETE OK!\n")));
  EXPECT_EQ(view().table("t").state, 0);
}

TEST_F(StatementTest, DeleteRemovesEveryMatchUpToTheTablesLimit) {
  start_rows({"1|x|", "2|x|", "3|y|", "4|x|", "5|x|"}, three(3));
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x"), 1);
  EXPECT_EQ(rows("t"), (row_list{{"1", "x", ""}, {"3", "y", ""}}))
      << "a table loaded beyond its limit";
}

TEST_F(StatementTest, DeleteSelectsByEveryPair) {
  start_rows({"1|x|p", "1|y|p", "2|x|p"});
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x,a=1"), 1);
  expect_rows("t", {{"1", "y", "p"}, {"2", "x", "p"}});
}

TEST_F(StatementTest, DeleteTakesTheLaterPairOfAColumnNamedTwice) {
  start_rows({"1|x|", "2|x|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a=1,a=2"), 1);
  expect_rows("t", {{"1", "x", ""}});
}

TEST_F(StatementTest, DeleteSelectsEmptyColumnsInTwoWays) {
  start_rows({"1||", "2|x|", "3||"});
  EXPECT_EQ(sql("DELETE FROM t WHERE b='',a=1"), 1);
  EXPECT_EQ(sql("DELETE FROM t WHERE b=,a=3"), 1);
  EXPECT_EQ(sql("DELETE FROM t WHERE c="), 1) << "an empty value at the end";
  EXPECT_EQ(row_count("t"), 0);
}

TEST_F(StatementTest, DeleteTakesStarsAndBackslashesAsTheyAre) {
  start_rows({"\\*|x|", "1\\\\2|y|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a=*"), 1);
  EXPECT_EQ(rows("t"), (row_list{{"1\\2", "y", ""}}));
  EXPECT_EQ(sql("DELETE FROM t WHERE a=1\\2"), 1);
}

TEST_F(StatementTest, DeleteWithAMaximumBelowOneRemovesOneRow) {
  start_rows({"1|x|", "2|x|", "3|x|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x MAX=0"), 1);
  EXPECT_THAT(messages(), Contains(max_invalid(0)));
  EXPECT_THAT(messages(), Contains(max_set(1)));
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x MAX=-3"), 1);
  EXPECT_THAT(messages(), Contains(max_invalid(-3)));
  expect_rows("t", {{"1", "x", ""}});
}

TEST_F(StatementTest, DeleteReadsTheMaximumAsAScanDoes) {
  for (const char *clause : {"MAX=2", "MAX=2x", "MAX= 2", "MAX=+2", "MAX=2 MAX=3", "MAX=02",
                             "  MAX=2", "MAX=2,5", "MAX=\t2"}) {
    start_rows({"1|x|", "2|x|", "3|x|"});
    EXPECT_EQ(sql("DELETE FROM t WHERE b=x " + std::string(clause)), 1) << clause;
    EXPECT_THAT(messages(), Contains(max_set(2))) << clause;
    EXPECT_EQ(row_count("t"), 1) << clause;
    forget_view();
    unload();
    load();
  }
  start({three()});
}

TEST_F(StatementTest, DeleteTakesAMaximumWithoutANumberForOne) {
  start_rows({"1|x|", "2|x|", "3|x|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x MAX="), 1);
  EXPECT_THAT(messages(), Contains(max_set(1)));
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x MAX=  "), 1);
  EXPECT_EQ(row_count("t"), 1);
}

TEST_F(StatementTest, DeleteTakesAClauseThatEndsEarlyForOne) {
  start_rows({"1|x|", "2|x|", "3|x|"});
  for (const char *clause : {"MAX", "M"}) {
    EXPECT_EQ(sql("DELETE FROM t WHERE b=x " + std::string(clause)), 1)
        << "the scan meets the end of the text and no other character";
    EXPECT_THAT(messages(), Contains(max_set(1)));
  }
  EXPECT_EQ(row_count("t"), 1);
}

TEST_F(StatementTest, DeleteTakesBlanksBehindTheListForNoMaximum) {
  start_rows({"1|x|", "2|x|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x   "), 1);
  EXPECT_THAT(messages(), Contains(max_not_found(100)));
  EXPECT_EQ(row_count("t"), 0);
}

TEST_F(StatementTest, DeleteReadsABlankForAnEqualsSignAndFailsOnWhatFollows) {
  start_rows({"1|x|"});
  EXPECT_THAT(failure(DELETE, "DELETE FROM t WHERE a 1"), ElementsAre(DELETE_FAILED));
  EXPECT_EQ(sql("DELETE FROM t WHERE a MAX=1"), -2) << "the clause is read as the value too";
  EXPECT_THAT(messages(), Contains(max_set(1)));
}

TEST_F(StatementTest, DeleteEndsTheListAtANameWithNothingBehindIt) {
  start_rows({"|x|", "1|x|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x,a"), 1) << "the name's value is empty";
  expect_rows("t", {{"1", "x", ""}});
  EXPECT_EQ(sql("DELETE FROM t WHERE a"), -2);
  EXPECT_THAT(failure(DELETE, "DELETE FROM t WHERE b=x,"),
              ElementsAre(no_field("t", ""), NO_FIELD_POS, DELETE_FAILED));
}

TEST_F(StatementTest, DeleteReadsNoMorePairsThanColumns) {
  start_rows({"1|2|3"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a=1,b=2,c=3,d='broken"), 1);
}

TEST_F(StatementTest, DeleteTakesEqualsSignsInAValue) {
  start_rows({"x=y|2|3"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a=x=y"), 1);
}

TEST_F(StatementTest, DeleteFailsAtEachStepWithItsMessage) {
  start_rows({"1|x|3"});
  const std::vector<std::pair<std::string, std::vector<message>>> cases = {
      {" ", {end_before_token("DELETE")}},
      {"Delete FROM t WHERE a=1", {no_token("DELETE")}},
      {"DELETE", {}},
      {"DELETE t WHERE a=1", {no_token("FROM")}},
      {"DELETE FROM", {}},
      {"DELETE FROM t", {}},
      {"DELETE FROM t ", {end_before_token("WHERE")}},
      {"DELETE FROM nowhere WHERE a=1", {no_table("nowhere")}},
      {"DELETE FROM t where a=1", {no_token("WHERE")}},
      {"DELETE FROM t MAX=1", {no_token("WHERE")}},
      {"DELETE FROM t WHERE", {}},
      {"DELETE FROM t WHERE ", {}},
      {"DELETE FROM t WHERE d=1", {no_field("t", "d"), NO_FIELD_POS}},
      {"DELETE FROM t WHERE =1", {no_field("t", ""), NO_FIELD_POS}},
      {"DELETE FROM t WHERE a=1,,b=x", {no_field("t", ",b"), NO_FIELD_POS}},
      {"DELETE FROM t WHERE a='x'", {BAD_QUOTE}},
      {"DELETE FROM t WHERE a='", {BAD_QUOTE}},
      {"DELETE FROM t WHERE a=''x", {no_field("t", "x"), NO_FIELD_POS}},
      {"DELETE FROM t WHERE a=1 MAX=x", {}},
      {"DELETE FROM t WHERE a=1 LIMIT=3", {}},
      {"DELETE FROM t WHERE a=1 max=3", {}},
      {"DELETE FROM t WHERE a=1 MAX =5", {}},
      {"DELETE FROM t WHERE a=1 MAX5", {}},
      {"DELETE FROM t WHERE a=1 AND b=2", {}},
      {"DELETE FROM t WHERE a=1, b=x", {no_field("t", ""), NO_FIELD_POS}},
      {"DELETE FROM t\tWHERE a=1", {no_table("t\tWHERE")}},
  };
  for (const auto &[statement, told] : cases) {
    std::vector<message> expected = told;
    expected.push_back(DELETE_FAILED);
    EXPECT_EQ(failure(DELETE, statement), expected) << statement;
  }
  EXPECT_EQ(sql("DELETE FROM t WHEREa=1"), 1) << "a keyword needs no blank behind it";
}

// SELECT.

TEST_F(StatementTest, SelectTellsEveryStep) {
  start_rows({"1|x|3", "2|y|3"});
  EXPECT_EQ(sql("SELECT b,a FROM t WHERE c=3 MAX=5"), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select query: 'SELECT b,a FROM t WHERE c=3 MAX=5'\n"),
                                      max_set(5), dbg("Parse for SELECT OK!\n")));
  EXPECT_THAT(avp_texts("x"), ElementsAre("x", "y"));
  EXPECT_THAT(avp_texts("y"), ElementsAre("1", "2"));
  EXPECT_THAT(avp_texts("z"), IsEmpty()) << "a variable beyond the fields gets nothing";
}

TEST_F(StatementTest, SelectGivesMinusTwoAndNoAvpWithoutAMatch) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("SELECT a FROM t WHERE b=y"), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select query: 'SELECT a FROM t WHERE b=y'\n"), NULL_TEXT,
                                      max_not_found(100), dbg("Parse for SELECT OK!\n")));
  EXPECT_EQ(standin::avp_count(), 0U);
}

TEST_F(StatementTest, SelectStopsAfterItsMaximum) {
  start_rows({"1|x|", "2|x|", "3|x|"});
  EXPECT_EQ(sql("SELECT a FROM t WHERE b=x MAX=2"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("2", "3"));
  EXPECT_EQ(sql("SELECT a FROM t WHERE b=x MAX=0"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("3"));
  EXPECT_EQ(sql("SELECT a FROM t WHERE b=x MAX=99"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("1", "2", "3"));
}

TEST_F(StatementTest, SelectStopsAtTheTablesLimitWithoutAMaximum) {
  start_rows({"1|x|", "2|x|", "3|x|"}, three(2));
  EXPECT_EQ(sql("SELECT a FROM t WHERE b=x"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("2", "3"));
}

TEST_F(StatementTest, SelectDropsFieldsBeyondTheVariables) {
  start_rows({"1|x|3"});
  EXPECT_EQ(run(SELECT, {"SELECT a,b FROM t WHERE c=3", "$avp(only)"}), 1);
  EXPECT_THAT(avp_texts("only"), ElementsAre("1"));
  EXPECT_EQ(standin::avp_count(), 1U);
}

TEST_F(StatementTest, SelectTakesAFieldTwice) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("SELECT a,a FROM t WHERE c=3"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("1"));
  EXPECT_THAT(avp_texts("y"), ElementsAre("1"));
}

TEST_F(StatementTest, SelectDeliversAnEmptyFieldAsAnEmptyText) {
  start_rows({"1||3"});
  EXPECT_EQ(sql("SELECT b FROM t WHERE c=3"), 1);
  EXPECT_THAT(standin::avp("x"), ElementsAre(value("")));
}

TEST_F(StatementTest, SelectPassesOverANameThatCannotBeResolvedWithoutAWord) {
  start_rows({"1|x|3"});
  const standin::command prepared = prepare("SELECT a,b FROM t WHERE c=3");
  clear();
  standin::fail_call("pv_get_avp_name", 1);
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("y"));
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(StatementTest, SelectPassesOverANameOfNumberZeroWithoutAWord) {
  start_rows({"1|x|3"});
  const standin::command prepared =
      fixup(SELECT, {"SELECT a,b FROM t WHERE c=3", "$avp($var(n));$avp(y)"});
  ASSERT_TRUE(prepared.accepted());
  standin::set_var("n", 0);
  clear();
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("y"));
  EXPECT_THAT(avp_texts("y"), ElementsAre("x"));
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
  standin::set_var("n", 7);
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(standin::avp(7), ElementsAre(value("1")));
}

TEST_F(StatementTest, SelectFailsWhenTheHostRefusesAValueAndKeepsTheOthers) {
  start_rows({"1|x|3", "2|y|3"});
  const standin::command prepared = prepare("SELECT a,b FROM t WHERE c=3");
  clear();
  standin::fail_call("add_avp", 4);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("1", "2"));
  EXPECT_THAT(avp_texts("y"), ElementsAre("y"));
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not add avp\n"), SELECT_FAILED));
}

TEST_F(StatementTest, SelectUsesAnIndexAndFiltersByTheOthers) {
  table indexed = three();
  indexed.columns[1].indexed = true;
  start_rows({"1|x|3", "2|x|4", "3|y|3"}, indexed);
  EXPECT_EQ(sql("SELECT a FROM t WHERE c=3,b=x"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("1"));
}

TEST_F(StatementTest, SelectCannotNameAllColumns) {
  start_with({three(), {"one", {{"a"}}}}, {{"t", {"1|2|3"}}, {"one", {"1"}}});
  EXPECT_THAT(failure(SELECT, "SELECT a,b,c FROM t WHERE b=2"),
              ElementsAre(too_many_fields(3, "t", 3), SELECT_FAILED));
  EXPECT_THAT(failure(SELECT, "SELECT a FROM one WHERE a=1"),
              ElementsAre(too_many_fields(1, "one", 1), SELECT_FAILED))
      << "nothing can be selected from a table of one column";
}

TEST_F(StatementTest, SelectFailsAtEachStepWithItsMessage) {
  start_rows({"1|x|3"});
  const std::vector<std::pair<std::string, std::vector<message>>> cases = {
      {"  ", {end_before_token("SELECT")}},
      {"select a FROM t WHERE b=1", {no_token("SELECT")}},
      {"SELECT", {}},
      {"SELECT a", {}},
      {"SELECT a ", {end_before_token("FROM")}},
      {"SELECT a from t WHERE b=x", {no_token("FROM")}},
      {"SELECT a\tFROM t WHERE b=x", {no_token("FROM")}},
      {"SELECT a, b FROM t WHERE b=x", {no_token("FROM")}},
      {"SELECT FROM t WHERE b=x", {no_token("FROM")}},
      {"SELECT a FROM", {}},
      {"SELECT a FROM nowhere WHERE b=x", {no_table("nowhere")}},
      {"SELECT d FROM nowhere WHERE b=x", {no_table("nowhere")}},
      {"SELECT a FROM t", {}},
      {"SELECT d FROM t", {no_field("t", "d")}},
      {"SELECT a,,b FROM t WHERE c=1", {too_many_fields(3, "t", 3)}},
      {"SELECT a, FROM t WHERE c=1", {no_field("t", "")}},
      {"SELECT * FROM t WHERE c=1", {no_field("t", "*")}},
      {"SELECT a FROM t ", {end_before_token("WHERE")}},
      {"SELECT a FROM t WHERE", {}},
      {"SELECT a FROM t WHERE d=1", {no_field("t", "d"), NO_FIELD_POS}},
      {"SELECT a FROM t WHERE b='x'", {BAD_QUOTE}},
      {"SELECT a FROM t WHERE b=x MAX=x", {}},
      {"SELECT a FROM t WHERE b=x LIMIT=1", {}},
  };
  for (const auto &[statement, told] : cases) {
    std::vector<message> expected = told;
    expected.push_back(SELECT_FAILED);
    EXPECT_EQ(failure(SELECT, statement), expected) << statement;
  }
}

TEST_F(StatementTest, SelectSeesAnEmptyNameAsAnUnknownField) {
  table four = three();
  four.columns.push_back({"d"});
  start_with({four}, {{"t", {"1|2|3|4"}}});
  EXPECT_THAT(failure(SELECT, "SELECT a,,b FROM t WHERE c=1"),
              ElementsAre(no_field("t", ""), SELECT_FAILED));
  EXPECT_THAT(failure(SELECT, "SELECT a,b, FROM t WHERE c=1"),
              ElementsAre(no_field("t", ""), SELECT_FAILED));
}

// UPDATE.

TEST_F(StatementTest, UpdateTellsEveryStep) {
  start_rows({"1|x|3", "2|y|3"}, three(100, "TAG"));
  EXPECT_EQ(sql("UPDATE t SET a=9,b='' WHERE c=3 MAX=1"), 1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Update query: UPDATE t SET a=9,b='' WHERE c=3 MAX=1\n"), max_set(1),
                          dbg("Parse for UPDATE OK!\n"), PORTS_LOOKED_AT,
                          notice("      TAG - (2) SQLL Updating t,9|y|3"), state_set(1)));
  expect_rows("t", {{"1", "x", "3"}, {"9", "y", "3"}});
}

TEST_F(StatementTest, UpdateTellsRowsThatGo) {
  start_rows({"1|x|3", "2|y|3", "4|z|3"}, three(100, "TAG"));
  EXPECT_EQ(sql("UPDATE t SET a='',b= WHERE c=3 MAX=2"), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Update query: UPDATE t SET a='',b= WHERE c=3 MAX=2\n"),
                                      max_set(2), dbg("Parse for UPDATE OK!\n"), PORTS_LOOKED_AT,
                                      notice("      TAG - (2) SQLL Deleting from update t,4|z|3"),
                                      PORTS_LOOKED_AT,
                                      notice("      TAG - (1) SQLL Deleting from update t,2|y|3"),
                                      state_set(1), count_set(1)));
  expect_rows("t", {{"1", "x", "3"}});
}

TEST_F(StatementTest, UpdateTellsEveryStepThatFindsNothing) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("UPDATE t SET a=x WHERE b=1"), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Update query: UPDATE t SET a=x WHERE b=1\n"), NULL_TEXT,
                                      max_not_found(100), dbg("Parse for UPDATE OK!\n")));
  EXPECT_EQ(view().table("t").state, 0) << "the table isn't marked";
}

TEST_F(StatementTest, UpdateSetsTheGivenColumnsOfEveryMatch) {
  start_rows({"1|x|3", "2|y|3", "3|x|4"});
  EXPECT_EQ(sql("UPDATE t SET c=9,a=8 WHERE b=x"), 1);
  expect_rows("t", {{"8", "x", "9"}, {"2", "y", "3"}, {"8", "x", "9"}});
}

TEST_F(StatementTest, UpdateLeavesAColumnAloneThatIsSetToNothing) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("UPDATE t SET a=y,c='' WHERE b=x"), 1);
  expect_rows("t", {{"y", "x", "3"}});
}

TEST_F(StatementTest, UpdateMarksTheTableThoughNothingDiffers) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("UPDATE t SET a=1 WHERE b=x"), 1);
  EXPECT_EQ(view().table("t").state, 1);
  EXPECT_EQ(row_count("t"), 1);
}

TEST_F(StatementTest, UpdateDeletesNoMoreRowsThanItsMaximum) {
  start_rows({"1|x|", "2|x|", "3|x|"});
  EXPECT_EQ(sql("UPDATE t SET a='' WHERE b=x MAX=2"), 1);
  expect_rows("t", {{"1", "x", ""}});
}

TEST_F(StatementTest, UpdateDeletesARowThatIsAlreadyEmptyOnlyIfNothingIsSet) {
  start({three()});
  sql("INSERT INTO t a VALUES ,");
  ASSERT_EQ(row_count("t"), 1);
  EXPECT_EQ(sql("UPDATE t SET b=x WHERE a=''"), 1);
  expect_rows("t", {{"", "x", ""}});
}

TEST_F(StatementTest, UpdateCutsAValueToItsColumnWithAWarning) {
  table narrow = three();
  narrow.columns[0].length = 3;
  start_rows({"1|x|"}, narrow);
  EXPECT_EQ(sql("UPDATE t SET a=12345 WHERE b=x"), 1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(warn("Value '12345' too long. It will be truncated to fit field size (3 "
                               "bytes)\n")));
  expect_rows("t", {{"123", "x", ""}});
}

TEST_F(StatementTest, UpdateLeavesARowInTheChainOfItsOldText) {
  table indexed = three();
  indexed.columns[0].indexed = true;
  start_rows({"old|x|"}, indexed);
  EXPECT_EQ(sql("UPDATE t SET a=new WHERE a=old"), 1);
  EXPECT_EQ(sql("SELECT b FROM t WHERE a=new"), -2);
  EXPECT_EQ(sql("SELECT a FROM t WHERE b=x"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("new"));
}

TEST_F(StatementTest, UpdateFailsForABadSetListThoughTheRestIsGood) {
  start_rows({"1|x|3"});
  EXPECT_THAT(failure(UPDATE, "UPDATE t SET d=1 WHERE b=x"),
              ElementsAre(no_field("t", "d"), NO_FIELD_POS, UPDATE_FAILED));
  EXPECT_THAT(failure(UPDATE, "UPDATE t SET a='x' WHERE b=x"),
              ElementsAre(BAD_QUOTE, UPDATE_FAILED));
}

TEST_F(StatementTest, UpdateFailsAtEachStepWithItsMessage) {
  start_rows({"1|x|3"});
  const std::vector<std::pair<std::string, std::vector<message>>> cases = {
      {"  ", {end_before_token("UPDATE")}},
      {"Update t SET a=1 WHERE b=x", {no_token("UPDATE")}},
      {"UPDATE", {}},
      {"UPDATE nowhere SET a=1 WHERE b=x", {no_table("nowhere")}},
      {"UPDATE t", {}},
      {"UPDATE t ", {end_before_token("SET")}},
      {"UPDATE t a=1 WHERE b=x", {no_token("SET")}},
      {"UPDATE t set a=1 WHERE b=x", {no_token("SET")}},
      {"UPDATE t SET", {}},
      {"UPDATE t SET a=1", {}},
      {"UPDATE t SET a=1 ", {end_before_token("WHERE")}},
      {"UPDATE t SET a=1 where b=x", {no_token("WHERE")}},
      {"UPDATE t SET a=1, b=2 WHERE b=x", {no_field("t", ""), NO_FIELD_POS}},
      {"UPDATE t SET a=1 WHERE", {}},
      {"UPDATE t SET a=1 WHERE d=x", {no_field("t", "d"), NO_FIELD_POS}},
      {"UPDATE t SET a=1 WHERE b='x'", {BAD_QUOTE}},
      {"UPDATE t SET a=1 WHERE b=x MAX=x", {}},
      {"UPDATE t SET a=1 WHERE b=x LIMIT=1", {}},
      {"UPDATE t SET a=1 WHERE b=x MAX =1", {}},
  };
  for (const auto &[statement, told] : cases) {
    std::vector<message> expected = told;
    expected.push_back(UPDATE_FAILED);
    EXPECT_EQ(failure(UPDATE, statement), expected) << statement;
  }
  EXPECT_EQ(sql("UPDATEt SETa=1 WHEREb=x"), 1) << "keywords need no blank behind them";
}

// Printing.

TEST_F(StatementTest, InsertAndDeleteEndAPrintFailureWithTheirLastLine) {
  start({three()});
  standin::set_var("q", "");
  for (const auto &[function, last] :
       {std::pair(INSERT, INSERT_FAILED), std::pair(DELETE, DELETE_FAILED)}) {
    EXPECT_THAT(failure(function, "$var(q)"), ElementsAre(err(UNPRINTABLE), last));
    const standin::command prepared = fixup(function, {"x"});
    clear();
    standin::fail_call("pv_printf", 1);
    EXPECT_EQ(call(prepared), -1);
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), last));
  }
}

TEST_F(StatementTest, SelectAndUpdateEndAPrintFailureAtOnce) {
  start({three()});
  standin::set_var("q", "");
  for (const char *function : {SELECT, UPDATE})
    EXPECT_THAT(failure(function, "$var(q)"), ElementsAre(err(UNPRINTABLE)));
}

TEST_F(StatementTest, AStatementOf4095CharactersIsPrintedAndNoLongerOne) {
  start({three()});
  const std::string head = "INSERT INTO t a VALUES ";
  standin::set_var("q", head + std::string(4095 - head.size(), 'x'));
  EXPECT_EQ(run(INSERT, {"$var(q)"}), 1);
  standin::set_var("q", head + std::string(4096 - head.size(), 'x'));
  EXPECT_THAT(failure(UPDATE, "$var(q)"), ElementsAre(err(UNPRINTABLE)));
}

TEST_F(StatementTest, PutsPseudoVariablesInEveryPlace) {
  start({three()});
  standin::set_value(msg, "$fU", "alice");
  standin::set_value(msg, "$hdr(X-B)", "two");
  standin::set_value(msg, "$si", "10.1.2.3");
  standin::set_var("table", "t");
  standin::push_avp("max", 1);
  EXPECT_EQ(run(INSERT, {"INSERT INTO $var(table) a,b VALUES $fU,$hdr(X-B)"}), 1);
  EXPECT_EQ(run(SELECT, {"SELECT b FROM $var(table) WHERE a=$fU MAX=$avp(max)", "$avp(x)"}), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("two"));
  EXPECT_EQ(run(UPDATE, {"UPDATE $var(table) SET c=$si WHERE a=$fU"}), 1);
  expect_rows("t", {{"alice", "two", "10.1.2.3"}});
  EXPECT_EQ(run(DELETE, {"DELETE FROM $var(table) WHERE c=$si"}), 1);
}

TEST_F(StatementTest, LetsAVariableWithABlankOrACommaChangeTheStatement) {
  start_rows({"1|x|", "2|x|"});
  standin::set_var("name", "1,b=y");
  EXPECT_EQ(run(DELETE, {"DELETE FROM t WHERE a=$var(name)"}), -2);
  standin::set_var("name", "1 MAX=1");
  EXPECT_EQ(run(DELETE, {"DELETE FROM t WHERE a=$var(name)"}), 1);
}

// Long names and values.

TEST_F(StatementTest, ATableNameOf31CharactersIsFoundAndALongerOneFailsWithoutAWord) {
  const std::string longest(31, 'n');
  start_with({three(), {longest, {{"a"}, {"b"}}}}, {{"t", {"1|2|3"}}});
  EXPECT_EQ(sql("INSERT INTO " + longest + " a VALUES 1"), 1);
  EXPECT_EQ(sql("DELETE FROM " + longest + " WHERE a=1"), 1);
  EXPECT_THAT(failure(INSERT, "INSERT INTO " + longest + "n a VALUES 1"),
              ElementsAre(INSERT_FAILED));
  EXPECT_THAT(failure(DELETE, "DELETE FROM " + longest + "n WHERE a=1"),
              ElementsAre(DELETE_FAILED));
  EXPECT_THAT(failure(SELECT, "SELECT a FROM " + longest + "n WHERE a=1"),
              ElementsAre(SELECT_FAILED));
  EXPECT_THAT(failure(UPDATE, "UPDATE " + longest + "n SET a=2 WHERE a=1"),
              ElementsAre(UPDATE_FAILED));
  EXPECT_THAT(failure(UPDATE, "UPDATE " + std::string(900, 'n') + " SET a=2 WHERE a=1"),
              ElementsAre(UPDATE_FAILED));
}

TEST_F(StatementTest, ColumnNamesOf31CharactersAreFound) {
  const std::string longest(31, 'n');
  start({{"t", {{"a"}, {longest}, {"c"}}}});
  EXPECT_EQ(sql("INSERT INTO t a," + longest + " VALUES 1,2"), 1);
  EXPECT_EQ(sql("SELECT " + longest + " FROM t WHERE " + longest + "=2"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("2"));
}

TEST_F(StatementTest, LongNamesAreReadWholeAndRefused) {
  start_rows({"1|2|3"});
  for (const size_t length : {size_t{32}, size_t{33}, size_t{64}, size_t{300}, size_t{2000}}) {
    const std::string name(length, 'a');
    EXPECT_THAT(failure(INSERT, "INSERT INTO t " + name + " VALUES 1"),
                ElementsAre(no_field("t", name), INSERT_FAILED));
    EXPECT_THAT(failure(SELECT, "SELECT b," + name + " FROM t WHERE a=1"),
                ElementsAre(no_field("t", name), SELECT_FAILED));
    EXPECT_THAT(failure(DELETE, "DELETE FROM t WHERE a=1," + name + "=1"),
                ElementsAre(no_field("t", name), NO_FIELD_POS, DELETE_FAILED));
    EXPECT_THAT(failure(UPDATE, "UPDATE t SET " + name + "=1 WHERE a=1"),
                ElementsAre(no_field("t", name), NO_FIELD_POS, UPDATE_FAILED));
  }
}

TEST_F(StatementTest, AnInsertReadsValuesOfAnyLengthWhole) {
  start({three()});
  for (const size_t length :
       {size_t{31}, size_t{32}, size_t{255}, size_t{256}, size_t{257}, size_t{600}}) {
    const std::string first(length, 'x');
    const std::string second(length, 'y');
    EXPECT_EQ(sql("INSERT INTO t b,a VALUES " + first + "," + second), 1);
    EXPECT_TRUE(rows("t") == (row_list{{second, first, ""}})) << length;
    EXPECT_EQ(run("tarn_memdb_delete", {"t,*|*|*"}), 1);
  }
}

TEST_F(StatementTest, AnInsertCutsAValueToItsColumnWithAWarning) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a VALUES " + std::string(601, 'x')), 1);
  EXPECT_EQ(rows("t"), (row_list{{std::string(600, 'x'), "", ""}}));
  EXPECT_EQ(standin::log_count(WARN_LEVEL), 1U);
}

TEST_F(StatementTest, APairsValueOf31CharactersStaysWholeAheadOfAnother) {
  start_rows({"1|2|3"});
  const std::string fits(31, 'x');
  EXPECT_EQ(sql("UPDATE t SET a=" + fits + ",b=y WHERE c=3"), 1);
  expect_rows("t", {{fits, "y", "3"}});
}

TEST_F(StatementTest, ALongerPairsValueLosesItsTailToTheNextPairs) {
  start_rows({"1|2|3"});
  const std::string start_of_value = "0123456789abcdef0123456789ABCDEF";
  EXPECT_EQ(sql("UPDATE t SET a=" + start_of_value + "ghijklmn,b=y WHERE c=3"), 1);
  expect_rows("t", {{start_of_value + "y", "y", "3"}});
}

TEST_F(StatementTest, ALongerPairsValueIsCutByAnEmptyOneBehindIt) {
  start_rows({"1|2|3"});
  const std::string start_of_value = "0123456789abcdef0123456789ABCDEF";
  EXPECT_EQ(sql("UPDATE t SET a=" + start_of_value + "gh,b='' WHERE c=3"), 1);
  expect_rows("t", {{start_of_value, "2", "3"}});
}

TEST_F(StatementTest, ThreeLongPairsRunIntoEachOther) {
  start_rows({"1|2|3"});
  const std::string first(40, 'x');
  const std::string second(40, 'y');
  const std::string third(40, 'z');
  EXPECT_EQ(sql("UPDATE t SET a=" + first + ",b=" + second + ",c=" + third + " WHERE c=3"), 1);
  const std::string tail = std::string(32, 'y') + third;
  expect_rows("t", {{std::string(32, 'x') + tail, tail, third}});
}

TEST_F(StatementTest, ALongPairsValueBehindAShortOneStaysWhole) {
  start_rows({"1|2|3"});
  const std::string longest(256, 'x');
  EXPECT_EQ(sql("UPDATE t SET b=y,a=" + longest + " WHERE c=3"), 1);
  expect_rows("t", {{longest, "y", "3"}});
}

TEST_F(StatementTest, TheSpacingSpoilsLongValuesOfASelectionToo) {
  const std::string long_value(40, 'x');
  start_rows({long_value + "|y|3"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a=" + long_value + ",b=y"), -2);
  EXPECT_EQ(sql("DELETE FROM t WHERE b=y,a=" + long_value), 1);
}

TEST_F(StatementTest, APairsValueEndsAfter256Characters) {
  start_rows({"1|2|3"});
  const std::string most(256, 'x');
  EXPECT_EQ(sql("UPDATE t SET a=y,b=y,c=" + most + "rest WHERE a=1"), 1)
      << "of the last pair that there is room for the rest isn't read";
  expect_rows("t", {{"y", "y", most}});
  standin::tick();
  EXPECT_THAT(failure(UPDATE, "UPDATE t SET a=" + most + "rest WHERE a=y"),
              ElementsAre(no_field("t", "rest"), NO_FIELD_POS, UPDATE_FAILED));
  EXPECT_EQ(sql("UPDATE t SET a=" + most + "b=z WHERE a=y"), 1) << "the rest is the next pair";
  EXPECT_EQ(rows("t"), (row_list{{most.substr(0, 32) + "z", "z", most}}));
}

// Memory.

TEST_F(StatementTest, InsertTellsWhichBlockItCouldNotHave) {
  start({three()});
  const standin::command prepared = prepare("INSERT INTO t b VALUES 2");
  const texts blocks = {"tbl_name", "field_list", "field_pos", "field_value"};
  for (size_t n = 0; n < blocks.size(); n++) {
    clear();
    standin::fail_at(pool::pkg, n + 1);
    EXPECT_EQ(call(prepared), -1);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(no_memory(blocks[n]), INSERT_FAILED));
  }
  expect_rows("t", {});
}

TEST_F(StatementTest, DeleteTellsWhichBlockItCouldNotHave) {
  start_rows({"1|2|3"});
  const standin::command prepared = prepare("DELETE FROM t WHERE a=1");
  const texts blocks = {"tbl_name", "field_list", "field_value_f", "field_value", "field_pos"};
  for (size_t n = 0; n < blocks.size(); n++) {
    clear();
    standin::fail_at(pool::pkg, n + 1);
    EXPECT_EQ(call(prepared), -1);
    std::vector<message> expected = {no_memory(blocks[n]), DELETE_FAILED};
    if (blocks[n] == "field_pos") expected.insert(expected.begin() + 1, NO_FIELD_POS);
    EXPECT_EQ(messages(INFO_LEVEL), expected);
  }
  expect_rows("t", {{"1", "2", "3"}});
}

TEST_F(StatementTest, FailCleanlyWhateverCallOrAllocationFails) {
  table checked = three(100, "TAG");
  checked.check_duplicates = true;
  checked.use_index = true;
  start({checked});
  const standin::command insert = prepare("INSERT INTO t b,c VALUES 2,3");
  const standin::command remove_all = fixup("tarn_memdb_delete", {"t,*|*|*"});
  row_list kept;
  const scene empty{[&] {
                      call(remove_all);
                      kept = rows("t");
                    },
                    [&] { expect_rows("t", kept); }};
  const scene one_row{[&] {
                        call(remove_all);
                        view().table("t").next_index = 1;
                        call(insert);
                        kept = rows("t");
                        clear();
                      },
                      [&] { EXPECT_EQ(row_count("t"), 1); }};
  // The result of a good insert is its index.
  const scene from_index_one{[&] {
                               empty.before();
                               view().table("t").next_index = 1;
                             },
                             empty.after};
  expect_results_of_failing_calls(insert, 1, {{"pv_printf", {-1}}}, from_index_one);
  expect_results_of_failing_allocations(pool::pkg, insert, 1, {-1, -1, -1, -1, -1}, from_index_one);
  expect_results_of_failing_allocations(pool::shm, insert, 1, {-1}, from_index_one);

  const standin::command erase = prepare("DELETE FROM t WHERE b=2 MAX=1");
  expect_results_of_failing_calls(erase, 1, {{"pv_printf", {-1}}}, one_row);
  expect_results_of_failing_allocations(pool::pkg, erase, 1, {-1, -1, -1, -1, -1}, one_row);

  const standin::command select = prepare("SELECT b,c FROM t WHERE a=1");
  expect_results_of_failing_calls(
      select, 1, {{"pv_printf", {-1}}, {"pv_get_avp_name", {1, 1}}, {"add_avp", {-1, -1}}},
      one_row);
  expect_results_of_failing_allocations(pool::pkg, select, 1, {-1, -1, -1, -1, -1, -1, -1},
                                        one_row);
  expect_results_of_failing_allocations(pool::shm, select, 1, {}, one_row);

  const standin::command update = prepare("UPDATE t SET b=7 WHERE a=1");
  expect_results_of_failing_calls(update, 1, {{"pv_printf", {-1}}}, one_row);
  expect_results_of_failing_allocations(pool::pkg, update, 1, {-1, -1, -1, -1, -1, -1, -1, -1, -1},
                                        one_row);
  expect_results_of_failing_allocations(pool::shm, update, 1, {}, one_row);
}

// Cost.

TEST_F(StatementTest, ManyRowsAskTheHostForItsDebugLevelNoOftener) {
  texts rows(500, "1|many|3");
  rows.push_back("1|one|3");
  start_rows(rows, three(1000, "TAG"));
  standin::set_debug_level(ALERT_LEVEL);
  const auto queries = [this](const std::string &statement) {
    const standin::command prepared = prepare(statement);
    standin::reset_calls();
    EXPECT_EQ(call(prepared), 1);
    return standin::debug_level_queries();
  };
  EXPECT_EQ(queries("SELECT a FROM t WHERE b=many"), queries("SELECT a FROM t WHERE b=one"));
  EXPECT_EQ(queries("UPDATE t SET a=x WHERE b=many"), queries("UPDATE t SET a=x WHERE b=one"));
  EXPECT_EQ(queries("DELETE FROM t WHERE b=many"), queries("DELETE FROM t WHERE b=one"));
}

TEST_F(StatementTest, BuildsNoRowImageForATableWithoutATag) {
  start_rows({"1|x|3"});
  EXPECT_EQ(sql("UPDATE t SET a=2 WHERE b=x"), 1);
  EXPECT_EQ(sql("DELETE FROM t WHERE b=x"), 1);
  EXPECT_EQ(sql("INSERT INTO t a VALUES 1"), 1);
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0U);
}

TEST_F(StatementTest, CutsARowImageAtItsBuffer) {
  table wide{"t", {}};
  wide.log_tag = "TAG";
  for (size_t i = 0; i < 8; i++) wide.columns.push_back({"c" + std::to_string(i), 600});
  const std::string text(600, 'x');
  start_with({wide}, {{"t", {joined(texts(8, text), "|")}}});
  EXPECT_EQ(sql("DELETE FROM t WHERE c0=" + text.substr(0, 256)), -2);
  EXPECT_EQ(sql("UPDATE t SET c0=1 WHERE c1=''"), -2);
  EXPECT_EQ(run("tarn_memdb_update", {"t," + text + repeated("|*", 7), "1" + repeated("|*", 7)}),
            1);
  EXPECT_EQ(sql("DELETE FROM t WHERE c0=1"), 1);
  const std::string image = ("1|" + joined(texts(7, text), "|")).substr(0, 4095);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(notice("      TAG - (0) SQLL Deleting t," + image)));
}

}  // namespace
}  // namespace module_test
