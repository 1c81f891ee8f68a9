#include "tests/standin/params.h"

#include <gtest/gtest.h>

#include "tests/standin/pv.h"
#include "tests/standin/standin.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

using items = std::vector<std::pair<std::string, std::string>>;

class ParamsTest : public testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  // The items in the order of the chain; "(refused)" alone for a negative result.
  static items parse(const std::string &text) {
    str source = str_of(text);
    param_hooks_t hooks;
    param_t *params = nullptr;
    if (parse_params(&source, PARAM_CLASS_ANY, &hooks, &params) < 0) return {{"(refused)", ""}};
    items out;
    for (const param_t *item = params; item != nullptr; item = item->next)
      out.emplace_back(view_of(item->name), view_of(item->body));
    free_params(params);
    EXPECT_EQ(live_count(pool::pkg), 0u);
    return out;
  }
};

TEST_F(ParamsTest, TheItemWrittenLastStandsFirstInTheChain) {
  EXPECT_EQ(parse("a=1;b=2;c=3"), (items{{"c", "3"}, {"b", "2"}, {"a", "1"}}));
}

TEST_F(ParamsTest, TheChainCanBeSwitchedToTheOrderOfTheText) {
  set_params_order(params_order::forward);
  EXPECT_EQ(parse("a=1;b=2;c=3"), (items{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST_F(ParamsTest, NamesAndBodiesPointIntoTheText) {
  str source = str_of("ab='cd'");
  const char *start = source.s;
  param_t *params = nullptr;
  ASSERT_EQ(parse_params(&source, PARAM_CLASS_ANY, nullptr, &params), 0);
  EXPECT_EQ(params->name.s, start);
  EXPECT_EQ(params->body.s, start + 4);
  EXPECT_EQ(params->len, 7);
  EXPECT_EQ(source.len, 0);
  EXPECT_EQ(source.s, start + 7);
  free_params(params);
}

TEST_F(ParamsTest, QuotesOfBothKindsAreStripped) {
  EXPECT_EQ(parse("a=\"x;y = z\";b='p\"q'"), (items{{"b", "p\"q"}, {"a", "x;y = z"}}));
  EXPECT_EQ(parse("a=''"), (items{{"a", ""}}));
}

TEST_F(ParamsTest, BlanksAroundNamesBodiesAndSeparatorsAreSkipped) {
  EXPECT_EQ(parse("a = 1 ; \t b\n=\r2"), (items{{"b", "2"}, {"a", "1"}}));
}

TEST_F(ParamsTest, ABodyMayBeMissingAltogether) {
  EXPECT_EQ(parse("a;b"), (items{{"b", ""}, {"a", ""}}));
  EXPECT_EQ(parse("a="), (items{{"a", ""}}));
  EXPECT_EQ(parse("a= "), (items{{"a", ""}}));
}

TEST_F(ParamsTest, AnEmptyTextGivesAnEmptyChain) { EXPECT_EQ(parse(""), items{}); }

TEST_F(ParamsTest, AnEmptyNameIsTaken) { EXPECT_EQ(parse("=v"), (items{{"", "v"}})); }

TEST_F(ParamsTest, MalformedTextsAreRefusedWithoutALeak) {
  for (const char *text :
       {"a=1;", "a=1; ", "a='open", "a=\"", "a=;b=1", "a=x y", "a b", "a='x'y", "b=1;a='open"})
    EXPECT_EQ(parse(text), (items{{"(refused)", ""}})) << text;
  EXPECT_EQ(live_count(pool::pkg), 0u);
}

TEST_F(ParamsTest, ParsingEndsAtACommaOrAnAngleBracket) {
  EXPECT_EQ(parse("a=1,b=2"), (items{{"a", "1"}}));
  EXPECT_EQ(parse("a='1'>b"), (items{{"a", "1"}}));
}

TEST_F(ParamsTest, TheHooksAreCleared) {
  param_hooks_t hooks;
  hooks.hook[0] = hooks.hook[8] = &hooks;
  str source = str_of("a=1");
  param_t *params = nullptr;
  parse_params(&source, PARAM_CLASS_ANY, &hooks, &params);
  EXPECT_EQ(hooks.hook[0], nullptr);
  EXPECT_EQ(hooks.hook[8], nullptr);
  free_params(params);
}

TEST_F(ParamsTest, EachAllocationFailsCleanly) {
  for (uint64_t n = 1; n <= 3; ++n) {
    fail_at(pool::pkg, n);
    EXPECT_EQ(parse("a=1;b=2;c=3"), (items{{"(refused)", ""}}));
  }
  EXPECT_EQ(failed_allocations(), 3u);
  EXPECT_EQ(live_count(pool::pkg), 0u);
}

TEST_F(ParamsTest, TheChosenParseFails) {
  fail_call("parse_params", 1);
  EXPECT_EQ(parse("a=1"), (items{{"(refused)", ""}}));
  EXPECT_EQ(parse("a=1"), (items{{"a", "1"}}));
}

TEST_F(ParamsTest, APlainTextBecomesAStringParameter) {
  parameter_slot slot("row");
  ASSERT_EQ(fixup_spve_spve(slot.address(), 2), 0);
  auto *param = reinterpret_cast<fparam_t *>(slot.get());
  EXPECT_EQ(param->type, FPARAM_STR);
  sip_msg msg;
  str out;
  ASSERT_EQ(get_str_fparam(&out, &msg, param), 0);
  EXPECT_EQ(view_of(out), "row");
  EXPECT_EQ(live_count(pool::pkg), 2u);
  ASSERT_EQ(fixup_free_spve_spve(slot.address(), 2), 0);
  EXPECT_TRUE(slot.untouched());
  EXPECT_EQ(live_count(pool::pkg), 1u);
  EXPECT_TRUE(misuses().empty());
}

TEST_F(ParamsTest, WhatIsNoRecordIsNotFreedAsOne) {
  char plain[] = "x$fU";
  str text = {plain, 4};
  pv_elem_t *format = nullptr;
  ASSERT_EQ(pv_parse_format(&text, &format), 0);
  void *slot = format;
  EXPECT_EQ(fixup_free_spve_spve(&slot, 3), -1);  // the host knows two parameters
  EXPECT_TRUE(misuses().empty());
  EXPECT_EQ(fixup_free_spve_spve(&slot, 1), 0);
  EXPECT_EQ(slot, format);
  EXPECT_EQ(misuses().size(), 1u);
}

TEST_F(ParamsTest, ATextWithAVariableIsPrintedAtEachUse) {
  parameter_slot slot("x$fU");
  ASSERT_EQ(fixup_spve_spve(slot.address(), 1), 0);
  auto *param = reinterpret_cast<fparam_t *>(slot.get());
  sip_msg msg;
  set_value(msg, "$fU", "alice");
  str first, second;
  ASSERT_EQ(get_str_fparam(&first, &msg, param), 0);
  set_value(msg, "$fU", "bob");
  ASSERT_EQ(get_str_fparam(&second, &msg, param), 0);
  EXPECT_EQ(view_of(first), "xalice");
  EXPECT_EQ(view_of(second), "xbob");
  fail_call("get_str_fparam", 1);
  EXPECT_NE(get_str_fparam(&second, &msg, param), 0);
  fail_call("get_str_fparam.text", 1);
  EXPECT_EQ(get_str_fparam(&second, &msg, param), 0);
  EXPECT_EQ(second.s, nullptr);
}

TEST_F(ParamsTest, AMalformedFormatAndAHighNumberAreRefused) {
  parameter_slot slot("$avp(");
  EXPECT_LT(fixup_spve_spve(slot.address(), 1), 0);
  EXPECT_TRUE(slot.untouched());
  parameter_slot good("x");
  EXPECT_LT(fixup_spve_spve(good.address(), 3), 0);
  EXPECT_TRUE(good.untouched());
  EXPECT_EQ(live_count(pool::pkg), 2u);
}

TEST_F(ParamsTest, ASlotOutsideOfAParameterRecordIsAMisuse) {
  char text[] = "row";
  void *loose = text;
  EXPECT_EQ(fixup_spve_spve(&loose, 1), 0);
  EXPECT_EQ(misuses().size(), 1u);
}

TEST_F(ParamsTest, AVariableBecomesABareSpec) {
  parameter_slot slot(" $avp(x) ");
  ASSERT_EQ(fixup_pvar_null(slot.address(), 1), 0);
  auto *spec = reinterpret_cast<pv_spec_t *>(slot.get());
  EXPECT_EQ(spec->type, PVT_AVP);
  EXPECT_EQ(view_of(spec->pvp.pvn.u.isname.name.s), "x");
}

TEST_F(ParamsTest, TheBareSpecIsOnlyForTheFirstParameterAndOnlyForVariables) {
  parameter_slot slot("$avp(x)");
  EXPECT_LT(fixup_pvar_null(slot.address(), 2), 0);
  for (const char *text : {"5", "", "  ", "$nosuch", "$"}) {
    parameter_slot other(text);
    EXPECT_LT(fixup_pvar_null(other.address(), 1), 0) << text;
    EXPECT_TRUE(other.untouched());
  }
}

TEST_F(ParamsTest, EachAllocationOfAFixupFailsCleanly) {
  parameter_slot slot("$fU"), plain("row");
  const size_t before = live_count(pool::pkg);
  for (uint64_t n = 1; n <= 2; ++n) {
    fail_at(pool::pkg, n);
    EXPECT_LT(fixup_spve_spve(slot.address(), 1), 0);
  }
  for (uint64_t n = 1; n <= 3; ++n) {
    fail_at(pool::pkg, n);
    EXPECT_LT(fixup_spve_spve(plain.address(), 1), 0);
  }
  fail_at(pool::pkg, 1);
  EXPECT_LT(fixup_pvar_null(slot.address(), 1), 0);
  EXPECT_TRUE(slot.untouched());
  EXPECT_TRUE(plain.untouched());
  EXPECT_EQ(live_count(pool::pkg), before);
}

}  // namespace
}  // namespace standin
