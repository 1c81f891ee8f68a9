// The four functions that take a statement.
#include "tests/module/injection.h"

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

// What doesn't fit. How each routine reads its part of a statement is shown with the scanner; here
// it is the order of the parts, what is said of each, and that nothing is changed.

struct failing {
  const char *function;
  message last_line;
  std::vector<std::pair<std::string, std::vector<message>>> cases;
};

const std::string LONG_NAME(32, 'n');

std::ostream &operator<<(std::ostream &out, const failing &shown) { return out << shown.function; }

class FailingStatementTest : public StatementTest, public testing::WithParamInterface<failing> {};

TEST_P(FailingStatementTest, FailsAtEachStepWithItsMessage) {
  start_rows({"1|x|3"});
  for (const auto &[statement, told] : GetParam().cases) {
    std::vector<message> expected = told;
    expected.push_back(GetParam().last_line);
    EXPECT_EQ(failure(GetParam().function, statement), expected) << statement;
  }
}

const failing BAD_STATEMENTS[] = {
    {INSERT,
     INSERT_FAILED,
     {{"   ", {end_before_token("INSERT")}},
      {"INSER INTO t a VALUES 1", {no_token("INSERT")}},
      {"INSERT", {}},
      {"INSERT\tINTO t a VALUES 1", {no_token("INTO")}},
      {"INSERT INTO", {}},
      {"INSERT INTO t", {}},
      {"INSERT INTO nowhere", {no_table("nowhere")}},
      {"INSERT INTO T a VALUES 1", {no_table("T")}},
      {"INSERT INTO " + LONG_NAME + " a VALUES 1", {}},
      {"INSERT INTO t ", {END_BEFORE_FIELDS}},
      {"INSERT INTO t a", {}},
      {"INSERT INTO t a ", {end_before_token("VALUES")}},
      {"INSERT INTO t a WHERE 1", {no_token("VALUES")}},
      {"INSERT INTO t a VALUES ", {}},
      {"INSERT INTO t a, b VALUES 1,2", {no_field("t", "")}},
      {"INSERT INTO t d VALUES 1", {no_field("t", "d")}},
      {"INSERT INTO t (a,b) VALUES 1,2", {no_field("t", "(a")}},
      {"INSERT INTO t a,b,c VALUES 1,2,3", {too_many_fields(3, "t", 3)}},
      {"INSERT INTO t a,b VALUES 1", {too_few_values(1, 2)}}}},
    {DELETE,
     DELETE_FAILED,
     {{" ", {end_before_token("DELETE")}},
      {"Delete FROM t WHERE a=1", {no_token("DELETE")}},
      {"DELETE t WHERE a=1", {no_token("FROM")}},
      {"DELETE FROM", {}},
      {"DELETE FROM t", {}},
      {"DELETE FROM t ", {end_before_token("WHERE")}},
      {"DELETE FROM nowhere WHERE a=1", {no_table("nowhere")}},
      {"DELETE FROM t\tWHERE a=1", {no_table("t\tWHERE")}},
      {"DELETE FROM " + LONG_NAME + " WHERE a=1", {}},
      {"DELETE FROM t MAX=1", {no_token("WHERE")}},
      {"DELETE FROM t WHERE ", {}},
      {"DELETE FROM t WHERE d=1", {no_field("t", "d"), NO_FIELD_POS}},
      {"DELETE FROM t WHERE a=1, b=x", {no_field("t", ""), NO_FIELD_POS}},
      {"DELETE FROM t WHERE a='x'", {BAD_QUOTE}},
      {"DELETE FROM t WHERE a 1", {}},
      {"DELETE FROM t WHERE a=1 AND b=2", {}}}},
    {SELECT,
     SELECT_FAILED,
     {{"select a FROM t WHERE b=x", {no_token("SELECT")}},
      {"SELECT", {}},
      {"SELECT a", {}},
      {"SELECT a ", {end_before_token("FROM")}},
      {"SELECT a, b FROM t WHERE b=x", {no_token("FROM")}},
      {"SELECT FROM t WHERE b=x", {no_token("FROM")}},
      {"SELECT a FROM", {}},
      {"SELECT d FROM nowhere WHERE b=x", {no_table("nowhere")}},
      {"SELECT a FROM " + LONG_NAME + " WHERE b=x", {}},
      {"SELECT d FROM t", {no_field("t", "d")}},
      {"SELECT a FROM t", {}},
      {"SELECT * FROM t WHERE b=x", {no_field("t", "*")}},
      {"SELECT a,b,c FROM t WHERE b=x", {too_many_fields(3, "t", 3)}},
      {"SELECT a FROM t where b=x", {no_token("WHERE")}},
      {"SELECT a FROM t WHERE", {}},
      {"SELECT a FROM t WHERE d=1", {no_field("t", "d"), NO_FIELD_POS}},
      {"SELECT a FROM t WHERE b='x'", {BAD_QUOTE}}}},
    {UPDATE,
     UPDATE_FAILED,
     {{"  ", {end_before_token("UPDATE")}},
      {"Update t SET a=1 WHERE b=x", {no_token("UPDATE")}},
      {"UPDATE", {}},
      {"UPDATE nowhere SET a=1 WHERE b=x", {no_table("nowhere")}},
      {"UPDATE " + LONG_NAME + " SET a=1 WHERE b=x", {}},
      {"UPDATE t", {}},
      {"UPDATE t WHERE b=x SET a=1", {no_token("SET")}},
      {"UPDATE t SET", {}},
      {"UPDATE t SET d=1 WHERE b=x", {no_field("t", "d"), NO_FIELD_POS}},
      {"UPDATE t SET a='x' WHERE b=x", {BAD_QUOTE}},
      {"UPDATE t SET a=1", {}},
      {"UPDATE t SET a=1 ", {end_before_token("WHERE")}},
      {"UPDATE t SET a=1 where b=x", {no_token("WHERE")}},
      {"UPDATE t SET a=1, b=2 WHERE b=x", {no_field("t", ""), NO_FIELD_POS}},
      {"UPDATE t SET a=1 WHERE", {}},
      {"UPDATE t SET a=1 WHERE d=x", {no_field("t", "d"), NO_FIELD_POS}},
      {"UPDATE t SET a=1 WHERE b='x'", {BAD_QUOTE}}}},
};

INSTANTIATE_TEST_SUITE_P(Each, FailingStatementTest, testing::ValuesIn(BAD_STATEMENTS),
                         [](const auto &tested) { return std::string(tested.param.function); });

TEST_F(StatementTest, NothingCanBeSelectedFromATableOfOneColumn) {
  start_with({{"t", {{"a"}}}}, {{"t", {"1"}}});
  EXPECT_THAT(failure(SELECT, "SELECT a FROM t WHERE a=1"),
              ElementsAre(too_many_fields(1, "t", 1), SELECT_FAILED));
}

TEST_F(StatementTest, KeywordsNeedNoBlanksAndTakeMany) {
  start({three()});
  EXPECT_EQ(sql("INSERTINTO t a VALUES1"), 1);
  EXPECT_EQ(sql("   INSERT   INTO   t   a,b   VALUES   2,x   "), 1);
  EXPECT_EQ(sql("UPDATEt SETa=3 WHEREa=2"), 1);
  expect_rows("t", {{"1", "", ""}, {"3", "x", ""}});
  EXPECT_EQ(sql("SELECTa FROMt WHEREb=x"), 1);
  EXPECT_EQ(sql("  DELETE  FROMt   WHEREa=1  MAX=1"), 1);
  expect_rows("t", {{"3", "x", ""}});
}

// The limit behind the pairs, which three of them have.

struct clause_case {
  const char *name;
  const char *clause;
  std::vector<message> told;
  size_t rows;
};

class ClauseTest : public StatementTest, public testing::WithParamInterface<clause_case> {};

TEST_P(ClauseTest, LimitsTheRows) {
  // Loaded beyond the table's limit.
  start_rows({"1|x|", "2|x|", "3|x|", "4|x|", "5|x|"}, three(4));
  const std::string statement = std::string("SELECT a FROM t WHERE b=x") + GetParam().clause;
  EXPECT_EQ(sql(statement), 1);
  std::vector<message> expected = {dbg("Select query: '" + statement + "'\n")};
  expected.insert(expected.end(), GetParam().told.begin(), GetParam().told.end());
  expected.push_back(dbg("Parse for SELECT OK!\n"));
  EXPECT_EQ(messages(), expected);
  const texts last_added_last = {"1", "2", "3", "4", "5"};
  EXPECT_EQ(avp_texts("x"), texts(last_added_last.end() - static_cast<long>(GetParam().rows),
                                  last_added_last.end()))
      << "the newest rows";
}

const clause_case CLAUSES[] = {
    {"None", "", {NULL_TEXT, max_not_found(4)}, 4},
    {"Blanks", "   ", {max_not_found(4)}, 4},
    {"ANumber", " MAX=2", {max_set(2)}, 2},
    {"BlanksAhead", "   MAX=2", {max_set(2)}, 2},
    {"BlanksBehindTheSign", " MAX= \t2", {max_set(2)}, 2},
    {"MoreBehind", " MAX=2 MAX=3", {max_set(2)}, 2},
    {"LettersBehind", " MAX=02x,5", {max_set(2)}, 2},
    {"APlus", " MAX=+2", {max_set(2)}, 2},
    {"MoreThanTheTables", " MAX=99", {max_set(99)}, 5},
    {"Zero", " MAX=0", {max_invalid(0), max_set(1)}, 1},
    {"BelowZero", " MAX=-3", {max_invalid(-3), max_set(1)}, 1},
    // The scan meets the end of the text and no other character.
    {"NoNumber", " MAX=", {max_set(1)}, 1},
    {"NoNumberAndBlanks", " MAX=  ", {max_set(1)}, 1},
    {"AWordThatEnds", " MAX", {max_set(1)}, 1},
    {"ALetterThatEnds", " M", {max_set(1)}, 1},
};

INSTANTIATE_TEST_SUITE_P(All, ClauseTest, testing::ValuesIn(CLAUSES),
                         [](const auto &tested) { return std::string(tested.param.name); });

TEST_F(StatementTest, AnotherWordBehindThePairsFails) {
  start_rows({"1|x|3"});
  for (const char *clause : {"MAX=x", "LIMIT=1", "max=3", "MAX =1", "MAX5"}) {
    EXPECT_THAT(failure(DELETE, std::string("DELETE FROM t WHERE b=x ") + clause),
                ElementsAre(DELETE_FAILED));
    EXPECT_THAT(failure(SELECT, std::string("SELECT a FROM t WHERE b=x ") + clause),
                ElementsAre(SELECT_FAILED));
    EXPECT_THAT(failure(UPDATE, std::string("UPDATE t SET a=1 WHERE b=x ") + clause),
                ElementsAre(UPDATE_FAILED));
  }
}

TEST_F(StatementTest, AClauseBehindANameWithABlankIsItsValueToo) {
  start_rows({"MAX=1|x|", "1|x|"});
  EXPECT_EQ(sql("DELETE FROM t WHERE a MAX=1"), 1);
  EXPECT_THAT(messages(), Contains(max_set(1)));
  expect_rows("t", {{"1", "x", ""}});
}

// What is looked for.

TEST_F(StatementTest, LooksForRowsThatHaveEachValueAsItStands) {
  table indexed = three();
  indexed.columns[1].indexed = true;
  start_rows({"\\*|x|3", "1\\\\2|x|", "=|y|"}, indexed);
  const auto found = [this](const std::string &pairs) {
    const int result = sql("SELECT a FROM t WHERE " + pairs);
    const texts values = avp_texts("x");
    return result == 1 && values.size() == 1 ? values[0] : std::to_string(result);
  };
  EXPECT_EQ(found("b=x,c=3"), "*");
  EXPECT_EQ(found("b=x,c=''"), "1\\2");
  EXPECT_EQ(found("c=,b=y"), "=");
  EXPECT_EQ(found("b=y,c=3"), "-2");
  EXPECT_EQ(found("a=*"), "*");
  EXPECT_EQ(found("a=1\\2"), "1\\2");
  EXPECT_EQ(found("a=="), "=");
  EXPECT_EQ(found("b=*"), "-2");
}

// INSERT.

TEST_F(StatementTest, InsertTellsEveryStep) {
  start({three(100, "TAG")});
  EXPECT_EQ(sql("INSERT INTO t a,c VALUES 1,2"), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Insert query: 'INSERT INTO t a,c VALUES 1,2'\n"),
                                      dbg("Parse for INSERT OK!\n"), PORTS_LOOKED_AT, state_set(1),
                                      count_set(1), notice("      TAG - (1) SQLL Inserting t,1")));
  expect_rows("t", {{"1", "", "2"}});
}

TEST_F(StatementTest, InsertStoresValuesAsTheyStandAndLeavesTheOthersEmpty) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t c,a VALUES '',x|y\\,more"), 1);
  EXPECT_EQ(sql("INSERT INTO t b VALUES *"), 1);
  EXPECT_EQ(rows("t"), (row_list{{"x|y\\", "", "''"}, {"", "*", ""}}));
}

TEST_F(StatementTest, InsertCutsAValueToItsColumnWithAWarning) {
  start({three()});
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES " + std::string(601, 'x') + "," + std::string(600, 'y')),
            1);
  EXPECT_EQ(rows("t"), (row_list{{std::string(600, 'x'), std::string(600, 'y'), ""}}));
  EXPECT_EQ(standin::log_count(WARN_LEVEL), 1U);
}

TEST_F(StatementTest, InsertGivesTheGeneratedIndexAndLogsItAsItsFirstColumn) {
  table indexed = three(100, "TAG");
  indexed.use_index = true;
  start({indexed});
  EXPECT_EQ(sql("INSERT INTO t b VALUES x"), 1);
  EXPECT_EQ(sql("INSERT INTO t a,b VALUES 77,y"), 2) << "a value of its own is replaced";
  EXPECT_THAT(messages(), Contains(notice("      TAG - (2) SQLL Inserting t,2")));
  EXPECT_EQ(sql("INSERT INTO t a VALUES " + std::string(500, '7')), 3);
  expect_rows("t", {{"1", "x", ""}, {"2", "y", ""}, {"3", "", ""}});
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

TEST_F(StatementTest, InsertRefusesARowThatIsEqualInEveryColumnAndDrawsNoIndex) {
  table checked = three();
  checked.check_duplicates = true;
  checked.use_index = true;
  start_rows({"1|2|"}, checked);
  ASSERT_EQ(view().table("t").next_index, 2U);
  EXPECT_THAT(
      failure(INSERT, "INSERT INTO t b VALUES 2"),
      ElementsAre(warn("Duplicated data will not be inserted into table 't'!\n"), INSERT_FAILED));
  EXPECT_EQ(view().table("t").next_index, 2U);
  EXPECT_EQ(sql("INSERT INTO t b,c VALUES 2,4"), 2);
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

// Printing.

TEST_F(StatementTest, TwoOfThemEndAPrintFailureWithTheirLastLine) {
  start({three()});
  standin::set_var("q", "");
  const std::vector<std::pair<const char *, std::vector<message>>> all = {
      {INSERT, {err(UNPRINTABLE), INSERT_FAILED}},
      {DELETE, {err(UNPRINTABLE), DELETE_FAILED}},
      {SELECT, {err(UNPRINTABLE)}},
      {UPDATE, {err(UNPRINTABLE)}},
  };
  for (const auto &[function, told] : all) EXPECT_EQ(failure(function, "$var(q)"), told);
}

TEST_F(StatementTest, AStatementOf4095CharactersIsPrintedAndNoLongerOne) {
  start({three()});
  const std::string head = "INSERT INTO t a VALUES ";
  standin::set_var("q", head + std::string(4095 - head.size(), 'x'));
  EXPECT_EQ(run(INSERT, {"$var(q)"}), 1);
  standin::set_var("q", head + std::string(4096 - head.size(), 'x'));
  EXPECT_THAT(failure(UPDATE, "$var(q)"), ElementsAre(err(UNPRINTABLE)));
}

TEST_F(StatementTest, LetsAVariableWithABlankOrACommaChangeTheStatement) {
  start_rows({"1|x|", "2|x|"});
  standin::set_var("name", "1,b=y");
  EXPECT_EQ(run(DELETE, {"DELETE FROM t WHERE a=$var(name)"}), -2);
  standin::set_var("name", "1 MAX=1");
  EXPECT_EQ(run(DELETE, {"DELETE FROM t WHERE a=$var(name)"}), 1);
}

// Memory.

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

}  // namespace
}  // namespace module_test
