// The scanner of statements: each routine's result, its messages, and what it leaves when memory is
// short.
#include "query/statement_scanner.h"

#include "tests/unit/query/query_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

message err(const std::string &text) { return {L_ERR, text}; }

class StatementScannerTest : public QueryLanguageTest {
 protected:
  void SetUp() override {
    QueryLanguageTest::SetUp();
    table = add_table("t", {"a", "b", "c"});
    standin::clear_logs();
  }

  // A terminated text with no byte behind it, that lives as long as the test.
  const char *text(const std::string &of) {
    return kept_.emplace_back(std::make_unique<exact_text>(of + '\0'))->get().s;
  }

  // Where a step leads, as the text that is left there; nothing for null.
  static std::optional<std::string> rest(const char *at) {
    return at != nullptr ? std::optional<std::string>(at) : std::nullopt;
  }

  std::optional<std::string> table_name(const std::string &of) {
    standin::clear_logs();
    const pkg_owner<char> name(get_table_name_from_query(text(of)));
    return rest(name.get());
  }

  std::optional<std::vector<std::string>> fields(const std::string &of) {
    standin::clear_logs();
    int32_t count = -1;
    const pkg_owner<char *> names(get_fields_name(text(of), table, &count));
    if (!names) return std::nullopt;
    return std::vector<std::string>(names.get(), names.get() + count);
  }

  std::optional<std::vector<int32_t>> positions(std::vector<std::string> names) {
    standin::clear_logs();
    std::vector<char *> list;
    for (std::string &name : names) list.push_back(name.data());
    const auto count = static_cast<int32_t>(list.size());
    const pkg_owner<int32_t> found(validate_field_list(list.data(), table, count));
    if (!found) return std::nullopt;
    return std::vector<int32_t>(found.get(), found.get() + count);
  }

  std::optional<field_values> values(const std::string &of, const std::vector<int32_t> &columns) {
    standin::clear_logs();
    const pkg_owner<char *> list(
        generate_value_list(text(of), table, columns.data(), static_cast<int32_t>(columns.size())));
    if (!list) return std::nullopt;
    return values_of(list.get(), table->tbl->col_cnt);
  }

  std::optional<field_values> pairs(const std::string &of) {
    standin::clear_logs();
    pkg_owner<char> texts;
    const pkg_owner<char *> list(generate_value_list2(text(of), table, &texts));
    EXPECT_EQ(static_cast<bool>(list), static_cast<bool>(texts));
    if (!list) return std::nullopt;
    return values_of(list.get(), table->tbl->col_cnt);
  }

  const tarn_tbl *table = nullptr;

 private:
  std::deque<std::unique_ptr<exact_text>> kept_;
};

TEST_F(StatementScannerTest, BlanksAreSkippedAndNothingElse) {
  EXPECT_EQ(rest(skip_white_spaces(text("  a b"))), "a b");
  EXPECT_EQ(rest(skip_white_spaces(text("a"))), "a");
  EXPECT_EQ(rest(skip_white_spaces(text(" \ta"))), "\ta");
  EXPECT_EQ(rest(skip_white_spaces(text("\na"))), "\na");
  EXPECT_EQ(rest(skip_white_spaces(text(""))), std::nullopt);
  EXPECT_EQ(rest(skip_white_spaces(text("   "))), std::nullopt);
  EXPECT_THAT(standin::log_texts(), IsEmpty());
}

TEST_F(StatementScannerTest, NextBlankIsTheOneAtOrBehindThePosition) {
  EXPECT_EQ(rest(go_to_next_white_space(text("ab c"))), " c");
  EXPECT_EQ(rest(go_to_next_white_space(text(" ab"))), " ab");
  EXPECT_EQ(rest(go_to_next_white_space(text("a\tb"))), std::nullopt);
  EXPECT_EQ(rest(go_to_next_white_space(text(""))), std::nullopt);
  EXPECT_THAT(standin::log_texts(), IsEmpty());
}

TEST_F(StatementScannerTest, NullPositionIsToldAtDebug) {
  EXPECT_EQ(skip_white_spaces(nullptr), nullptr);
  EXPECT_EQ(go_to_next_white_space(nullptr), nullptr);
  EXPECT_THAT(standin::log_texts(L_DBG),
              ElementsAre("NULL value for str_q\n", "NULL value for str_q\n"));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, TokenIsAPrefixAndTheBlanksBehindItAreSkipped) {
  EXPECT_EQ(rest(look_for_token(text("  INSERT   INTO t"), "INSERT")), "INTO t");
  EXPECT_EQ(rest(look_for_token(text("INSERTINTO t"), "INSERT")), "INTO t");
  EXPECT_EQ(rest(look_for_token(text("WHEREa=1"), "WHERE")), "a=1");
  EXPECT_THAT(standin::log_texts(), IsEmpty());
}

TEST_F(StatementScannerTest, TokenThatEndsTheTextGivesNullWithoutAMessage) {
  EXPECT_EQ(look_for_token(text("DELETE"), "DELETE"), nullptr);
  EXPECT_EQ(look_for_token(text(" DELETE   "), "DELETE"), nullptr);
  EXPECT_THAT(standin::log_texts(), IsEmpty());
}

TEST_F(StatementScannerTest, OtherWordInATokensPlaceIsAnError) {
  for (const char *other : {"insert INTO", "INSER", "X INSERT", "\tINSERT"}) {
    standin::clear_logs();
    EXPECT_EQ(look_for_token(text(other), "INSERT"), nullptr) << other;
    EXPECT_THAT(messages(), ElementsAre(err("Could not find token 'INSERT'\n"))) << other;
  }
}

TEST_F(StatementScannerTest, EndInATokensPlaceIsAnError) {
  const message end = err("End of string reached before finding token 'WHERE'\n");
  for (const char *at : {text(""), text("   "), static_cast<const char *>(nullptr)}) {
    standin::clear_logs();
    EXPECT_EQ(look_for_token(at, "WHERE"), nullptr);
    EXPECT_THAT(messages(), ElementsAre(end));
  }
}

TEST_F(StatementScannerTest, TableNameEndsAtABlankOrTheEnd) {
  EXPECT_EQ(table_name(" users name"), "users");
  EXPECT_EQ(table_name("users"), "users");
  EXPECT_EQ(table_name("a,b=c\td e"), "a,b=c\td");
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, TableNameOf31CharactersIsTheLongest) {
  EXPECT_EQ(table_name(std::string(31, 'n') + " x"), std::string(31, 'n'));
  for (const size_t size : {32u, 33u, 5000u}) {
    EXPECT_EQ(table_name(std::string(size, 'n') + " x"), std::nullopt);
    EXPECT_THAT(messages(), IsEmpty()) << "refused without a word";
  }
}

TEST_F(StatementScannerTest, MissingTableNameIsAnError) {
  EXPECT_EQ(table_name("  "), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("End of string reached before finding table name\n")));
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(table_name("t"), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("Could not allocate memory for tbl_name\n")));
}

using names = std::vector<std::string>;

TEST_F(StatementScannerTest, FieldNamesEndAtACommaABlankOrTheEnd) {
  EXPECT_EQ(fields("a"), (names{"a"}));
  EXPECT_EQ(fields("  a,b VALUES"), (names{"a", "b"}));
  EXPECT_EQ(fields("b=1,x"), (names{"b=1", "x"}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, OneCommaAheadOfANameIsSteppedOver) {
  EXPECT_EQ(fields(",a"), (names{"a"}));
  EXPECT_EQ(fields(",,"), (names{"", ""}));
  EXPECT_EQ(fields("a,"), (names{"a", ""}));
}

TEST_F(StatementScannerTest, NamesOfAnyLengthAreReadWhole) {
  const std::string longest(4000, 'n');
  EXPECT_EQ(fields(longest + ",b x"), (names{longest, "b"}));
}

TEST_F(StatementScannerTest, ListOfAsManyNamesAsColumnsIsRefused) {
  for (const char *list : {"a,b,c", "a,b,c,d", "a,,b", "x,y,z FROM"}) {
    EXPECT_EQ(fields(list), std::nullopt) << list;
    EXPECT_THAT(messages(), ElementsAre(err("Wrong number of fields (3) for table 't' (3)\n")));
  }
}

TEST_F(StatementScannerTest, MissingFieldListIsAnError) {
  EXPECT_EQ(fields("  "), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("End of string reached before finding fields name\n")));
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(fields("a"), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("Could not allocate memory for field_list\n")));
}

TEST_F(StatementScannerTest, NamesBecomeTheirColumns) {
  EXPECT_EQ(positions({"c", "a"}), (std::vector<int32_t>{2, 0}));
  EXPECT_EQ(positions({"b", "b", "b", "b"}), (std::vector<int32_t>{1, 1, 1, 1}));
  EXPECT_EQ(positions({}), (std::vector<int32_t>{}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, FirstOfTwoColumnsWithOneNameIsMeant) {
  table = add_table("twins", {"a", "x", "x"});
  EXPECT_EQ(positions({"x"}), (std::vector<int32_t>{1}));
}

TEST_F(StatementScannerTest, UnknownNameIsAnError) {
  for (const char *name : {"d", "A", "", "ab", " a"}) {
    EXPECT_EQ(positions({"a", name, "b"}), std::nullopt) << name;
    EXPECT_THAT(messages(), ElementsAre(err("Table 't' does not have a field named '" +
                                            std::string(name) + "'\n")));
  }
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(positions({"a"}), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("Could not allocate memory for field_pos\n")));
}

TEST_F(StatementScannerTest, ValuesGoToTheirColumnsAndOthersAreEmpty) {
  EXPECT_EQ(values("1,2", {0, 2}), (field_values{"1", "", "2"}));
  EXPECT_EQ(values("1,2", {2, 0}), (field_values{"2", "", "1"}));
  EXPECT_EQ(values("1,2,3", {0, 1}), (field_values{"1", "2", ""}));
  EXPECT_EQ(values("1,2 3", {0, 1}), (field_values{"1", "2", ""}));
  EXPECT_EQ(values("x", {}), (field_values{"", "", ""}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, EmptyValuesAreValues) {
  EXPECT_EQ(values("1,,", {0, 1}), (field_values{"1", "", ""}));
  EXPECT_EQ(values(",1", {0}), (field_values{"1", "", ""}));
}

TEST_F(StatementScannerTest, QuotesAndEscapesAreOrdinaryInAnInsert) {
  EXPECT_EQ(values("'',\\,x", {0, 1}), (field_values{"''", "\\", ""}));
  EXPECT_EQ(values("a|b,*", {0, 1}), (field_values{"a|b", "*", ""}));
}

TEST_F(StatementScannerTest, LaterOfTwoValuesForOneColumnStays) {
  EXPECT_EQ(values("1,2", {1, 1}), (field_values{"", "2", ""}));
  const std::string longest(1000, 'v');
  EXPECT_EQ(values(longest + ",2", {1, 1}), (field_values{"", "2", ""}));
  EXPECT_EQ(values("2," + longest, {1, 1}), (field_values{"", longest, ""}));
}

TEST_F(StatementScannerTest, FewerValuesThanNamesAreAnError) {
  for (const auto &[list, found] : {std::pair("1", 1), std::pair("1 2", 1), std::pair("", 0)}) {
    EXPECT_EQ(values(list, {0, 1}), std::nullopt) << list;
    EXPECT_THAT(messages(), ElementsAre(err("Number of values (" + std::to_string(found) +
                                            ") does not match number of fields (2)\n")));
  }
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(values("1", {0}), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("Could not allocate memory for field_value\n")));
}

TEST_F(StatementScannerTest, ValuesOfAnyLengthAreReadWhole) {
  for (const size_t size : {255u, 256u, 257u, 4000u}) {
    const std::string value(size, 'v');
    EXPECT_EQ(values(value + "," + value, {0, 2}), (field_values{value, "", value}));
  }
}

TEST_F(StatementScannerTest, TextOfTheFirstColumnHasRoomForAnIndex) {
  for (const auto &[list, columns] : {std::pair(std::string("1"), std::vector<int32_t>{1}),
                                      std::pair(std::string("1"), std::vector<int32_t>{0}),
                                      std::pair(std::string(300, 'v'), std::vector<int32_t>{0})}) {
    const pkg_owner<char *> made(generate_value_list(text(list), table, columns.data(), 1));
    ASSERT_TRUE(made);
    const std::string second = made[1];
    memset(made[0], '9', 256);
    EXPECT_EQ(made[1], second) << "the next column's text is another one";
  }
}

TEST_F(StatementScannerTest, PairsGoToTheirColumnsAndOthersAreWildcards) {
  EXPECT_EQ(pairs("c=3,a=1"), (field_values{"1", std::nullopt, "3"}));
  EXPECT_EQ(pairs("b=2 MAX=1"), (field_values{std::nullopt, "2", std::nullopt}));
  EXPECT_EQ(pairs("a=x=y"), (field_values{"x=y", std::nullopt, std::nullopt}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, EmptyTextIsWrittenInTwoWays) {
  EXPECT_EQ(pairs("a='',b=2"), (field_values{"", "2", std::nullopt}));
  EXPECT_EQ(pairs("a=,b=2"), (field_values{"", "2", std::nullopt}));
  EXPECT_EQ(pairs("b=2,a="), (field_values{"", "2", std::nullopt}));
}

TEST_F(StatementScannerTest, LaterOfTwoPairsForOneColumnWins) {
  EXPECT_EQ(pairs("a=1,a=2"), (field_values{"2", std::nullopt, std::nullopt}));
}

TEST_F(StatementScannerTest, PairsBeyondTheNumberOfColumnsAreNotRead) {
  EXPECT_EQ(pairs("a=1,a=2,b=3,nothere='x"), (field_values{"2", "3", std::nullopt}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, QuoteThatIsNoEmptyTextIsAnError) {
  for (const char *list : {"a='x'", "a='", "b=1,a='x"}) {
    EXPECT_EQ(pairs(list), std::nullopt) << list;
    EXPECT_THAT(messages(),
                ElementsAre(err("Ilegal sintax for empty string. It should be: field_name=''\n")));
  }
}

TEST_F(StatementScannerTest, QuoteBehindTheFirstCharacterIsOrdinary) {
  EXPECT_EQ(pairs("a=x''"), (field_values{"x''", std::nullopt, std::nullopt}));
}

TEST_F(StatementScannerTest, UnknownNameInAPairIsToldTwice) {
  EXPECT_EQ(pairs("d=1"), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(err("Table 't' does not have a field named 'd'\n"),
                                      err("NULL value for field_pos\n")));
}

TEST_F(StatementScannerTest, NameAtTheVeryEndEndsTheListWithAnEmptyText) {
  EXPECT_EQ(pairs("a"), (field_values{"", std::nullopt, std::nullopt}));
  EXPECT_EQ(pairs("b=1,a"), (field_values{"", "1", std::nullopt}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, BlankInPlaceOfTheEqualsSignIsSteppedOver) {
  EXPECT_EQ(pairs("a 1"), (field_values{"1", std::nullopt, std::nullopt}));
}

TEST_F(StatementScannerTest, NoPairsAtAllAreWildcardsOnly) {
  EXPECT_EQ(pairs(""), (field_values{std::nullopt, std::nullopt, std::nullopt}));
  EXPECT_EQ(pairs(" a=1"), (field_values{std::nullopt, std::nullopt, std::nullopt}));
}

TEST_F(StatementScannerTest, ValueOf31CharactersIsTheLongestThatStandsBesideAnother) {
  const std::string fits(31, 'v');
  EXPECT_EQ(pairs("a=" + fits + ",b=2"), (field_values{fits, "2", std::nullopt}));
}

TEST_F(StatementScannerTest, LongerValueLosesItsTailToTheNextPair) {
  const std::string head(32, 'v');
  EXPECT_EQ(pairs("a=" + head + "tail,b=2"), (field_values{head + "2", "2", std::nullopt}));
  EXPECT_EQ(pairs("a=" + head + "tail,b="), (field_values{head, "", std::nullopt}));
  EXPECT_EQ(pairs("a=" + head + "tail"), (field_values{head + "tail", std::nullopt, std::nullopt}))
      << "the last value of a list stays whole";
}

TEST_F(StatementScannerTest, ValueOf256CharactersFitsInEverySlot) {
  const std::string longest(256, 'v');
  EXPECT_EQ(pairs("a=" + longest), (field_values{longest, std::nullopt, std::nullopt}));
  EXPECT_EQ(pairs("a=1,b=2,c=" + longest), (field_values{"1", "2", longest}));
  table = add_table("single", {"a"});
  EXPECT_EQ(pairs("a=" + longest), (field_values{longest}));
}

TEST_F(StatementScannerTest, LongNamesAreReadWholeAndUnknown) {
  const std::string longest(1000, 'n');
  EXPECT_EQ(pairs(longest + "=1"), std::nullopt);
  EXPECT_THAT(messages(),
              ElementsAre(err("Table 't' does not have a field named '" + longest + "'\n"),
                          err("NULL value for field_pos\n")));
}

TEST_F(StatementScannerTest, EachAllocationOfAPairListFailsOnceAndNothingLeaks) {
  const std::vector<std::vector<message>> expected = {
      {err("Could not allocate memory for field_list\n")},
      {err("Could not allocate memory for field_value_f\n")},
      {err("Could not allocate memory for field_value\n")},
      {err("Could not allocate memory for field_pos\n"), err("NULL value for field_pos\n")}};
  for (size_t n = 1; n <= expected.size(); ++n) {
    standin::fail_at(pool::pkg, n);
    EXPECT_EQ(pairs("a=1"), std::nullopt) << n;
    EXPECT_EQ(messages(), expected[n - 1]) << n;
    EXPECT_EQ(standin::leak_report(pool::pkg), "") << n;
  }
  standin::reset_allocation_count();
  EXPECT_TRUE(pairs("a=1").has_value());
  EXPECT_EQ(standin::allocation_count(pool::pkg), expected.size());
}

TEST_F(StatementScannerTest, ScannerTakesNoLockAndNoSharedMemory) {
  auto *const locked = const_cast<tarn_tbl *>(table);
  locked->lock = generate_lock();
  take_lock(locked->lock);
  standin::reset_allocation_count();
  EXPECT_TRUE(fields("a,b").has_value());
  EXPECT_TRUE(values("1", {0}).has_value());
  EXPECT_TRUE(pairs("a=1").has_value());
  EXPECT_EQ(standin::allocation_count(pool::shm), 0u);
  tarn_shm_free(locked->lock);
  locked->lock = nullptr;
}

}  // namespace
