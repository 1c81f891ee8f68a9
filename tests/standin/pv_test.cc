#include "tests/standin/pv.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "tests/standin/standin.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

class PvTest : public testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  // Parses a text that stays alive until the test's end.
  pv_elem_t *format_of(const std::string &text) {
    texts.push_back(std::make_unique<std::string>(text));
    str source = str_of(*texts.back());
    pv_elem_t *format = nullptr;
    result = pv_parse_format(&source, &format);
    return format;
  }

  std::string print(const std::string &text, int capacity = 256) {
    pv_elem_t *format = format_of(text);
    if (format == nullptr) return "(refused)";
    std::string buf(static_cast<size_t>(capacity), '#');
    int len = capacity;
    result = pv_printf(&msg, format, buf.data(), &len);
    if (result < 0) return "(failed)";
    EXPECT_EQ(strlen(buf.c_str()), static_cast<size_t>(len));
    return std::string(buf.c_str());
  }

  int result = 0;
  sip_msg msg;
  std::vector<std::unique_ptr<std::string>> texts;
};

TEST_F(PvTest, PlainTextIsOneElementWithoutASpecPointingIntoTheText) {
  pv_elem_t *format = format_of("a,b|*");
  ASSERT_NE(format, nullptr);
  EXPECT_EQ(format->spec, nullptr);
  EXPECT_EQ(format->next, nullptr);
  EXPECT_EQ(format->text.s, texts[0]->data());
  EXPECT_EQ(format->text.len, 5);
}

TEST_F(PvTest, AnEmptyTextIsOneEmptyElement) {
  pv_elem_t *format = format_of("");
  ASSERT_NE(format, nullptr);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(format->text.len, 0);
  EXPECT_EQ(format->text.s, texts[0]->data());
  EXPECT_EQ(print(""), "");
}

TEST_F(PvTest, EachElementIsTextAndTheVariableBehindIt) {
  pv_elem_t *first = format_of("t,$fU|$avp(x)z");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(view_of(first->text), "t,");
  EXPECT_EQ(first->spec->type, 22);
  ASSERT_NE(first->next, nullptr);
  EXPECT_EQ(view_of(first->next->text), "|");
  EXPECT_EQ(first->next->spec->type, PVT_AVP);
  ASSERT_NE(first->next->next, nullptr);
  EXPECT_EQ(view_of(first->next->next->text), "z");
  EXPECT_EQ(first->next->next->spec, nullptr);
  EXPECT_EQ(first->next->next->next, nullptr);
}

TEST_F(PvTest, NoElementFollowsAVariableAtTheEnd) {
  pv_elem_t *first = format_of("$var(a)");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->text.len, 0);
  EXPECT_EQ(first->spec->type, PVT_SCRIPTVAR);
  EXPECT_EQ(first->next, nullptr);
}

TEST_F(PvTest, FormatsShareTheSpecOfOneVariableText) {
  pv_elem_t *one = format_of("$avp(x)");
  pv_elem_t *two = format_of("a$avp(x)");
  EXPECT_EQ(one->spec, two->spec);
}

TEST_F(PvTest, MalformedTextsAreRefusedWithoutALeak) {
  for (const char *text : {"$", "a$", "$ ", "$(", "$(fU", "$avp", "$avp(", "$avp(x", "$avp()",
                           "a|$(avp(x)", "$nosuch", "$nosuch(x)", "$fU(x)", "$(fU[1])", "$avp(i:x)",
                           "$(avp(x)[", "$(avp(x)[])", "$(avp(x)[a])", "$(avp(x){s.no.such})"}) {
    EXPECT_EQ(format_of(text), nullptr) << text;
    EXPECT_LT(result, 0) << text;
  }
  EXPECT_EQ(live_count(pool::pkg), 0u);
}

TEST_F(PvTest, TwoDollarsPrintOne) {
  EXPECT_EQ(print("a$$b"), "a$b");
  EXPECT_EQ(print("$$"), "$");
  EXPECT_EQ(print("$($)x"), "$x");
}

TEST_F(PvTest, PrintsTextsNumbersAndNulls) {
  set_value(msg, "$fU", "alice");
  set_value(msg, "$var(n)", 17);
  EXPECT_EQ(print("$fU|$var(n)|$tU|$avp(none)|$null"), "alice|17|<null>|<null>|<null>");
}

TEST_F(PvTest, AVariableNameEndsAtTheFirstCharacterThatCannotBePartOfIt) {
  set_value(msg, "$fU", "alice");
  set_value(msg, "$si", "10.0.0.1");
  EXPECT_EQ(print("$fU@$si;x"), "alice@10.0.0.1;x");
  EXPECT_EQ(print("$(fU)x"), "alicex");
  EXPECT_EQ(print("$fUx"), "(refused)");
  EXPECT_EQ(print("$fU.x"), "(refused)");
}

TEST_F(PvTest, AnIndexCountsOnlyInTheBracketedForm) {
  push_avp("x", "old");
  push_avp("x", "new");
  EXPECT_EQ(print("$avp(x)[1]"), "new[1]");
  EXPECT_EQ(print("$(avp(x)[1])"), "old");
  EXPECT_EQ(print("$(avp(x)[-1])"), "<null>");
  EXPECT_EQ(print("$(avp(x)[-2])"), "new");
  EXPECT_EQ(print("$(avp(x)[2])"), "<null>");
  EXPECT_EQ(print("$(avp(x)[*])"), "new, old");
}

TEST_F(PvTest, AnUnreadableVariablePrintsNothing) {
  set_value(msg, "$tU", value::unreadable());
  EXPECT_EQ(print("<$tU>"), "<>");
  pv_value_t out;
  EXPECT_LT(pv_get_spec_value(&msg, cached_spec("$tU"), &out), 0);
}

TEST_F(PvTest, TextAndTerminatorHaveToFit) {
  set_value(msg, "$fU", "abcd");
  EXPECT_EQ(print("x$fU", 6), "xabcd");
  EXPECT_EQ(print("x$fU", 5), "(failed)");
  EXPECT_EQ(print("xyz", 3), "(failed)");
  EXPECT_EQ(print("", 1), "");
  int len = 0;
  char buf[1];
  EXPECT_LT(pv_printf(&msg, format_of(""), buf, &len), 0);
}

TEST_F(PvTest, AFailedPrintLeavesTheLengthAlone) {
  char buf[4];
  int len = sizeof(buf);
  EXPECT_LT(pv_printf(&msg, format_of("too long"), buf, &len), 0);
  EXPECT_EQ(len, 4);
}

TEST_F(PvTest, PrintingNeedsAMessageAndAFormat) {
  char buf[4];
  int len = sizeof(buf);
  EXPECT_LT(pv_printf(nullptr, format_of("a"), buf, &len), 0);
  EXPECT_LT(pv_printf(&msg, nullptr, buf, &len), 0);
}

TEST_F(PvTest, HeadersAreFoundWhateverTheCaseOfTheirNames) {
  set_value(msg, "$hdr(X-Tag)", "v");
  EXPECT_EQ(print("$hdr(x-tag)$(hdr(X-TAG))"), "vv");
}

TEST_F(PvTest, ASpecTellsTheHostsTypes) {
  const std::pair<const char *, int> expected[] = {
      {"$avp(x)", 4}, {"$hdr(x)", 5}, {"$ru", 6},  {"$rU", 7},   {"$rd", 8},
      {"$du", 9},     {"$fu", 12},    {"$tu", 13}, {"$ou", 14},  {"$var(x)", 15},
      {"$fU", 22},    {"$si", 22},    {"$ct", 22}, {"$null", 2}, {"$$", 3}};
  for (const auto &[text, type] : expected) {
    str source = str_of(text);
    pv_spec_t spec;
    ASSERT_NE(pv_parse_spec2(&source, &spec, 1), nullptr) << text;
    EXPECT_EQ(spec.type, type) << text;
    EXPECT_NE(spec.getf, nullptr) << text;
  }
}

TEST_F(PvTest, ParsingASpecGivesThePlaceBehindIt) {
  str source = str_of("$avp(a)|$fU");
  pv_spec_t spec;
  EXPECT_EQ(pv_parse_spec2(&source, &spec, 1), source.s + 7);
  str second = {source.s + 8, source.len - 8};
  EXPECT_EQ(pv_parse_spec2(&second, &spec, 1), source.s + source.len);
  str none = {source.s + 7, source.len - 7};
  EXPECT_EQ(pv_parse_spec2(&none, &spec, 1), nullptr);
}

TEST_F(PvTest, ASpecsInnerNamePointsIntoTheText) {
  str source = str_of("$avp(name)");
  pv_spec_t spec;
  ASSERT_NE(pv_parse_spec2(&source, &spec, 1), nullptr);
  EXPECT_EQ(spec.pvp.pvn.u.isname.name.s.s, source.s + 5);
  EXPECT_EQ(spec.pvp.pvn.u.isname.name.s.len, 4);
}

TEST_F(PvTest, NameListsAreSeparatedByCommasSemicolonsAndBlanks) {
  str source = str_of(" $avp(a);$avp(b) ,\n$avp(c);");
  pvname_list_t *list = parse_pvname_list(&source, PVT_AVP);
  std::vector<std::string> names;
  for (; list != nullptr; list = list->next)
    names.emplace_back(view_of(list->sname.pvp.pvn.u.isname.name.s));
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(live_count(pool::pkg), 3u);
}

TEST_F(PvTest, NameListsRefuseOtherTypesBarsAndEmptyTexts) {
  for (const char *text : {"$avp(a),$var(b)", "$avp(a)|$avp(b)", "", " ;", "$avp(a),x"}) {
    str source = str_of(text);
    EXPECT_EQ(parse_pvname_list(&source, PVT_AVP), nullptr) << text;
  }
  str any = str_of("$avp(a),$var(b)");
  EXPECT_NE(parse_pvname_list(&any, PVT_ANY), nullptr);
  EXPECT_EQ(live_count(pool::pkg), 2u);
}

TEST_F(PvTest, EachAllocationOfAParserFailsCleanly) {
  for (uint64_t n = 1; n <= 3; ++n) {
    fail_at(pool::pkg, n);
    EXPECT_EQ(format_of("$fU,$tU,$ru"), nullptr);
    fail_at(pool::pkg, n);
    str source = str_of("$avp(a),$avp(b),$avp(c)");
    EXPECT_EQ(parse_pvname_list(&source, PVT_AVP), nullptr);
  }
  EXPECT_EQ(failed_allocations(), 6u);
  EXPECT_EQ(live_count(pool::pkg), 0u);
}

TEST_F(PvTest, ReadingTellsNumbersTextsAndNullsByFlags) {
  set_value(msg, "$var(n)", -5);
  set_value(msg, "$fU", "12");
  pv_value_t out;
  ASSERT_EQ(pv_get_spec_value(&msg, cached_spec("$var(n)"), &out), 0);
  EXPECT_EQ(out.ri, -5);
  EXPECT_EQ(out.flags, 4 | PV_VAL_INT | PV_TYPE_INT);
  EXPECT_EQ(view_of(out.rs), "-5");
  ASSERT_EQ(pv_get_spec_value(&msg, cached_spec("$fU"), &out), 0);
  EXPECT_EQ(out.flags, 4);
  ASSERT_EQ(pv_get_spec_value(&msg, cached_spec("$tU"), &out), 0);
  EXPECT_EQ(out.flags, 1);
  pv_spec_t zeroed{};
  EXPECT_LT(pv_get_spec_value(&msg, &zeroed, &out), 0);
}

TEST_F(PvTest, AScriptVariableThatWasNeverSetIsTheNumberZero) {
  EXPECT_EQ(print("$var(fresh)"), "0");
  EXPECT_EQ(var("fresh"), value(0));
}

TEST_F(PvTest, WritingSetsVariablesAndAvpsAndIgnoresReadOnlyOnes) {
  pv_value_t number{};
  number.ri = 9;
  number.flags = PV_VAL_INT | PV_TYPE_INT;
  EXPECT_EQ(pv_set_spec_value(&msg, cached_spec("$var(r)"), 0, &number), 0);
  EXPECT_EQ(var("r"), value(9));
  EXPECT_EQ(pv_set_spec_value(&msg, cached_spec("$avp(r)"), 0, &number), 0);
  EXPECT_EQ(avp("r"), std::vector<value>{9});
  EXPECT_EQ(pv_set_spec_value(&msg, cached_spec("$si"), 0, &number), 0);
  EXPECT_EQ(get_value(msg, "$si"), value());
  EXPECT_EQ(pv_set_spec_value(&msg, nullptr, 0, &number), 0);
}

TEST_F(PvTest, AvpNamesComeWithTheirTypeFlags) {
  int_str name;
  avp_flags_t type = 99;
  ASSERT_EQ(pv_get_avp_name(&msg, &cached_spec("$avp(x)")->pvp, &name, &type), 0);
  EXPECT_EQ(type, AVP_NAME_STR);
  EXPECT_EQ(view_of(name.s), "x");
  ASSERT_EQ(pv_get_avp_name(&msg, &cached_spec("$avp(s:y)")->pvp, &name, &type), 0);
  EXPECT_EQ(view_of(name.s), "y");
  ASSERT_EQ(pv_get_avp_name(&msg, &cached_spec("$avp(i:12)")->pvp, &name, &type), 0);
  EXPECT_EQ(type, 0u);
  EXPECT_EQ(name.n, 12);
}

TEST_F(PvTest, AZeroedSpecGivesANullAvpName) {
  pv_spec_t zeroed{};
  int_str name;
  avp_flags_t type = 99;
  ASSERT_EQ(pv_get_avp_name(&msg, &zeroed.pvp, &name, &type), 0);
  EXPECT_EQ(type, 0u);
  EXPECT_EQ(name.s.s, nullptr);
  EXPECT_EQ(name.s.len, 0);
}

TEST_F(PvTest, AScriptVariablesNameIsTakenAsItStands) {
  set_value(msg, "$var($fU)", 3);
  EXPECT_EQ(var("$fU"), value(3));
}

TEST_F(PvTest, AnAvpNameMayBeAnotherVariable) {
  set_value(msg, "$var(n)", "inner");
  int_str name;
  avp_flags_t type = 0;
  ASSERT_EQ(pv_get_avp_name(&msg, &cached_spec("$avp($var(n))")->pvp, &name, &type), 0);
  EXPECT_EQ(view_of(name.s), "inner");
  EXPECT_EQ(type, AVP_NAME_STR);
  ASSERT_EQ(pv_get_avp_name(&msg, &cached_spec("$avp($fU)")->pvp, &name, &type), -1);
}

TEST_F(PvTest, AskingForTheAvpNameOfAScriptVariableIsAMisuse) {
  int_str name;
  avp_flags_t type = 0;
  EXPECT_EQ(pv_get_avp_name(&msg, &cached_spec("$var(n)")->pvp, &name, &type), -1);
  EXPECT_EQ(misuses().size(), 1u);
}

TEST_F(PvTest, EachCallCanBeMadeToFailOnce) {
  pv_elem_t *format = format_of("a");
  char buf[8];
  int len = sizeof(buf);
  fail_call("pv_printf", 2);
  EXPECT_EQ(pv_printf(&msg, format, buf, &len), 0);
  len = sizeof(buf);
  EXPECT_LT(pv_printf(&msg, format, buf, &len), 0);
  EXPECT_EQ(pv_printf(&msg, format, buf, &len), 0);
  EXPECT_EQ(calls("pv_printf"), 3);
  pv_value_t out{};
  pv_spec_t *spec = cached_spec("$var(x)");
  int_str name;
  avp_flags_t type = 0;
  str source = str_of("$avp(a)");
  pv_spec_t parsed;
  for (const char *call : {"pv_get_spec_value", "pv_set_spec_value", "pv_get_avp_name",
                           "pv_parse_spec2", "parse_pvname_list", "pv_parse_format"})
    fail_call(call, 1);
  EXPECT_NE(pv_get_spec_value(&msg, spec, &out), 0);
  EXPECT_NE(pv_set_spec_value(&msg, spec, 0, &out), 0);
  EXPECT_NE(pv_get_avp_name(&msg, &cached_spec("$avp(x)")->pvp, &name, &type), 0);
  EXPECT_EQ(pv_parse_spec2(&source, &parsed, 1), nullptr);
  EXPECT_EQ(parse_pvname_list(&source, 0), nullptr);
  EXPECT_LT(pv_parse_format(&source, &format), 0);
  EXPECT_EQ(format, nullptr);
}

TEST_F(PvTest, APrintCanBeMadeToSucceedWithANegativeLength) {
  pv_elem_t *format = format_of("a");
  char buf[8];
  int len = sizeof(buf);
  fail_call("pv_printf.length", 1);
  EXPECT_EQ(pv_printf(&msg, format, buf, &len), 0);
  EXPECT_EQ(len, -1);
  len = sizeof(buf);
  EXPECT_EQ(pv_printf(&msg, format, buf, &len), 0);
  EXPECT_EQ(len, 1);
}

TEST_F(PvTest, SettingAValueNeedsExactlyOneVariable) {
  EXPECT_THROW(set_value(msg, "fU", 1), std::invalid_argument);
  EXPECT_THROW(set_value(msg, "$fU ", 1), std::invalid_argument);
  EXPECT_THROW(set_value(msg, "$nosuch", 1), std::invalid_argument);
}

TEST_F(PvTest, SettingAnAvpReplacesAllItsValues) {
  push_avp("x", 1);
  push_avp("x", 2);
  set_value(msg, "$avp(x)", "only");
  EXPECT_EQ(avp("x"), std::vector<value>{"only"});
  set_value(msg, "$avp(x)", value());
  EXPECT_TRUE(avp("x").empty());
}

}  // namespace
}  // namespace standin
