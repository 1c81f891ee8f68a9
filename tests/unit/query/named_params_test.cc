// Named lists rewritten into positional ones, on hosts that chain items in either order.
#include "query/named_params.h"

#include "tests/unit/query/query_fixture.h"

void PrintTo(conversion outcome, std::ostream *out) {
  *out << (outcome == conversion::failed      ? "failed"
           : outcome == conversion::converted ? "converted"
                                              : "positional");
}

namespace {

using standin::params_order;
using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

message invalid(const std::string &list) {
  return {L_ERR, "Invalid formatted values [" + list + "]\n"};
}
message unknown(const std::string &name, const std::string &table) {
  return {L_ERR, "Parameter [" + name + "] not found in the table [" + table + "]\n"};
}
message converted_to(const std::string &list) {
  return {L_INFO, "Query list after conversion [" + list + "]\n"};
}
const message NO_MEMORY{L_ERR, "Could not allocate memory for query list\n"};
const message NO_ROOM{L_ERR, "Buffer not enough for query list\n"};

class NamedParamsTest : public QueryLanguageTest, public testing::WithParamInterface<params_order> {
 protected:
  void SetUp() override {
    QueryLanguageTest::SetUp();
    standin::set_params_order(GetParam());
    use(add_table("tbl", {"a", "b", "c"}));
  }

  void use(const tarn_tbl *table) { table_ = table; }

  // Runs the conversion on a text without a spare byte. What it made is freed again.
  conversion convert(const std::string &text, const char *tail = nullptr) {
    standin::clear_logs();
    standin::reset_calls();
    const exact_text source(text);
    str list = source.get();
    const conversion outcome = tarn_memdb_convert_query_param_list(&list, table_, tail);
    result = "(none)";
    if (outcome == conversion::positional) {
      EXPECT_EQ(list.s, source.get().s);
      EXPECT_EQ(list.len, source.get().len);
    }
    if (outcome == conversion::converted) {
      const auto blocks = standin::live_blocks(pool::pkg);
      EXPECT_EQ(blocks.size(), 1u);
      EXPECT_EQ(blocks.at(0).address, list.s);
      EXPECT_EQ(list.s[list.len], '\0');
      EXPECT_EQ(strlen(list.s), static_cast<size_t>(list.len));
      result = string_of(list);
      pkg_free_block(list.s);
    }
    EXPECT_EQ(standin::leak_report(pool::pkg), "") << text;
    return outcome;
  }

  void expect_converted(const std::string &text, const char *tail, const std::string &expected) {
    EXPECT_EQ(convert(text, tail), conversion::converted) << text << "\n" << standin::log_dump();
    EXPECT_EQ(result, expected) << text;
    EXPECT_THAT(messages(), ElementsAre(converted_to(expected))) << text;
    EXPECT_TRUE(standin::logged(L_DBG, "Before conversionL [" + text + "]\n")) << text;
  }

  void expect_positional(const std::string &text) {
    EXPECT_EQ(convert(text), conversion::positional) << text;
    EXPECT_EQ(convert(text, "10"), conversion::positional) << text;
    EXPECT_THAT(standin::log_texts(), ElementsAre("Before conversionL [" + text + "]\n"));
    EXPECT_EQ(standin::calls("parse_params"), 0);
  }

  template <typename... Messages>
  void expect_failed(const std::string &text, const Messages &...expected) {
    EXPECT_EQ(convert(text), conversion::failed) << text;
    EXPECT_THAT(messages(), ElementsAre(expected...)) << text;
  }

  static void pkg_free_block(char *block) {
    _pkg_root.xfree(_pkg_root.mem_block, block, __FILE__, __func__, __LINE__, "test");
  }

  std::string result;
  const tarn_tbl *table_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(BothHosts, NamedParamsTest,
                         testing::Values(params_order::reversed, params_order::forward),
                         [](const auto &order) {
                           return order.param == params_order::forward ? "ForwardChain"
                                                                       : "ReversedChain";
                         });

TEST_P(NamedParamsTest, ItemsGoToTheirColumnsAndOthersBecomeWildcards) {
  expect_converted("a=1;c=3", nullptr, "1|*|3");
  expect_converted("c=3;a=1", nullptr, "1|*|3");
  expect_converted("b=2", nullptr, "*|2|*");
  expect_converted("c=3;b=2;a=1", nullptr, "1|2|3");
}

TEST_P(NamedParamsTest, OneClosingSemicolonIsDropped) {
  expect_converted("a=1;", nullptr, "1|*|*");
  expect_failed("a=1;;", invalid("a=1;"));
}

TEST_P(NamedParamsTest, EmptyBodyIsAnEmptyFieldAndNoWildcard) {
  expect_converted("a='';b=2", nullptr, "|2|*");
  expect_converted("a;b=2", nullptr, "|2|*");
  expect_converted("b=2;c=", nullptr, "*|2|");
}

TEST_P(NamedParamsTest, OfSeveralItemsWithOneNameTheFirstWrittenWins) {
  expect_converted("a=1;a=2", nullptr, "1|*|*");
  expect_converted("a=1;b=5;a=22;b=6;a=333", nullptr, "1|5|*");
  expect_converted("a='';a=2", nullptr, "|*|*");
}

TEST_P(NamedParamsTest, StarAsAValueStaysAStar) { expect_converted("b=*", nullptr, "*|*|*"); }

TEST_P(NamedParamsTest, ValuesAreCopiedByteForByte) {
  expect_converted("a=x\\ny;b=p\\\\q;c='r;s = t'", nullptr, "x\\ny|p\\\\q|r;s = t");
  expect_converted("a='x\\,y'", nullptr, "x\\,y|*|*");
  expect_converted("a=\"don't\";b=$var(x)", nullptr, "don't|$var(x)|*");
}

TEST_P(NamedParamsTest, QuotesAndBlanksAreTheHostsToStrip) {
  expect_converted("a = '1' ; \tb=\"2\"", nullptr, "1|2|*");
}

TEST_P(NamedParamsTest, NameThatIsNoColumnIsRefused) {
  expect_failed("d=1", unknown("d", "tbl"));
  EXPECT_EQ(standin::calls("free_params"), 1);
  expect_failed("a=1;d=2;b=3", unknown("d", "tbl"));
  expect_failed("aa=1", unknown("aa", "tbl"));
  expect_failed("=1", unknown("", "tbl"));
}

TEST_P(NamedParamsTest, NamesAreCaseSensitive) { expect_failed("A=1", unknown("A", "tbl")); }

TEST_P(NamedParamsTest, NamesAreComparedWhole) {
  use(add_table("near", {"port", "port_ext"}));
  expect_converted("port_ext=2;port=1", nullptr, "1|2");
  expect_failed("por=1", unknown("por", "near"));
}

TEST_P(NamedParamsTest, FirstUnknownNameInTheHostsOrderIsTheOneTold) {
  expect_failed("x=1;y=2", unknown(GetParam() == params_order::forward ? "x" : "y", "tbl"));
}

TEST_P(NamedParamsTest, PositionalListsAreLeftAlone) {
  for (const char *text : {"1|2|3", "alice", "*", ";", "a=x|y", "a=x\\|y", "|", "=|", "a;b", " "})
    expect_positional(text);
}

TEST_P(NamedParamsTest, EmptyListIsAWildcardInEveryColumn) {
  expect_converted("", nullptr, "*|*|*");
  expect_converted("", "tail", "tbl,*|*|*,tail");
  expect_converted("", "", "tbl,*|*|*,");
  EXPECT_EQ(standin::calls("parse_params"), 0);
}

TEST_P(NamedParamsTest, NullListOfNoLengthIsAnEmptyList) {
  str list{nullptr, 0};
  ASSERT_EQ(tarn_memdb_convert_query_param_list(&list, table_, nullptr), conversion::converted);
  EXPECT_EQ(string_of(list), "*|*|*");
  pkg_free_block(list.s);
}

TEST_P(NamedParamsTest, ListOfNegativeLengthIsAnEmptyList) {
  char text[] = "a=1";
  str list{text, -1};
  ASSERT_EQ(tarn_memdb_convert_query_param_list(&list, table_, nullptr), conversion::converted);
  EXPECT_EQ(string_of(list), "*|*|*");
  pkg_free_block(list.s);
}

TEST_P(NamedParamsTest, TailMakesAWholeQuery) {
  expect_converted("a=1", "10", "tbl,1|*|*,10");
  expect_converted("a=1", "", "tbl,1|*|*,");
  expect_converted("a=1;", "10,rest,of|it", "tbl,1|*|*,10,rest,of|it");
  expect_converted("a=1;b=22;c=333", "10", "tbl,1|22|333,10");
}

TEST_P(NamedParamsTest, OneColumnTakesAnEqualsSignForANamedList) {
  use(add_table("single", {"only"}));
  expect_failed("x=y", unknown("x", "single"));
  expect_converted("only=y", nullptr, "y");
  expect_converted("", nullptr, "*");
}

TEST_P(NamedParamsTest, TableOfNoColumnsGivesAnEmptyList) {
  use(add_table("bare", {}));
  expect_converted("", nullptr, "");
  expect_converted("", "5", "bare,,");  // a tail has its room from the columns' slots
  expect_failed("a=1", unknown("a", "bare"));
}

TEST_P(NamedParamsTest, LongValuesFitWhole) {
  const std::string longest(5000, 'v');
  expect_converted("b=" + longest, "10", "tbl,*|" + longest + "|*,10");
  expect_converted("a=" + longest + ";a=" + longest + ";c=1", nullptr, longest + "|*|1");
}

TEST_P(NamedParamsTest, EveryColumnOfAWideTableFits) {
  std::vector<std::string> columns;
  std::string text, expected;
  for (int i = 0; i < 200; ++i) {
    columns.push_back("col" + std::to_string(i));
    text += columns.back() + "=" + std::to_string(i) + ";";
    expected += (i > 0 ? "|" : "") + std::to_string(i);
  }
  use(add_table("wide", columns));
  expect_converted(text, nullptr, expected);
}

TEST_P(NamedParamsTest, ValueShownInTwoColumnsOfOneNameIsRefusedWhereItHasNoRoom) {
  use(add_table("twins", {"a", "a"}));
  expect_converted("a=1", nullptr, "1|1");
  expect_failed("a=longer", NO_ROOM);
  EXPECT_EQ(standin::calls("free_params"), 1);
}

TEST_P(NamedParamsTest, TailForWhichTwoColumnsOfOneNameLeaveNoRoomIsLeftOut) {
  use(add_table("t", {"a", "a"}));
  expect_converted("a=1", "10", "t,1|1,10");
  expect_converted("a=xx", "10", "t,xx|xx,10");
  expect_converted("a=xxx", "10", "t,xxx|xxx,");
  expect_converted("a=xxxx", "10", "t,xxxx|xxxx,");
  expect_converted("a=xxxxx", "10", "t,xxxxx|xxxxx");
  EXPECT_EQ(convert("a=xxxxxx", "10"), conversion::failed);
  EXPECT_THAT(messages(), ElementsAre(NO_ROOM));
}

TEST_P(NamedParamsTest, TextThatTheHostRefusesIsInvalid) {
  for (const char *text : {"a=1 x", "a='open", "a=;b=1", "=x y"}) {
    expect_failed(text, invalid(text));
    EXPECT_EQ(standin::calls("free_params"), 0) << "the host frees its own chain";
  }
  expect_failed("a='open;", invalid("a='open"));
}

TEST_P(NamedParamsTest, HostCallThatFailsIsAnInvalidList) {
  standin::clear_logs();
  char text[] = "a=1";
  str list{text, 3};
  standin::fail_call("parse_params", 1);
  EXPECT_EQ(tarn_memdb_convert_query_param_list(&list, table_, nullptr), conversion::failed);
  EXPECT_THAT(messages(), ElementsAre(invalid("a=1")));
}

TEST_P(NamedParamsTest, EachAllocationFailsOnceAndNothingLeaks) {
  const std::string text = "a=1;b=2";
  standin::reset_allocation_count();
  ASSERT_EQ(convert(text, "10"), conversion::converted);
  const uint64_t allocations = standin::allocation_count(pool::both);
  ASSERT_EQ(allocations, 3u) << "two items of the host and the result";
  for (uint64_t n = 1; n <= allocations; ++n) {
    standin::fail_at(pool::both, n);
    EXPECT_EQ(convert(text, "10"), conversion::failed) << n;
    EXPECT_THAT(messages(), ElementsAre(n < allocations ? invalid(text) : NO_MEMORY)) << n;
  }
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(convert(""), conversion::failed);
  EXPECT_THAT(messages(), ElementsAre(NO_MEMORY));
  expect_converted(text, nullptr, "1|2|*");
}

TEST_P(NamedParamsTest, TextIsNotChangedByTheConversion) {
  const std::string before = "a='1' ; b=2;";
  std::string text = before;
  str list{text.data(), static_cast<int>(text.size())};
  ASSERT_EQ(tarn_memdb_convert_query_param_list(&list, table_, nullptr), conversion::converted);
  EXPECT_EQ(text, before);
  pkg_free_block(list.s);
}

TEST_P(NamedParamsTest, ResultParsesAsTheQueryThatWasMeant) {
  ASSERT_EQ(convert("c='x\\,y';a=*", "5"), conversion::converted);
  char name[TARN_NAME_SIZE] = "";
  query_scope in;
  ASSERT_TRUE(tarn_memdb_parse_input({result.data(), static_cast<int>(result.size())}, OP_SELECT,
                                     &in, name));
  EXPECT_EQ(values_of(in.flds, 3), (field_values{std::nullopt, std::nullopt, "x,y"}));
  EXPECT_EQ(in.max_res, 5);
}

TEST_P(NamedParamsTest, BareResultIsNoQuery) {
  ASSERT_EQ(convert("a=1"), conversion::converted);
  standin::clear_logs();
  char name[TARN_NAME_SIZE] = "";
  query_scope in;
  EXPECT_FALSE(tarn_memdb_parse_input({result.data(), static_cast<int>(result.size())}, OP_SELECT,
                                      &in, name));
  EXPECT_THAT(messages(), ElementsAre(message{L_ERR, "Field list is missing\n"}));
}

}  // namespace
