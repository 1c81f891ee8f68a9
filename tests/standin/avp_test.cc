#include <gtest/gtest.h>

#include "tests/standin/pv.h"
#include "tests/standin/standin.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

class AvpTest : public testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static int add(const std::string &name, const std::string &text) {
    int_str n, v;
    n.s = str_of(name);
    v.s = str_of(text);
    return add_avp(AVP_NAME_STR | AVP_VAL_STR, n, v);
  }

  static int explode(const std::string &params, const std::string &xavp) {
    str p = str_of(params), x = str_of(xavp);
    return explode_ninth(&p, &x);
  }
};

TEST_F(AvpTest, ANewValueStandsInFrontOfOlderOnes) {
  EXPECT_EQ(add("a", "1"), 0);
  EXPECT_EQ(add("b", "other"), 0);
  EXPECT_EQ(add("a", "2"), 0);
  EXPECT_EQ(avp("a"), (std::vector<value>{"2", "1"}));
  EXPECT_EQ(avp_count(), 3u);
  EXPECT_EQ(avp_names(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(AvpTest, ValuesAreCopied) {
  std::string text = "before";
  add("a", text);
  text = "after!";
  EXPECT_EQ(avp("a"), std::vector<value>{"before"});
}

TEST_F(AvpTest, FlagsTellNumbersFromTextsInNamesAndValues) {
  int_str name, content;
  name.n = 5;
  content.n = 77;
  EXPECT_EQ(add_avp(0, name, content), 0);
  EXPECT_EQ(avp(5), std::vector<value>{77});
  content.s = str_of("");
  EXPECT_EQ(add_avp(AVP_VAL_STR, name, content), 0);
  EXPECT_EQ(avp(5), (std::vector<value>{"", 77}));
  name.s = str_of("n");
  content.n = 8;
  EXPECT_EQ(add_avp(AVP_NAME_STR, name, content), 0);
  EXPECT_EQ(avp("n"), std::vector<value>{8});
}

TEST_F(AvpTest, EmptyNamesAreRefused) {
  int_str name, content;
  content.n = 1;
  name.n = 0;
  EXPECT_LT(add_avp(0, name, content), 0);
  name.s = str_of("");
  EXPECT_LT(add_avp(AVP_NAME_STR, name, content), 0);
  name.s = {nullptr, 0};
  EXPECT_LT(add_avp(AVP_NAME_STR, name, content), 0);
  EXPECT_EQ(avp_count(), 0u);
}

TEST_F(AvpTest, NamesMatchAsTheHostMatchesThem) {
  add("aB", "v");
  EXPECT_EQ(avp("Ab").size(), 1u);
  EXPECT_EQ(avp("ab").size(), 0u);
}

TEST_F(AvpTest, AddingFailsAtTheChosenCall) {
  fail_call("add_avp", 2);
  EXPECT_EQ(add("a", "1"), 0);
  EXPECT_NE(add("a", "2"), 0);
  EXPECT_EQ(add("a", "3"), 0);
  EXPECT_EQ(avp("a"), (std::vector<value>{"3", "1"}));
  EXPECT_EQ(calls("add_avp"), 3);
}

TEST_F(AvpTest, NegativeLengthsAreMisuses) {
  int_str name, content;
  name.s = str_of("a");
  content.s = {name.s.s, -1};
  EXPECT_LT(add_avp(AVP_NAME_STR | AVP_VAL_STR, name, content), 0);
  EXPECT_EQ(misuses().size(), 1u);
}

TEST_F(AvpTest, AnXavpKeepsItsItemsInTheOrderOfTheText) {
  for (const params_order order : {params_order::reversed, params_order::forward}) {
    clear_xavps();
    set_params_order(order);
    EXPECT_EQ(explode("a='1';b='';c='x y';", "row"), 0);
    ASSERT_EQ(xavps("row").size(), 1u);
    EXPECT_EQ(xavps("row")[0], (xavp_items{{"a", "1"}, {"b", ""}, {"c", "x y"}}));
  }
}

TEST_F(AvpTest, ANewXavpStandsInFrontOfOlderOnes) {
  explode("a='1'", "row");
  explode("a='2'", "row");
  ASSERT_EQ(xavps("row").size(), 2u);
  EXPECT_EQ(xavp_item("row", 0, "a"), value("2"));
  EXPECT_EQ(xavp_item("row", 1, "a"), value("1"));
  EXPECT_EQ(xavp_item("row", 2, "a"), value());
  EXPECT_EQ(xavp_item("row", 0, "b"), value());
}

TEST_F(AvpTest, AQuoteInAValueMakesTheTextRefused) {
  EXPECT_LT(explode("a='it's'", "row"), 0);
  EXPECT_LT(explode("", "row"), 0);
  EXPECT_LT(explode("a='1'", ""), 0);
  EXPECT_TRUE(xavps("row").empty());
  EXPECT_EQ(live_count(pool::pkg), 0u);
}

TEST_F(AvpTest, AnItemWithoutANameMakesTheTextRefused) {
  EXPECT_LT(explode("a='1';;b='2'", "row"), 0);
  EXPECT_LT(explode("='1'", "row"), 0);
  EXPECT_TRUE(xavps("row").empty());
}

TEST_F(AvpTest, ExplodeCallsAreRecordedOnBothRoads) {
  explode("a='1'", "row");
  fparam_t params{}, name{};
  params.type = name.type = FPARAM_STR;
  params.v.text = str_of("b='2'");
  name.v.text = str_of("other");
  const cmd_function function = find_export("xavp_params_explode", 2, 0);
  ASSERT_NE(function, nullptr);
  sip_msg msg;
  EXPECT_EQ(function(&msg, reinterpret_cast<char *>(&params), reinterpret_cast<char *>(&name)), 1);
  ASSERT_EQ(explode_calls().size(), 2u);
  EXPECT_TRUE(explode_calls()[0].ninth_operation);
  EXPECT_EQ(explode_calls()[1].params, "b='2'");
  EXPECT_EQ(explode_calls()[1].xavp, "other");
  EXPECT_FALSE(explode_calls()[1].ninth_operation);
  EXPECT_EQ(xavp_item("other", 0, "b"), value("2"));
}

TEST_F(AvpTest, ExplodingFailsAtTheChosenCallOnBothRoads) {
  fail_calls_from("explode_params", 1);
  EXPECT_LT(explode("a='1'", "row"), 0);
  fparam_t params{}, name{};
  params.type = name.type = FPARAM_STR;
  params.v.text = str_of("b='2'");
  name.v.text = str_of("row");
  EXPECT_LT(
      explode_exported(nullptr, reinterpret_cast<char *>(&params), reinterpret_cast<char *>(&name)),
      0);
  EXPECT_TRUE(xavps("row").empty());
  EXPECT_FALSE(explode_calls()[1].made);
}

}  // namespace
}  // namespace standin
