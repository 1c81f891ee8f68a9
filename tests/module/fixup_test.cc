// Fix-ups: what each leaves in a parameter's slot, and what each refuses with which words.
#include <cstring>
#include <set>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};
const std::string NAME_OF_31(31, 'n');
const table LONGEST = {NAME_OF_31, {{"a"}, {"b"}}};
const table ONE = {"one", {{"only"}}};
const table DOLLAR = {"a$$b", {{"x"}}};

// A function by which a fix-up is reached.
struct reached_by {
  const char *function;
  int parameters;
};
constexpr reached_by QUERY = {"tarn_memdb_clear_tbl", 1};
constexpr reached_by QUERY2 = {"tarn_memdb_row_count", 2};
constexpr reached_by QUERY3 = {"tarn_memdb_select_best_match", 3};
constexpr reached_by QUERY4 = {"tarn_memdb_nl_select_subnetmask", 5};
constexpr reached_by NEW = {"sqll_tarn_memdb_select", 2};
constexpr reached_by MODE = {"tarn_memdb_select", 2};
constexpr reached_by MODE2 = {"tarn_memdb_update", 2};
constexpr reached_by XAVP = {"tarn_memdb_xavp_select", 2};
constexpr reached_by PORT = {"tarn_memdb_select_by_port_type", 3};

// What the range selects find in the slots of their fourth and fifth parameter.
struct number_or_variable {
  int32_t type;
  int32_t number;
  pv_spec_t *variable;
};

class FixupTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    start({USERS, LONGEST, ONE, DOLLAR});
  }

  fixup_function function_of(const reached_by &by) {
    const cmd_export_t *const row = module().find(by.function, by.parameters);
    if (row == nullptr || row->fixup == nullptr) throw std::logic_error(by.function);
    return row->fixup;
  }

  int fix(const reached_by &by, standin::parameter_slot *slot, int number) {
    return function_of(by)(slot->address(), number);
  }

  // A refusal: result and messages, and no block of the module's own stays.
  void expect_refused(const reached_by &by, int number, const std::string &text, int result,
                      const std::vector<message> &said) {
    SCOPED_TRACE(std::string(by.function) + " " + std::to_string(number) + " [" + text + "]");
    const size_t blocks = module_blocks(pool::pkg);
    standin::clear_logs();
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(by, &slot, number), result);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }

  void expect_null_refused(const reached_by &by, int number, const std::string &said) {
    SCOPED_TRACE(std::string(by.function) + " " + std::to_string(number));
    standin::clear_logs();
    EXPECT_EQ(fixup_null(by.function, by.parameters, number), -1);
    EXPECT_THAT(messages(), ElementsAre(err(said)));
  }

  // A slot that comes out with the format of this text.
  void expect_format(const reached_by &by, int number, const std::string &text,
                     const std::string &printed) {
    SCOPED_TRACE(std::string(by.function) + " " + std::to_string(number) + " [" + text + "]");
    standin::clear_logs();
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(by, &slot, number), 0);
    EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
    EXPECT_EQ(print(slot), printed);
  }

  std::string print(const standin::parameter_slot &slot) {
    char room[512];
    int len = sizeof(room);
    EXPECT_EQ(pv_printf(&msg, reinterpret_cast<pv_elem_t *>(slot.get()), room, &len), 0);
    return {room, static_cast<size_t>(len)};
  }

  // The AVP names of a list, an empty text for an empty place.
  std::vector<std::string> names(const standin::parameter_slot &slot) {
    std::vector<std::string> out;
    for (auto *at = reinterpret_cast<pvname_list_t *>(slot.get()); at != nullptr; at = at->next) {
      int_str name;
      avp_flags_t type;
      EXPECT_EQ(pv_get_avp_name(&msg, &at->sname.pvp, &name, &type), 0);
      if (name.s.s == nullptr) {
        const pv_spec_t none{};
        EXPECT_EQ(memcmp(&at->sname, &none, sizeof(none)), 0) << "an empty place isn't zeroed";
        out.emplace_back();
      } else {
        out.emplace_back(name.s.s, static_cast<size_t>(name.s.len));
      }
    }
    return out;
  }

  void expect_list(const reached_by &by, int number, const std::string &text,
                   const std::vector<std::string> &expected) {
    SCOPED_TRACE(std::string(by.function) + " " + std::to_string(number) + " [" + text + "]");
    standin::clear_logs();
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(by, &slot, number), 0);
    EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
    EXPECT_EQ(names(slot), expected);
  }

  void expect_text_kept(const reached_by &by, int number, const std::string &text) {
    SCOPED_TRACE(std::string(by.function) + " " + std::to_string(number) + " [" + text + "]");
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(by, &slot, number), 0);
    EXPECT_TRUE(slot.untouched());
    EXPECT_STREQ(slot.get(), text.c_str());
  }
};

// Every parameter a format.

TEST_F(FixupTest, TheBaseFixupMakesAFormatOfEveryParameter) {
  standin::set_value(msg, "$fU", "alice");
  for (const int number : {1, 2, 5}) {
    expect_format(QUERY2, number, "to $fU, and $fU", "to alice, and alice");
    expect_format(QUERY2, number, "plain", "plain");
    expect_format(QUERY2, number, "", "");
    expect_null_refused(QUERY2, number, "NULL format in param n " + std::to_string(number) + "\n");
    expect_refused(QUERY2, number, "$nothing", -1, {err("Wrong format [$nothing]\n")});
  }
}

TEST_F(FixupTest, ARefusedFormatOfTheBaseFixupLeavesTheText) {
  standin::parameter_slot slot("$nothing");
  EXPECT_EQ(fix(QUERY2, &slot, 1), -1);
  EXPECT_TRUE(slot.untouched());
}

// Format and AVP name list.

TEST_F(FixupTest, TheFirstParameterBecomesAFormatAndTheSecondAList) {
  standin::set_value(msg, "$fU", "users");
  for (const reached_by &by : {QUERY, QUERY3, QUERY4}) {
    expect_format(by, 1, "$fU,x", "users,x");
    expect_list(by, 2, "$avp(a)|$avp(b)", {"a", "b"});
  }
}

TEST_F(FixupTest, ARefusedFirstFormatIsLetPassAsText) {
  for (const reached_by &by : {QUERY, QUERY3, QUERY4}) {
    standin::clear_logs();
    standin::parameter_slot slot("users,$nothing");
    EXPECT_EQ(fix(by, &slot, 1), 0);
    EXPECT_TRUE(slot.untouched());
    EXPECT_STREQ(slot.get(), "users,$nothing");
    EXPECT_THAT(messages(), ElementsAre(err("Wrong format [users,$nothing]\n")));
  }
}

TEST_F(FixupTest, ANullFirstParameterIsLoggedAndLetPass) {
  for (const reached_by &by : {QUERY, QUERY3, QUERY4}) {
    standin::clear_logs();
    EXPECT_EQ(fixup_null(by.function, by.parameters, 1), 0);
    EXPECT_THAT(messages(), ElementsAre(err("NULL format in param n 1\n")));
  }
}

TEST_F(FixupTest, ARefusedFirstFormatIsNotLetPassWithoutMemoryToRememberIt) {
  for (const reached_by &by : {QUERY, QUERY3, QUERY4}) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::clear_logs();
    standin::parameter_slot slot("users,*");
    standin::fail_call("pv_parse_format", 1);
    standin::fail_from(pool::pkg, 1);
    EXPECT_EQ(fix(by, &slot, 1), -1);
    standin::stop_failing();
    EXPECT_TRUE(slot.untouched());
    EXPECT_THAT(messages(), ElementsAre(err("Wrong format [users,*]\n")));
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }
}

TEST_F(FixupTest, ATextThatWasLetPassIsNeverPrinted) {
  const standin::command call_of_it = fixup("tarn_memdb_clear_tbl", {"$nothing"});
  ASSERT_TRUE(call_of_it.accepted());
  forget();
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE), err("Clear table failed!\n")));
  EXPECT_EQ(standin::calls("pv_printf"), 0);
}

TEST_F(FixupTest, OneTextThatWasLetPassDoesNotSpoilTheOthers) {
  const standin::command first = fixup("tarn_memdb_clear_tbl", {"$nothing"});
  const standin::command good = fixup("tarn_memdb_clear_tbl", {"users"});
  const standin::command second = fixup("tarn_memdb_clear_tbl", {"$nothing"});
  EXPECT_EQ(call(first), -1);
  EXPECT_EQ(call(good), 1);
  EXPECT_EQ(call(second), -1);
  EXPECT_EQ(call(first), -1);
}

TEST_F(FixupTest, ANameListThatIsRefusedIsNamedWithItsParameter) {
  for (const reached_by &by : {QUERY, QUERY3, QUERY4, MODE}) {
    for (const std::string text :
         {"$var(a)", "$avp(a)|$var(b)", "a", "$avp(a)| $avp(b)", "$avp("}) {
      expect_refused(by, 2, text, -1,
                     {err("Wrong item name list [" + text + "]!\n"),
                      err("bad format in P2 [" + text + "]\n")});
    }
    expect_refused(by, 2, "", -1, {err("bad format in P2 []\n")});
  }
  for (const reached_by &by : {QUERY, QUERY3, QUERY4})
    expect_null_refused(by, 2, "null format in P2\n");
}

TEST_F(FixupTest, ParametersBeyondTheSecondAreLeftAsTheyAre) {
  expect_text_kept(QUERY, 3, "$nothing");
  expect_text_kept(QUERY, 6, "-1");
  EXPECT_EQ(fixup_null(QUERY.function, QUERY.parameters, 3), 0);
}

// Places of a name list.

TEST_F(FixupTest, TheListHasOnePlaceMoreThanItHasBars) {
  expect_list(MODE, 2, "$avp(a)", {"a"});
  expect_list(MODE, 2, "$avp(a)|$avp(b)", {"a", "b"});
  expect_list(MODE, 2, "$avp(a)||$avp(c)", {"a", "", "c"});
  expect_list(MODE, 2, "|$avp(a)", {"", "a"});
  expect_list(MODE, 2, "$avp(a)|", {"a", ""});
  expect_list(MODE, 2, "|", {"", ""});
  expect_list(MODE, 2, "||", {"", "", ""});
  expect_list(MODE, 2, "|$avp(a)||", {"", "a", "", ""});
  expect_list(MODE, 2, "$avp(a)|||$avp(d)|$avp(e)", {"a", "", "", "d", "e"});
}

TEST_F(FixupTest, AnyOneCharacterSeparatesTwoNames) {
  expect_list(MODE, 2, "$avp(a),$avp(b)", {"a", "b"});
  expect_list(MODE, 2, "$avp(a);$avp(b)", {"a", "b"});
  expect_list(MODE, 2, "$avp(a)$$avp(b)", {"a", "b"});
}

TEST_F(FixupTest, OneCharacterBehindTheLastNameIsPassedOver) {
  expect_list(MODE, 2, "$avp(a),", {"a"});
  expect_list(MODE, 2, "$avp(a) ", {"a"});
  expect_list(MODE, 2, "$avp(a)|$avp(b)x", {"a", "b"});
}

TEST_F(FixupTest, NamesMayBeNumbersOrIndexed) {
  standin::parameter_slot slot("$avp(i:42)|$(avp(s:text)[1])");
  EXPECT_EQ(fix(MODE, &slot, 2), 0);
  auto *const list = reinterpret_cast<pvname_list_t *>(slot.get());
  int_str name;
  avp_flags_t type;
  EXPECT_EQ(pv_get_avp_name(&msg, &list->sname.pvp, &name, &type), 0);
  EXPECT_EQ(name.n, 42);
  EXPECT_EQ(type, 0u);
  ASSERT_NE(list->next, nullptr);
  EXPECT_EQ(list->next->next, nullptr);
}

TEST_F(FixupTest, EachBlockOfANameListFailsInTurnAndTheOthersAreGivenBack) {
  // Three places: two names and the empty one at the end.
  const std::string text = "$avp(a)|$avp(b)|";
  for (uint64_t n = 1; n <= 3; n++) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::parameter_slot slot(text);
    standin::clear_logs();
    standin::fail_at(pool::pkg, n);
    EXPECT_EQ(fix(MODE, &slot, 2), -1);
    EXPECT_THAT(messages(),
                ElementsAre(err("No more memory!\n"), err("bad format in P2 [" + text + "]\n")));
    EXPECT_TRUE(slot.untouched());
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }
  const size_t blocks = module_blocks(pool::pkg);
  standin::parameter_slot slot(text);
  EXPECT_EQ(fix(MODE, &slot, 2), 0);
  EXPECT_EQ(module_blocks(pool::pkg), blocks + 3);
}

TEST_F(FixupTest, EachNameThatTheHostRefusesEndsTheList) {
  for (int n = 1; n <= 2; n++) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::fail_call("pv_parse_spec2", n);
    standin::clear_logs();
    standin::parameter_slot slot("$avp(a)|$avp(b)");
    EXPECT_EQ(fix(MODE, &slot, 2), -1);
    EXPECT_THAT(messages(), ElementsAre(err("Wrong item name list [$avp(a)|$avp(b)]!\n"),
                                        err("bad format in P2 [$avp(a)|$avp(b)]\n")));
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }
}

// Numbers and pseudo-variables of the range selects.

TEST_F(FixupTest, TheThirdNumberStaysText) {
  for (const std::string text : {"2", "0", "abc", "", " 7", "12x"})
    expect_text_kept(QUERY3, 3, text);
  for (const std::string text : {"-1", "-20", " -3", "-1x"}) {
    expect_refused(QUERY3, 3, text, -1, {err("bad format in P3 [" + text + "]\n")});
    expect_refused(XAVP, 3, text, -1, {err("bad format in P3 [" + text + "]\n")});
  }
  for (const std::string text : {"2", "0", "abc"}) expect_text_kept(XAVP, 3, text);
}

TEST_F(FixupTest, TheThirdToSixthHaveToBeThere) {
  const size_t blocks = module_blocks(pool::pkg);
  for (const int number : {3, 4, 5, 6})
    expect_null_refused(QUERY3, number, "null format in P" + std::to_string(number) + "\n");
  expect_null_refused(XAVP, 3, "null format in P3\n");
  EXPECT_EQ(module_blocks(pool::pkg), blocks);
}

TEST_F(FixupTest, TheFourthAndFifthBecomeANumber) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"5", 5}, {"0", 0}, {"abc", 0}, {"$", 0}, {"", 0}, {"2147483647", 2147483647}, {"12x", 12}};
  for (const int number : {4, 5}) {
    for (const auto &[text, expected] : cases) {
      standin::parameter_slot slot(text);
      EXPECT_EQ(fix(QUERY3, &slot, number), 0) << text;
      ASSERT_FALSE(slot.untouched());
      const auto *const record = reinterpret_cast<number_or_variable *>(slot.get());
      EXPECT_EQ(record->type, 0) << text;
      EXPECT_EQ(record->number, expected) << text;
    }
    EXPECT_THAT(messages(), IsEmpty());
  }
}

TEST_F(FixupTest, TheFourthAndFifthRefuseNumbersBelowZero) {
  expect_refused(QUERY3, 4, "-1", -1, {err("bad format in P4 [-1]\n")});
  expect_refused(QUERY3, 5, "-7", -1, {err("bad format in P5 [-7]\n")});
}

TEST_F(FixupTest, TheFourthAndFifthTakeAnAvpOrAScriptVariable) {
  for (const int number : {4, 5}) {
    for (const auto &[text, type] :
         std::vector<std::pair<std::string, int>>{{"$avp(x)", 4}, {"$var(x)", 15}}) {
      standin::parameter_slot slot(text);
      EXPECT_EQ(fix(QUERY3, &slot, number), 0) << text;
      const auto *const record = reinterpret_cast<number_or_variable *>(slot.get());
      EXPECT_EQ(record->type, 2);
      ASSERT_NE(record->variable, nullptr);
      EXPECT_EQ(record->variable->type, type);
      standin::set_value(msg, text, 17);
      pv_value_t read{};
      EXPECT_EQ(pv_get_spec_value(&msg, record->variable, &read), 0);
      EXPECT_EQ(read.ri, 17);
    }
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FixupTest, TheFourthAndFifthRefuseOtherVariables) {
  for (const int number : {4, 5}) {
    expect_refused(QUERY3, number, "$ru", -1, {err("Pseudo variable type not accepted!\n")});
    expect_refused(QUERY3, number, "$nothing", -10, {err("Param 4 error!\n")});
  }
}

TEST_F(FixupTest, TheFourthAndFifthFailWhenTheHostOrTheMemoryFails) {
  for (const int number : {4, 5}) {
    for (const std::string text : {"5", "$avp(x)"}) {
      const size_t blocks = module_blocks(pool::pkg);
      standin::parameter_slot slot(text);
      standin::fail_at(pool::pkg, 1);
      EXPECT_LT(fix(QUERY3, &slot, number), 0);
      EXPECT_EQ(module_blocks(pool::pkg), blocks);
    }
    standin::fail_call("fixup_pvar_null", 1);
    expect_refused(QUERY3, number, "$avp(x)", -10, {err("Param 4 error!\n")});
  }
}

TEST_F(FixupTest, TheSixthBecomesABareVariable) {
  for (const auto &[text, type] :
       std::vector<std::pair<std::string, int>>{{"$avp(n)", 4}, {"$var(n)", 15}}) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(QUERY3, &slot, 6), 0);
    ASSERT_FALSE(slot.untouched());
    EXPECT_EQ(reinterpret_cast<pv_spec_t *>(slot.get())->type, type);
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FixupTest, TheSixthStaysTextWithoutAVariable) {
  for (const std::string text : {"n", "", "$", "12", "-1"}) expect_text_kept(QUERY3, 6, text);
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FixupTest, TheSixthRefusesOtherVariables) {
  expect_refused(QUERY3, 6, "$ru", -1,
                 {err("tarn_memdb_query_fixup3(): Pseudo variable type not accepted!\n")});
  expect_refused(QUERY3, 6, "$nothing", -10, {err("tarn_memdb_query_fixup3(): Param 1 error!\n")});
  standin::fail_call("fixup_pvar_null", 1);
  expect_refused(QUERY3, 6, "$avp(n)", -10, {err("tarn_memdb_query_fixup3(): Param 1 error!\n")});
}

TEST_F(FixupTest, NumbersBeyondTheSixthAreLeftAsTheyAre) {
  expect_text_kept(QUERY3, 7, "$nothing");
  expect_text_kept(QUERY4, 6, "$nothing");
  expect_text_kept(NEW, 3, "$nothing");
  expect_text_kept(XAVP, 4, "$nothing");
  expect_text_kept(MODE, 3, "-1");
}

// The subnet select.

TEST_F(FixupTest, TheSubnetSelectsOtherParametersBecomeFormats) {
  standin::set_value(msg, "$si", "10.0.0.1");
  for (const int number : {3, 4, 5}) {
    expect_format(QUERY4, number, "$si", "10.0.0.1");
    expect_null_refused(QUERY4, number, "NULL format in P" + std::to_string(number) + "\n");
    expect_refused(QUERY4, number, "x$nothing", -1, {err("Wrong format[x$nothing]\n")});
  }
}

// The statements.

TEST_F(FixupTest, AStatementHasToBeAFormat) {
  expect_format(NEW, 1, "SELECT", "SELECT");
  expect_null_refused(NEW, 1, "NULL format in param n 1\n");
  expect_refused(NEW, 1, "$nothing", -1, {err("Wrong format [$nothing]\n")});
}

TEST_F(FixupTest, AStatementsNamesFollowTheHostsRules) {
  expect_list(NEW, 2, "$avp(a),$avp(b);$avp(c) $avp(d)", {"a", "b", "c", "d"});
  expect_null_refused(NEW, 2, "NULL format in param n 2\n");
  expect_refused(NEW, 2, "$avp(a)|$avp(b)", -1,
                 {err("Bad format in param n 2 [$avp(a)|$avp(b)]\n")});
  expect_refused(NEW, 2, "$var(a)", -1, {err("Bad format in param n 2 [$var(a)]\n")});
  expect_refused(NEW, 2, "", -1, {err("Bad format in param n 2 []\n")});
  standin::fail_call("parse_pvname_list", 1);
  expect_refused(NEW, 2, "$avp(a)", -1, {err("Bad format in param n 2 [$avp(a)]\n")});
}

// Queries of tables that are known when the script loads.

class QueryFixupTest : public FixupTest {
 protected:
  static std::vector<reached_by> all() { return {MODE, MODE2, XAVP}; }

  void expect_converted(const std::string &text, const std::string &printed) {
    for (const reached_by &by : all()) expect_format(by, 1, text, printed);
  }
  void expect_all_refused(const std::string &text, const std::vector<message> &said) {
    for (const reached_by &by : all()) {
      expect_refused(by, 1, text, -1, said);
      standin::parameter_slot slot(text);
      EXPECT_EQ(fix(by, &slot, 1), -1);
      EXPECT_TRUE(slot.untouched());
    }
  }
};

TEST_F(QueryFixupTest, ANullParameterIsRefusedWhateverItsNumber) {
  for (const reached_by &by : {MODE, MODE2})
    for (const int number : {1, 2, 4})
      expect_null_refused(by, number, "NULL format in param n " + std::to_string(number) + "\n");
  expect_null_refused(XAVP, 1, "NULL format in param n 1\n");
}

TEST_F(QueryFixupTest, APositionalQueryComesOutAsItWas) {
  standin::set_value(msg, "$fU", "alice");
  expect_converted("users,alice|*|*,10", "users,alice|*|*,10");
  expect_converted("users,alice|*|*", "users,alice|*|*");
  expect_converted("users,$fU|a=b|*,", "users,alice|a=b|*,");
  expect_converted("users,alice", "users,alice");
  expect_converted("users,a|b", "users,a|b");  // the number of fields is the parser's business
  for (const reached_by &by : all()) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::clear_logs();
    standin::parameter_slot slot("users,alice|*|*,10");
    const void *const text = slot.get();
    EXPECT_EQ(fix(by, &slot, 1), 0);
    EXPECT_THAT(messages(), ElementsAre(dbg("Before conversionL [alice|*|*]\n")));
    EXPECT_EQ(reinterpret_cast<pv_elem_t *>(slot.get())->text.s, text) << "not the script's text";
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }
}

TEST_F(QueryFixupTest, ANamedListIsRewrittenInColumnOrder) {
  expect_converted("users,name=alice;age=30,", "users,alice|30|*,");
  expect_converted("users,city=rome;name=alice,", "users,alice|*|rome,");
  expect_converted("users,name=alice,10", "users,alice|*|*,10");
  expect_converted("users,name=alice;,10", "users,alice|*|*,10");
  expect_converted("users,name=alice,10,more", "users,alice|*|*,10,more");
  expect_converted("users,name=*,", "users,*|*|*,");
  expect_converted("users,age='',", "users,*||*,");
  expect_converted("users,name='a b';age=\"3 0\",", "users,a b|3 0|*,");
}

TEST_F(QueryFixupTest, ANamedListIsToldBeforeAndAfter) {
  for (const reached_by &by : all()) {
    standin::clear_logs();
    standin::parameter_slot slot("users,name=alice;age=30,5");
    EXPECT_EQ(fix(by, &slot, 1), 0);
    EXPECT_THAT(messages(),
                ElementsAre(dbg("Before conversionL [name=alice;age=30]\n"),
                            info("Query list after conversion [users,alice|30|*,5]\n")));
  }
}

TEST_F(QueryFixupTest, TheOldTextOfANamedListIsGivenBackAndTheNewOneStays) {
  for (const reached_by &by : all()) {
    standin::parameter_slot slot("users,name=alice,");
    const uint64_t old = standin::last_serial();
    const size_t blocks = module_blocks(pool::pkg);
    EXPECT_EQ(fix(by, &slot, 1), 0);
    EXPECT_EQ(module_blocks(pool::pkg), blocks + 1);
    for (const standin::block_info &block : standin::live_blocks(pool::pkg))
      EXPECT_NE(block.serial, old);
  }
}

TEST_F(QueryFixupTest, ValuesMayBePseudoVariables) {
  standin::set_value(msg, "$fU", "alice");
  standin::set_var("age", 30);
  expect_converted("users,name=$fU;age=$var(age),", "users,alice|30|*,");
}

TEST_F(QueryFixupTest, WithoutASecondCommaTheTableNameIsLost) {
  expect_converted("users,name=alice", "alice|*|*");
  for (const reached_by &by : all()) {
    const standin::command lost = fixup(
        by.function,
        {"users,name=alice", by.function == std::string("tarn_memdb_select") ? "$avp(a)" : "x"});
    ASSERT_TRUE(lost.accepted());
    standin::clear_logs();
    EXPECT_EQ(call(lost), -1);
    EXPECT_TRUE(standin::logged(ERR_LEVEL, "Field list is missing\n"));
  }
}

TEST_F(QueryFixupTest, AnEmptyListMeansEveryRow) {
  expect_converted("users,,", "users,*|*|*,");
  expect_converted("users,,7", "users,*|*|*,7");
  expect_converted("users,", "*|*|*");
}

TEST_F(QueryFixupTest, TheFirstOfSeveralItemsWithOneNameWinsOnEveryHost) {
  for (const standin::params_order order :
       {standin::params_order::reversed, standin::params_order::forward}) {
    standin::set_params_order(order);
    expect_converted("users,name=alice;age=1;name=bob,", "users,alice|1|*,");
  }
}

TEST_F(QueryFixupTest, AListWithABarIsTakenByPosition) {
  expect_converted("users,name=a|b,", "users,name=a|b,");
  expect_converted("users,name=a\\|b,", "users,name=a\\|b,");
}

TEST_F(QueryFixupTest, AnUnknownColumnIsRefused) {
  expect_all_refused("users,name=alice;phone=1,",
                     {err("Parameter [phone] not found in the table [users]\n")});
  expect_all_refused("users,Name=alice,",
                     {err("Parameter [Name] not found in the table [users]\n")});
  expect_all_refused("users,nam=alice,", {err("Parameter [nam] not found in the table [users]\n")});
  expect_all_refused("one,x=y", {err("Parameter [x] not found in the table [one]\n")});
}

TEST_F(QueryFixupTest, AListThatTheHostCantReadIsRefused) {
  expect_all_refused("users,name=alice bob,", {err("Invalid formatted values [name=alice bob]\n")});
  expect_all_refused("users,name='alice,", {err("Invalid formatted values [name='alice]\n")});
}

TEST_F(QueryFixupTest, TheHostsRefusalOfAListIsSurvived) {
  for (const reached_by &by : all()) {
    standin::fail_call("parse_params", 1);
    expect_refused(by, 1, "users,name=alice,", -1,
                   {err("Invalid formatted values [name=alice]\n")});
  }
}

TEST_F(QueryFixupTest, AMissingNameListOrTableIsRefused) {
  expect_all_refused(",a|b", {err("Table name is missing\n")});
  expect_all_refused("", {err("Table name is missing\n")});
  expect_all_refused("users", {err("Field list is missing\n")});
  expect_all_refused("nobody", {err("Field list is missing\n")});
  expect_all_refused("nobody,a|b",
                     {err("Table 'nobody' was not found\n"), err("Table not found\n")});
  expect_all_refused("$var(t),a|b|c",
                     {err("Table '$var(t)' was not found\n"), err("Table not found\n")});
  expect_all_refused("Users,a|b|c",
                     {err("Table 'Users' was not found\n"), err("Table not found\n")});
}

TEST_F(QueryFixupTest, ATableNameIsNeverCutDownToOneThatExists) {
  expect_converted(NAME_OF_31 + ",a|b", NAME_OF_31 + ",a|b");
  for (const size_t more : {1u, 16u, 17u, 200u}) {
    for (const reached_by &by : all()) {
      standin::clear_logs();
      standin::parameter_slot slot(NAME_OF_31 + std::string(more, 'n') + ",a|b");
      EXPECT_EQ(fix(by, &slot, 1), -1);
      ASSERT_EQ(messages().size(), 2u);
      EXPECT_THAT(messages()[0].text, StartsWith("Table '" + NAME_OF_31));
      EXPECT_EQ(messages()[1], err("Table not found\n"));
    }
  }
}

TEST_F(QueryFixupTest, AFormatThatTheHostRefusesIsRefusedHere) {
  expect_all_refused("users,$nothing|a|b", {err("Wrong format [users,$nothing|a|b]\n")});
  for (const reached_by &by : all()) {
    standin::clear_logs();
    standin::parameter_slot slot("users,name=$nothing,");
    EXPECT_EQ(fix(by, &slot, 1), -1);
    EXPECT_THAT(messages(INFO_LEVEL),
                ElementsAre(info("Query list after conversion [users,$nothing|*|*,]\n"),
                            err("Wrong format [users,$nothing|*|*,]\n")));
  }
}

TEST_F(QueryFixupTest, NoMemoryForTheNewTextIsRefused) {
  for (const reached_by &by : all()) {
    const size_t blocks = module_blocks(pool::pkg);
    const size_t core = standin::live_blocks(pool::pkg, "core").size();
    standin::parameter_slot slot("users,name=alice,");
    standin::clear_logs();
    standin::fail_at(pool::pkg, 2);  // the first is the host's own item
    EXPECT_EQ(fix(by, &slot, 1), -1);
    EXPECT_THAT(messages(WARN_LEVEL),
                ElementsAre(err("Could not allocate memory for query list\n")));
    EXPECT_TRUE(slot.untouched());
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
    EXPECT_EQ(standin::live_blocks(pool::pkg, "core").size(), core + 1)
        << "the host's items stayed";
  }
}

TEST_F(QueryFixupTest, TheSecondParameterIsAListAFormatOrAnXavpName) {
  expect_list(MODE, 2, "$avp(a)||$avp(c)", {"a", "", "c"});
  standin::set_value(msg, "$fU", "bob");
  expect_format(MODE2, 2, "$fU|*|*", "bob|*|*");
  expect_format(MODE2, 2, "name=$fU", "name=bob");
  expect_format(MODE2, 3, "$fU", "bob");
  expect_refused(MODE2, 2, "$nothing", -1, {err("Wrong format [$nothing]\n")});
  for (const auto &[text, name] : std::vector<std::pair<std::string, std::string>>{
           {"row", "row"}, {"row_$fU", "row_bob"}, {"$fU", "bob"}}) {
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(XAVP, &slot, 2), 0);
    str given{};
    EXPECT_EQ(get_str_fparam(&given, &msg, reinterpret_cast<fparam_t *>(slot.get())), 0);
    EXPECT_EQ(std::string(given.s, static_cast<size_t>(given.len)), name);
  }
}

TEST_F(QueryFixupTest, TheHostsRefusalOfAnXavpNameStands) {
  standin::parameter_slot slot("$nothing");
  EXPECT_LT(fix(XAVP, &slot, 2), 0);
  standin::fail_call("fixup_spve_spve", 1);
  standin::parameter_slot second("row");
  EXPECT_LT(fix(XAVP, &second, 2), 0);
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(QueryFixupTest, ARefusedXavpNameCanBeReleasedByTheHost) {
  const cmd_export_t *const row = module().find(XAVP.function, XAVP.parameters);
  standin::parameter_slot slot("row_$fU");
  EXPECT_EQ(row->fixup(slot.address(), 2), 0);
  ASSERT_FALSE(slot.untouched());
  EXPECT_EQ(row->free_fixup(slot.address(), 2), 0);
  EXPECT_TRUE(slot.untouched());
}

// The port-type selects.

class PortFixupTest : public FixupTest {};

TEST_F(PortFixupTest, TheFirstParameterIsAFormat) {
  standin::parameter_slot slot("10$nothing");
  EXPECT_EQ(fix(PORT, &slot, 1), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("P1 received=10$nothing; len=10;"),
                                      err("Wrong format [10$nothing]\n")));
  expect_format(PORT, 1, "10", "10");
}

TEST_F(PortFixupTest, ANullTextIsRefused) {
  for (const int number : {1, 2, 3})
    expect_null_refused(PORT, number, "null format in P" + std::to_string(number) + "\n");
}

TEST_F(PortFixupTest, TheQueryGetsAFourthField) {
  standin::set_value(msg, "$fU", "bob");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"t,a|b|c|d", "t,a|b|c|*|d"},
      {"t,a|b|c|d|e", "t,a|b|c|*|d|e"},
      {"t,a|b|c|", "t,a|b|c|*|"},
      {"t,a\\|b|c|d", "t,a\\|b|c|*|d"},
      {"t,a|b|c", "*|t,a|b|c"},
      {"t,a|b", "*|t,a|b"},
      {"t", "*|t"},
      {"", "*|"},
  };
  for (const auto &[text, widened] : cases) {
    standin::clear_logs();
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(PORT, &slot, 2), 0);
    EXPECT_THAT(messages(), ElementsAre(dbg("P2 received=" + text +
                                            "; len=" + std::to_string(text.size()) + ";"),
                                        dbg("P2 after manipulation=" + widened + ";")));
    EXPECT_EQ(print(slot), widened);
  }
  standin::parameter_slot slot("t,$fU|b|$fU|d");
  EXPECT_EQ(fix(PORT, &slot, 2), 0);
  EXPECT_EQ(print(slot), "t,bob|b|bob|*|d");
}

TEST_F(PortFixupTest, TheListGetsAThirdPlace) {
  const std::vector<std::tuple<std::string, std::string, std::vector<std::string>>> cases = {
      {"$avp(x)|$avp(y)|$avp(z)", "$avp(x)|$avp(y)||$avp(z)", {"x", "y", "", "z"}},
      {"$avp(x)|$avp(y)|", "$avp(x)|$avp(y)||", {"x", "y", "", ""}},
      {"||$avp(z)", "|||$avp(z)", {"", "", "", "z"}},
      {"$avp(x)|$avp(y)", "|$avp(x)|$avp(y)", {"", "x", "y"}},
      {"$avp(x)", "|$avp(x)", {"", "x"}},
      {"", "|", {"", ""}},
  };
  for (const auto &[text, widened, expected] : cases) {
    standin::clear_logs();
    standin::parameter_slot slot(text);
    EXPECT_EQ(fix(PORT, &slot, 3), 0);
    EXPECT_THAT(messages(), ElementsAre(dbg("P3 received=" + text +
                                            "; len=" + std::to_string(text.size()) + ";"),
                                        dbg("P3 after manipulation=" + widened + ";")));
    EXPECT_EQ(names(slot), expected);
  }
}

TEST_F(PortFixupTest, ABadListFailsUnderTheNumberOfTheParameterBeforeIt) {
  standin::parameter_slot slot("$avp(x)|$var(y)");
  EXPECT_EQ(fix(PORT, &slot, 3), -1);
  EXPECT_THAT(messages(WARN_LEVEL),
              ElementsAre(err("Wrong item name list [|$avp(x)|$var(y)]!\n"),
                          err("bad format in P2 [|$avp(x)|$var(y)]\n"), err("fixup failed!\n")));
}

TEST_F(PortFixupTest, ARefusedQueryFormatIsLetPassAsWidenedText) {
  standin::parameter_slot slot("t,$nothing|b|c|d");
  EXPECT_EQ(fix(PORT, &slot, 2), 0);
  EXPECT_STREQ(slot.get(), "t,$nothing|b|c|*|d");
  EXPECT_THAT(messages(WARN_LEVEL), ElementsAre(err("Wrong format [t,$nothing|b|c|*|d]\n")));
}

TEST_F(PortFixupTest, NoMemoryForTheWiderTextIsRefusedAndTheTextKept) {
  for (const int number : {2, 3}) {
    const std::string text = number == 2 ? "t,a|b|c|d" : "$avp(x)|$avp(y)|$avp(z)";
    standin::clear_logs();
    standin::parameter_slot slot(text);
    standin::fail_at(pool::pkg, 1);
    EXPECT_EQ(fix(PORT, &slot, number), -1);
    EXPECT_THAT(messages(WARN_LEVEL), ElementsAre(err("could not allocate memory!")));
    EXPECT_TRUE(slot.untouched());
    EXPECT_STREQ(slot.get(), text.c_str());
  }
}

TEST_F(PortFixupTest, TheWiderTextIsExactlyAsLongAsItHasToBe) {
  standin::parameter_slot query("t,a|b|c|d");
  EXPECT_EQ(fix(PORT, &query, 2), 0);
  EXPECT_EQ(standin::live_blocks(pool::pkg, "tarn_memdb").back().size, strlen("t,a|b|c|d") + 3);
}

TEST_F(PortFixupTest, OtherNumbersAreLeftAsTheyAre) { expect_text_kept(PORT, 4, "$nothing"); }

// Every allocation and host call of every fix-up fails once.
TEST_F(FixupTest, WhateverFailsInAFixupNothingOfTheModulesIsLeftBehind) {
  struct one {
    reached_by by;
    int number;
    std::string text;
  };
  const std::vector<one> all = {
      {QUERY, 1, "users"},
      {QUERY, 2, "$avp(a)||$avp(b)|"},
      {QUERY2, 1, "$fU,x"},
      {QUERY2, 2, "$avp(n)"},
      {QUERY3, 3, "5"},
      {QUERY3, 4, "5"},
      {QUERY3, 4, "$avp(x)"},
      {QUERY3, 5, "$var(x)"},
      {QUERY3, 6, "$avp(n)"},
      {QUERY3, 6, "n"},
      {QUERY4, 3, "$si"},
      {NEW, 1, "SELECT $fU"},
      {NEW, 2, "$avp(a);$avp(b)"},
      {MODE, 1, "users,name=$fU;age=3,"},
      {MODE, 1, "users,a|b|c"},
      {MODE, 2, "$avp(a)|$avp(b)"},
      {MODE2, 1, "users,age='',"},
      {MODE2, 2, "name=$fU"},
      {XAVP, 1, "users,name=a,"},
      {XAVP, 2, "row"},
      {XAVP, 2, "row_$fU"},
      {XAVP, 3, "1"},
      {PORT, 1, "10"},
      {PORT, 2, "t,a|b|c|d"},
      {PORT, 3, "$avp(x)|$avp(y)|"},
  };
  const std::vector<std::string> host_calls = {"pv_parse_format",   "pv_parse_spec2",
                                               "parse_pvname_list", "fixup_pvar_null",
                                               "fixup_spve_spve",   "parse_params"};
  int failures = 0;
  const auto expect_clean = [&](const one &tried, standin::parameter_slot *slot, size_t blocks) {
    const int result = fix(tried.by, slot, tried.number);
    failures++;
    if (result >= 0) return;  // such a failure is told in other tests
    size_t kept = 0;
    for (const standin::block_info &block : standin::live_blocks(pool::pkg, "tarn_memdb"))
      if (block.address != slot->get()) kept++;
    // A text that was rewritten before the failure is the slot's.
    EXPECT_LE(kept, blocks) << standin::leak_report(pool::pkg);
  };
  for (const one &tried : all) {
    SCOPED_TRACE(std::string(tried.by.function) + " " + std::to_string(tried.number) + " [" +
                 tried.text + "]");
    for (uint64_t n = 1;; n++) {
      standin::parameter_slot slot(tried.text);
      const size_t blocks = module_blocks(pool::pkg);
      const uint64_t failed = standin::failed_allocations();
      standin::fail_at(pool::pkg, n);
      expect_clean(tried, &slot, blocks);
      standin::stop_failing();
      if (standin::failed_allocations() == failed) break;
    }
    for (const std::string &name : host_calls) {
      standin::parameter_slot slot(tried.text);
      const size_t blocks = module_blocks(pool::pkg);
      standin::fail_call(name, 1);
      expect_clean(tried, &slot, blocks);
      standin::stop_failing_calls();
    }
  }
  EXPECT_GT(failures, 150);
}

TEST_F(FixupTest, AFixupTakesNoSharedMemory) {
  standin::reset_allocation_count();
  fixup("tarn_memdb_select", {"users,name=alice,", "$avp(a)|$avp(b)"});
  fixup("tarn_memdb_update", {"users,name=alice,", "age=5"});
  fixup("tarn_memdb_clear_tbl", {"$nothing"});
  EXPECT_EQ(standin::allocation_count(pool::shm), 0u);
}

}  // namespace
}  // namespace module_test
