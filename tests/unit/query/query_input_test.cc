// The positional query: what each text becomes, and what each refusal says and leaves.
#include "query/query_input.h"

#include "tests/unit/query/query_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

const message ESCAPE_WARNING{L_WARN, "Bad escape detected\n"};
const message SIZE_MISMATCH{L_ERR, "Size mismatch"};
const message NO_LIST{L_ERR, "Field list is missing\n"};
const message NO_TABLE{L_ERR, "Table not found\n"};
const message BAD_MAXIMUM{L_ERR, "Invalid value for maximum result count\n"};
const message WILDCARD_IN_INSERT{L_ERR, "Wildcard are not allowed in INSERT operation\n"};
const message EMPTY_INSERT{L_ERR, "Empty fields are not allowed in INSERT operation\n"};
const message BAD_INSERT{L_ERR, "Wrong input format for INSERT\n"};

message not_found(const std::string &name) {
  return {L_ERR, "Table '" + name + "' was not found\n"};
}
message wrong_count(const std::string &query, const std::string &rest) {
  return {L_ERR, "Wrong number of fields in field list: " + query + " | " + rest + "\n"};
}

class QueryInputTest : public QueryLanguageTest {
 protected:
  static constexpr int32_t MAX_ROWS = 100;

  void SetUp() override {
    QueryLanguageTest::SetUp();
    table = add_table("t", {"a", "b", "c"}, MAX_ROWS);
    single = add_table("single", {"only"}, 7);
    standin::clear_logs();
    standin::reset_allocation_count();
  }

  // What a successful parse left behind; the record is reset before this is given back.
  struct parsed {
    const tarn_tbl *table;
    field_values fields;
    int32_t max_res;
    std::string name;
  };

  std::optional<parsed> parse(const std::string &text, int32_t op = OP_SELECT) {
    standin::clear_logs();
    // With the terminator that every query has, and no byte behind it.
    const exact_text terminated(text + '\0');
    const str query{terminated.get().s, static_cast<int>(text.size())};
    char name[TARN_NAME_SIZE] = "";
    query_in in;
    memset(&in, 0x5A, sizeof(in));
    const size_t owned_before = standin::live_count(pool::pkg);
    if (!tarn_memdb_parse_input(query, op, &in, name)) {
      EXPECT_EQ(standin::live_count(pool::pkg), owned_before) << "a refused query owns something";
      last_name = name;
      return std::nullopt;
    }
    EXPECT_EQ(standin::live_count(pool::pkg), owned_before + 1);
    parsed out{in.table, values_of(in.flds, in.table->tbl->col_cnt), in.max_res, name};
    query_in_reset(&in);
    EXPECT_EQ(standin::live_count(pool::pkg), owned_before);
    EXPECT_EQ(in.table, nullptr);
    EXPECT_EQ(in.flds, nullptr);
    EXPECT_EQ(in.max_res, 0);
    return out;
  }

  void expect_fields(const std::string &text, int32_t op, const field_values &fields,
                     int32_t max_res) {
    const auto out = parse(text, op);
    ASSERT_TRUE(out.has_value()) << text << "\n" << standin::log_dump();
    EXPECT_EQ(out->fields, fields) << text;
    EXPECT_EQ(out->max_res, max_res) << text;
    EXPECT_THAT(messages(), IsEmpty()) << text;
  }

  template <typename... Messages>
  void expect_refused(const std::string &text, int32_t op, const Messages &...expected) {
    EXPECT_FALSE(parse(text, op).has_value()) << text;
    EXPECT_THAT(messages(), ElementsAre(expected...)) << text;
  }

  tarn_tbl *table = nullptr;
  tarn_tbl *single = nullptr;
  std::string last_name;
};

TEST_F(QueryInputTest, QueryGivesTableFieldsAndName) {
  const auto out = parse("t,alice|*|", OP_DELETE);
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->table, table);
  EXPECT_EQ(out->fields, (field_values{"alice", std::nullopt, ""}));
  EXPECT_EQ(out->name, "t");
}

TEST_F(QueryInputTest, OperationsOtherThanInsertReadTheSame) {
  for (const int32_t op : {OP_DELETE, OP_SELECT, 3, 0, -1, 5}) {
    expect_fields("t,a\\,b|*|,12", op, {"a,b", std::nullopt, ""}, 12);
    expect_refused("t,a|b|c,0", op, BAD_MAXIMUM);
  }
}

TEST_F(QueryInputTest, MaximumThatIsMissingOrNoNumberIsTheTablesLimit) {
  for (const char *text :
       {"t,a|b|c", "t,a|b|c,", "t,a|b|c,abc", "t,a|b|c,99999999999", "t,a|b|c,-99999999999",
        "t,a|b|c,2147483648", "t,a|b|c,12a", "t,a|b|c, 5", "t,a|b|c,5 ", "t,a|b|c,,5",
        "t,a|b|c,\\5", "t,a|b|c,5\\,6"}) {
    const auto out = parse(text);
    ASSERT_TRUE(out.has_value()) << text;
    EXPECT_EQ(out->max_res, MAX_ROWS) << text;
  }
}

TEST_F(QueryInputTest, MaximumAboveZeroStandsEvenAboveTheTablesLimit) {
  expect_fields("t,a|b|c,5", OP_SELECT, {"a", "b", "c"}, 5);
  expect_fields("t,a|b|c,1", OP_SELECT, {"a", "b", "c"}, 1);
  expect_fields("t,a|b|c,500", OP_SELECT, {"a", "b", "c"}, 500);
  expect_fields("t,a|b|c,+7", OP_SELECT, {"a", "b", "c"}, 7);
  expect_fields("t,a|b|c,2147483647", OP_SELECT, {"a", "b", "c"}, 2147483647);
}

TEST_F(QueryInputTest, MaximumOfZeroOrBelowIsRefused) {
  for (const char *text : {"t,a|b|c,0", "t,a|b|c,-3", "t,a|b|c,+", "t,a|b|c,-", "t,a|b|c,-0",
                           "t,a|b|c,-2147483648", "t,a|b|c,000"})
    expect_refused(text, OP_SELECT, BAD_MAXIMUM);
}

TEST_F(QueryInputTest, LoneBackslashBehindTheMaximumIsDroppedWithAWarning) {
  const auto out = parse("t,a|b|c,\\");
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->max_res, MAX_ROWS);
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
  const auto behind_number = parse("t,a|b|c,5\\");
  ASSERT_TRUE(behind_number.has_value());
  EXPECT_EQ(behind_number->max_res, 5);
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
}

TEST_F(QueryInputTest, WhatFollowsAFurtherCommaIsNeverLookedAt) {
  expect_fields("t,a|b|c,5,whatever|\\", OP_SELECT, {"a", "b", "c"}, 5);
  expect_fields("t,a|b|c,,0", OP_SELECT, {"a", "b", "c"}, MAX_ROWS);
}

TEST_F(QueryInputTest, EmptyAndWildcardFieldsStayDifferent) {
  expect_fields("t,a|*|,5", OP_SELECT, {"a", std::nullopt, ""}, 5);
  expect_fields("t,*|*|*,", OP_SELECT, {std::nullopt, std::nullopt, std::nullopt}, MAX_ROWS);
}

TEST_F(QueryInputTest, QueryWithoutACommaHasNoFieldList) {
  expect_refused("t", OP_SELECT, NO_LIST);
  expect_refused("", OP_SELECT, NO_LIST);
  expect_refused("t", OP_INSERT, NO_LIST);
  expect_refused("t\\,a|b|c", OP_SELECT, NO_LIST);
}

TEST_F(QueryInputTest, UnknownTableWithoutACommaReportsTheMissingList) {
  expect_refused("nothere", OP_SELECT, NO_LIST);
}

TEST_F(QueryInputTest, UnknownTableIsReportedByTheLookUpAndTheParser) {
  expect_refused("nothere,a|b|c", OP_SELECT, not_found("nothere"), NO_TABLE);
  EXPECT_EQ(last_name, "nothere");
  expect_refused("T,a|b|c", OP_SELECT, not_found("T"), NO_TABLE);
  expect_refused(" t,a|b|c", OP_SELECT, not_found(" t"), NO_TABLE);
  expect_refused("t ,a|b|c", OP_INSERT, not_found("t "), NO_TABLE);
}

TEST_F(QueryInputTest, UnknownTableIsReportedBeforeItsFields) {
  expect_refused("nothere,a", OP_INSERT, not_found("nothere"), NO_TABLE);
}

TEST_F(QueryInputTest, EmptyTableNameIsATableThatIsNotFound) {
  expect_refused(",a|b|c", OP_SELECT, not_found(""), NO_TABLE);
}

TEST_F(QueryInputTest, EmptyTableNameLeavesTheNameThatTheCallerHad) {
  char name[TARN_NAME_SIZE] = "t";
  char text[] = ",a|b|c";
  query_in in;
  ASSERT_TRUE(tarn_memdb_parse_input({text, 6}, OP_SELECT, &in, name));
  EXPECT_EQ(in.table, table);
  EXPECT_STREQ(name, "t");
  query_in_reset(&in);
}

TEST_F(QueryInputTest, RegistryThatIsMissingIsAnUnknownTable) {
  tarn_tbl_mngt = nullptr;
  expect_refused("t,a|b|c", OP_SELECT, message{L_ERR, "tarn_tbl_mngt undefined.\n"}, NO_TABLE);
}

TEST_F(QueryInputTest, NameOf31CharactersIsFound) {
  const std::string longest(TARN_NAME_SIZE - 1, 'n');
  const tarn_tbl *const named = add_table(longest, {"a"});
  const auto out = parse(longest + ",x");
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->table, named);
  EXPECT_EQ(out->name, longest);
}

TEST_F(QueryInputTest, NameOf32CharactersIsNotCutDownToOneThatExists) {
  const std::string longest(TARN_NAME_SIZE - 1, 'n');
  add_table(longest, {"a"});
  expect_refused(longest + "n,x", OP_SELECT, not_found(longest + "n"), NO_TABLE);
  EXPECT_EQ(last_name, longest);
  expect_refused(std::string(5000, 'n') + ",x", OP_INSERT, not_found(std::string(5000, 'n')),
                 NO_TABLE);
  EXPECT_EQ(last_name, longest);
}

TEST_F(QueryInputTest, NameEndsAtTheFirstCommaAndTheWalkAtTheFirstUnescapedOne) {
  const tarn_tbl *const odd = add_table("a\\", {"x", "y"});
  const auto out = parse("a\\,b,c|d");
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->table, odd);
  EXPECT_EQ(out->name, "a\\");
  EXPECT_EQ(out->fields, (field_values{"c", "d"}));
}

TEST_F(QueryInputTest, NameEndsAtAZeroByteWhichTheWalkPasses) {
  const auto out = parse(std::string("t\0x,a|b|c", 9));
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->name, "t");
  EXPECT_EQ(out->fields, (field_values{"a", "b", "c"}));
}

TEST_F(QueryInputTest, WrongCountNamesTheQueryAndTheRest) {
  expect_refused("t,", OP_SELECT, SIZE_MISMATCH, wrong_count("t,", "(null)"));
  expect_refused("t,a|b", OP_SELECT, SIZE_MISMATCH, wrong_count("t,a|b", "(null)"));
  expect_refused("t,a|b|c|d,5,x", OP_SELECT, SIZE_MISMATCH, wrong_count("t,a|b|c|d,5,x", "5,x"));
  expect_refused("t,a,b|c", OP_DELETE, SIZE_MISMATCH, wrong_count("t,a,b|c", "b|c"));
  expect_refused("t,a|b,", OP_SELECT, SIZE_MISMATCH, wrong_count("t,a|b,", ""));
}

TEST_F(QueryInputTest, MemoryFailureIsReportedAsAWrongCount) {
  standin::fail_at(pool::pkg, 1);
  expect_refused("t,a|b|c,5", OP_SELECT, message{L_CRIT, "no more pkg memory\n"},
                 wrong_count("t,a|b|c,5", "5"));
  standin::fail_at(pool::pkg, 1);
  expect_refused("t,a|b|c", OP_INSERT, message{L_CRIT, "no more pkg memory\n"},
                 wrong_count("t,a|b|c", "(null)"));
}

TEST_F(QueryInputTest, WrongCountIsReportedBeforeTheMaximum) {
  expect_refused("t,a|b,0", OP_SELECT, SIZE_MISMATCH, wrong_count("t,a|b,0", "0"));
}

TEST_F(QueryInputTest, LoneBackslashInTheListWarnsInBothWalksAndMakesAFieldTooMany) {
  // The list itself has lost its backslash to the walk that cut it out of the query.
  const auto out = parse("t,a|b|c\\");
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->fields, (field_values{"a", "b", "c"}));
  EXPECT_EQ(out->max_res, MAX_ROWS);
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
}

TEST_F(QueryInputTest, OneColumnTakesAnEmptyField) {
  expect_fields("single,", OP_SELECT, {""}, 7);
  expect_fields("single,", OP_DELETE, {""}, 7);
  expect_refused("single,", OP_INSERT, EMPTY_INSERT);
  expect_refused("single,*", OP_INSERT, WILDCARD_IN_INSERT);
}

TEST_F(QueryInputTest, InsertTakesCommasAsText) {
  expect_fields("t,alice|x,y|1", OP_INSERT, {"alice", "x,y", "1"}, MAX_ROWS);
  expect_fields("t,a|b|c,5", OP_INSERT, {"a", "b", "c,5"}, MAX_ROWS);
  expect_fields("t,a|b|,", OP_INSERT, {"a", "b", ","}, MAX_ROWS);
  expect_fields("t,a|b|c\\,5", OP_INSERT, {"a", "b", "c,5"}, MAX_ROWS);
}

TEST_F(QueryInputTest, InsertNeedsOneFieldThatIsNotEmpty) {
  expect_fields("t,a||c", OP_INSERT, {"a", "", "c"}, MAX_ROWS);
  expect_fields("t,||c", OP_INSERT, {"", "", "c"}, MAX_ROWS);
  expect_refused("t,||", OP_INSERT, EMPTY_INSERT);
}

TEST_F(QueryInputTest, InsertRefusesAWildcardInAnyColumn) {
  for (const char *text : {"t,*|b|c", "t,a|*|c", "t,a|b|*", "t,*|*|*", "t,||*"})
    expect_refused(text, OP_INSERT, WILDCARD_IN_INSERT);
  expect_fields("t,\\*|a*|**", OP_INSERT, {"*", "a*", "**"}, MAX_ROWS);
}

TEST_F(QueryInputTest, InsertChecksTheCountBeforeWildcardsAndEmptyFields) {
  expect_refused("t,*|*", OP_INSERT, SIZE_MISMATCH, wrong_count("t,*|*", "(null)"));
  expect_refused("t,|", OP_INSERT, SIZE_MISMATCH, wrong_count("t,|", "(null)"));
}

TEST_F(QueryInputTest, InsertRefusesALoneClosingBackslash) {
  expect_refused("t,a|b|c\\", OP_INSERT, ESCAPE_WARNING, BAD_INSERT);
}

TEST_F(QueryInputTest, InsertChecksWildcardsAndEmptyFieldsBeforeItsForm) {
  expect_refused("t,a|b|*\\", OP_INSERT, ESCAPE_WARNING, WILDCARD_IN_INSERT);
  expect_refused("t,||\\", OP_INSERT, ESCAPE_WARNING, EMPTY_INSERT);
}

TEST_F(QueryInputTest, InsertRefusesAZeroByte) {
  expect_refused(std::string("t,a|b|c\0d", 9), OP_INSERT, BAD_INSERT);
}

TEST_F(QueryInputTest, SelectTakesAZeroByteAsPartOfAField) {
  expect_fields(std::string("t,a|b|c\0d", 9), OP_SELECT, {"a", "b", "c"}, MAX_ROWS);
}

TEST_F(QueryInputTest, ParseCostsOneAllocation) {
  standin::reset_allocation_count();
  EXPECT_TRUE(parse("t,a|b|c,5").has_value());
  EXPECT_EQ(standin::allocation_count(pool::both), 1u);
}

TEST_F(QueryInputTest, ValuesOutliveTheQuery) {
  exact_text text(std::string("t,alice|*|rome,5") + '\0');
  char name[TARN_NAME_SIZE] = "";
  query_in in;
  ASSERT_TRUE(tarn_memdb_parse_input({text.get().s, text.get().len - 1}, OP_SELECT, &in, name));
  text.overwrite();
  EXPECT_EQ(values_of(in.flds, 3), (field_values{"alice", std::nullopt, "rome"}));
  EXPECT_STREQ(name, "t");
  query_in_reset(&in);
}

TEST_F(QueryInputTest, ParseChangesNothingInTheTable) {
  const tarn_tbl before = *table;
  parse("t,a|b|c", OP_INSERT);
  parse("t,a|b|c,0");
  EXPECT_EQ(memcmp(&before, table, sizeof(before)), 0);
  EXPECT_EQ(table->tbl->first, nullptr);
}

TEST_F(QueryInputTest, TableOfNoColumnsTakesNoQuery) {
  add_table("bare", {});
  expect_refused("bare,", OP_SELECT, SIZE_MISMATCH, wrong_count("bare,", "(null)"));
}

TEST_F(QueryInputTest, ResetOfAClearedRecordDoesNothing) {
  query_in in{};
  query_in_reset(&in);
  query_in_reset(&in);
  EXPECT_THAT(standin::memory_errors(), IsEmpty());
}

TEST_F(QueryInputTest, ScopeReleasesAtItsEndWhateverTheParserSaid) {
  char name[TARN_NAME_SIZE] = "";
  std::string good = "t,a|b|c", bad = "t,a|b|c,0";
  {
    query_scope in;
    EXPECT_TRUE(tarn_memdb_parse_input({good.data(), 7}, OP_SELECT, &in, name));
    EXPECT_EQ(standin::live_count(pool::pkg), 1u);
  }
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);
  {
    query_scope in;
    EXPECT_FALSE(tarn_memdb_parse_input({bad.data(), 9}, OP_SELECT, &in, name));
  }
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);
}

TEST_F(QueryInputTest, ParserTakesNoLockAndNoSharedMemory) {
  // A lock that is held for good would stop the test here.
  table->lock = generate_lock();
  take_lock(table->lock);
  standin::reset_allocation_count();
  EXPECT_TRUE(parse("t,a|b|c").has_value());
  EXPECT_EQ(standin::allocation_count(pool::shm), 0u);
  tarn_shm_free(table->lock);
  table->lock = nullptr;
}

}  // namespace
