// What differs between functions that look alike, side by side: limits, last lines, results, words
// of messages and audit lines. Each difference is meant.
#include <set>

#include "tests/module/all_in_one_table.h"
#include "tests/module/shared_view.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char FAILED[] = "SELECT failed!\n";

class DifferencesTest : public SharedViewTest {
 protected:
  texts ids() {
    texts out = avp_texts("id");
    std::reverse(out.begin(), out.end());  // in the order of delivery
    return out;
  }
  int plain(const std::string &tail) {
    clear();
    return run("tarn_memdb_nl_select", {query("*", tail), ID});
  }
  int best(const std::string &key, const std::string &tail) {
    clear();
    return run("tarn_memdb_nl_select_best_match", {query(key, tail), ID, "1"});
  }
  int out_of_range(const std::string &lower, const std::string &upper, const std::string &tail) {
    clear();
    return run("tarn_memdb_nl_select_field_out_of_range",
               {query("*", tail), ID, "1", lower, upper});
  }
  int within(const std::string &lower, const std::string &tail) {
    clear();
    return run("tarn_memdb_nl_select_field_within_the_range",
               {query("*", tail), ID, "1", lower, "9", "$var(count)"});
  }
  int subnet(const std::string &source, const std::string &tail) {
    clear();
    standin::set_var("empty", "");
    return run("tarn_memdb_nl_select_subnetmask",
               {query("*", tail), ID, source, "$var(empty)", "$var(empty)"});
  }
  int port_type(const std::string &tail) {
    clear();
    return run("tarn_memdb_nl_select_by_port_type", {"external_port", pair_query(tail), PAIR_ID});
  }
  int statement(const std::string &tail) {
    clear();
    return run("sqll_tarn_memdb_select", {"SELECT id FROM t WHERE grp=g" + tail, "$avp(id)"});
  }
};

// Where the limit of the query bites.

TEST_F(DifferencesTest, TheLimitCountsDeliveredVisitedOrHeldRows) {
  // Oldest first, so that they are visited from the last to the first.
  start_with({all_in_one()},
             {{"t",
               {line("9", "500", "9.9.9.9", "f"), line("5", "500", "9.9.9.9", "e"),
                line("50", "500", "10.0.0.1", "d"), line("5", "1", "9.9.9.9", "c"),
                line("2", "500", "9.9.9.9", "b"), line("1", "1", "9.9.9.9", "a")}}});
  EXPECT_EQ(plain(",3"), 1);
  EXPECT_THAT(ids(), ElementsAre("a", "b", "c")) << "three rows delivered";

  EXPECT_EQ(best("50", ",3"), 1);
  EXPECT_THAT(ids(), ElementsAre("c")) << "three rows visited; the better one is the fourth";
  EXPECT_EQ(best("50", ",4"), 1);
  EXPECT_THAT(ids(), ElementsAre("d"));

  EXPECT_EQ(out_of_range("0", "4", ",3"), 3);
  EXPECT_THAT(ids(), ElementsAre("c", "d", "e")) << "three rows held, after five visited";

  EXPECT_EQ(within("1", ",3"), -2);
  EXPECT_EQ(standin::var("count"), value(2)) << "three rows visited, two of them counted";
  EXPECT_THAT(ids(), IsEmpty()) << "and none delivered";

  EXPECT_EQ(subnet("10.0.0.1", ",3"), -2) << "three rows visited; the match is the fourth";
  EXPECT_EQ(subnet("10.0.0.1", ",4"), 1);
  EXPECT_THAT(ids(), ElementsAre("d")) << "one row delivered, whatever the limit";
  EXPECT_EQ(subnet("10.0.0.1", ",6"), 1);
  EXPECT_THAT(ids(), ElementsAre("d"));

  EXPECT_EQ(port_type(",3"), 1);
  EXPECT_THAT(ids(), ElementsAre("b", "d", "e")) << "three rows delivered";

  EXPECT_EQ(statement(" MAX=3"), 1);
  EXPECT_THAT(ids(), ElementsAre("a", "b", "c")) << "three rows delivered";
}

TEST_F(DifferencesTest, AFixedLimitOf512CountsHeldOrVisitedRowsOrIsMissing) {
  // 100 rows of another kind are visited first, then 600, then one more.
  texts rows = {line("55", "1", "10.0.0.1", "last")};
  for (int i = 0; i < 600; i++) rows.push_back(line("5", "500", "9.9.9.9", "x"));
  for (int i = 0; i < 100; i++) rows.push_back(line("1", "1", "9.9.9.9", "first"));
  start_with({all_in_one()}, {{"t", rows}});
  EXPECT_EQ(plain(","), 1);
  EXPECT_EQ(ids().size(), 701U);
  EXPECT_EQ(best("5", ","), 1);
  EXPECT_EQ(ids().size(), 512U) << "rows held";
  EXPECT_EQ(out_of_range("0", "4", ","), 412) << "of the rows visited 100 were in range";
  EXPECT_EQ(ids().size(), 412U);
  EXPECT_EQ(within("1", ","), -2);
  EXPECT_EQ(standin::var("count"), value(601));
  EXPECT_EQ(subnet("10.0.0.1", ","), 1);
  EXPECT_THAT(ids(), ElementsAre("last"));
  EXPECT_EQ(port_type(","), 1);
  EXPECT_EQ(ids().size(), 600U);
  EXPECT_EQ(statement(""), 1);
  EXPECT_EQ(ids().size(), 701U);
}

TEST_F(DifferencesTest, TheLimitOfTheTableStandsInForAMissingOne) {
  texts rows;
  for (const char *id : {"e", "d", "c", "b", "a"}) rows.push_back(line("5", "500", "9.9.9.9", id));
  start_with({all_in_one(3)}, {{"t", rows}});
  EXPECT_EQ(plain(","), 1);
  EXPECT_THAT(ids(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(best("5", ","), 1);
  EXPECT_THAT(ids(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(out_of_range("0", "4", ","), 3);
  EXPECT_EQ(within("1", ","), -2);
  EXPECT_EQ(standin::var("count"), value(3));
  EXPECT_EQ(port_type(","), 1);
  EXPECT_THAT(ids(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(statement(""), 1);
  EXPECT_THAT(ids(), ElementsAre("a", "b", "c"));
}

class LimitTest : public DifferencesTest, public testing::WithParamInterface<int> {};

TEST_P(LimitTest, ALimitOfTheTableThatIsNotAboveZeroFindsNoRow) {
  start_with({all_in_one(GetParam())},
             {{"t", {line("5", "500", "10.0.0.1", "a"), line("5", "500", "10.0.0.1", "b")}}});
  EXPECT_EQ(plain(","), -2);
  EXPECT_EQ(best("5", ","), -2);
  EXPECT_EQ(out_of_range("0", "4", ","), -2);
  EXPECT_EQ(within("1", ","), -2);
  EXPECT_EQ(standin::var("count"), value(0));
  EXPECT_EQ(subnet("10.0.0.1", ","), -2);
  EXPECT_EQ(port_type(","), -2);
  EXPECT_EQ(statement(""), -2);
  EXPECT_THAT(ids(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Limits, LimitTest, testing::Values(0, -1));

// What a value at the main column means.

TEST_F(DifferencesTest, AWildcardAtTheMainColumnFailsTheBestMatchAlone) {
  start_with({all_in_one()}, {{"t", {line("5", "500", "9.9.9.9", "a")}}});
  EXPECT_EQ(plain(","), 1);
  EXPECT_EQ(best("*", ","), -1);
  EXPECT_EQ(best("", ","), -1);
  EXPECT_EQ(out_of_range("0", "4", ","), 1);
  EXPECT_EQ(within("1", ","), -2);
}

// Results of a good call.

TEST_F(DifferencesTest, AGoodCallGivesOneOrANumberOrMinusTwo) {
  start_with({all_in_one()},
             {{"t", {line("5", "500", "10.0.0.1", "a"), line("5", "500", "10.0.0.1", "b")}}});
  EXPECT_EQ(plain(","), 1);
  EXPECT_EQ(best("5", ","), 1);
  EXPECT_EQ(out_of_range("0", "4", ","), 2) << "the number of rows";
  EXPECT_EQ(within("0", ","), -2) << "always";
  EXPECT_EQ(subnet("10.0.0.1", ","), 1);
  EXPECT_EQ(port_type(","), 1);
  EXPECT_EQ(statement(""), 1);
}

// The last line.

struct select_case {
  const char *function;
  texts parameters;
  // Whether the last line follows a failure to print, to parse, to name the XAVP and to deliver.
  bool print;
  bool parse;
  bool name;
  bool deliver;
  // The result for want of an XAVP buffer; 0 where there is none.
  int without_buffer = 0;
};

const std::vector<select_case> &select_cases() {
  static const std::vector<select_case> cases = {
      {"tarn_memdb_select", {query("*"), ID}, true, true, false, true},
      {"tarn_memdb_nl_select", {query("*"), ID}, true, true, false, true},
      {"tarn_memdb_xavp_select", {query("*"), "x"}, true, true, true, true, -2},
      {"tarn_memdb_nl_xavp_select", {query("*"), "x"}, true, true, true, true, -2},
      {"tarn_memdb_select_best_match", {query("5"), ID, "1"}, true, true, false, false},
      {"tarn_memdb_nl_select_best_match", {query("5"), ID, "1"}, true, true, false, false},
      {"tarn_memdb_nl_select_best_match_prefix",
       {query("5"), ID, "1", "0"},
       true,
       true,
       false,
       false},
      {"tarn_memdb_xavp_select_best_match", {query("5"), "x", "1"}, true, true, false, false, -1},
      {"tarn_memdb_nl_xavp_select_best_match",
       {query("5"), "x", "1"},
       true,
       true,
       false,
       false,
       -1},
      {"tarn_memdb_nl_select_field_out_of_range",
       {query("*"), ID, "1", "0", "4"},
       true,
       true,
       false,
       false},
      {"tarn_memdb_nl_select_field_within_the_range",
       {query("*"), ID, "1", "0", "4", "$var(count)"},
       true,
       true,
       false,
       false},
      {"tarn_memdb_nl_select_subnetmask",
       {query("*"), ID, "10.0.0.1", "x", "x"},
       false,
       false,
       false,
       false},
      {"tarn_memdb_select_by_port_type",
       {"external_port", pair_query(), PAIR_ID},
       false,
       false,
       false,
       false},
      {"tarn_memdb_nl_select_by_port_type",
       {"external_port", pair_query(), PAIR_ID},
       false,
       false,
       false,
       false},
      {"sqll_tarn_memdb_select",
       {"SELECT id FROM t WHERE grp=g", "$avp(id)"},
       false,
       true,
       false,
       true},
  };
  return cases;
}

class LastLineTest : public DifferencesTest, public testing::WithParamInterface<select_case> {
 protected:
  void SetUp() override {
    DifferencesTest::SetUp();
    start_with({all_in_one()}, {{"t", {line("5", "500", "10.0.0.1", "a")}}});
  }
  // Which of the parameters is the query.
  size_t query_place() const {
    return std::string(GetParam().function).find("port_type") != std::string::npos ? 1 : 0;
  }
  bool as_xavp() const {
    return std::string(GetParam().function).find("xavp") != std::string::npos;
  }
  // True if the call's messages end with the last line; nowhere else may it stand.
  bool has_last_line() {
    const texts told = standin::log_texts();
    const auto times = std::count(told.begin(), told.end(), FAILED);
    EXPECT_LE(times, 1);
    if (times == 1) {
      EXPECT_EQ(told.back(), FAILED);
    }
    return times == 1;
  }
};

TEST_P(LastLineTest, StandsBehindAFailureToPrintWhereItIsMeantTo) {
  const standin::command prepared = fixup(GetParam().function, GetParam().parameters);
  clear();
  standin::fail_call("pv_printf", static_cast<int>(query_place()) + 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_EQ(has_last_line(), GetParam().print);
}

TEST_P(LastLineTest, StandsBehindAFailureToParseWhereItIsMeantTo) {
  const standin::command prepared = fixup(GetParam().function, GetParam().parameters);
  clear();
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_EQ(has_last_line(), GetParam().parse);
}

TEST_P(LastLineTest, StandsBehindAFailureToDeliverWhereItIsMeantTo) {
  const standin::command prepared = fixup(GetParam().function, GetParam().parameters);
  clear();
  standin::fail_call(as_xavp() ? "explode_params" : "add_avp", 1);
  const bool delivers = std::string(GetParam().function).find("within") == std::string::npos;
  EXPECT_EQ(call(prepared), delivers ? -1 : -2);
  EXPECT_EQ(has_last_line(), GetParam().deliver);
}

TEST_P(LastLineTest, NeverStandsBehindACallThatFindsNothing) {
  texts parameters = GetParam().parameters;
  std::string &text = parameters[query_place()];
  const size_t group =
      text.find(",g|") != std::string::npos ? text.find(",g|") + 1 : text.find("grp=g") + 4;
  text.replace(group, 1, "h");
  const standin::command prepared = fixup(GetParam().function, parameters);
  clear();
  EXPECT_EQ(call(prepared), -2);
  EXPECT_FALSE(has_last_line());
}

class XavpLastLineTest : public LastLineTest {};

TEST_P(XavpLastLineTest, StandsBehindAnXavpWithoutANameWhereItIsMeantTo) {
  const standin::command prepared = fixup(GetParam().function, GetParam().parameters);
  clear();
  standin::fail_call("get_str_fparam", 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_EQ(has_last_line(), GetParam().name);
}

TEST_P(XavpLastLineTest, NeverStandsBehindWantOfABufferWhichGivesMinusTwoOrMinusOne) {
  const standin::command prepared = fixup(GetParam().function, GetParam().parameters);
  clear();
  standin::fail_at(pool::pkg, 2);
  EXPECT_EQ(call(prepared), GetParam().without_buffer);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not allocate xavp memory for tarn_memdb_select_cmn\n")));
}

std::vector<select_case> xavp_cases() {
  std::vector<select_case> out;
  for (const select_case &each : select_cases())
    if (each.without_buffer != 0) out.push_back(each);
  return out;
}

INSTANTIATE_TEST_SUITE_P(All, XavpLastLineTest, testing::ValuesIn(xavp_cases()),
                         [](const auto &tested) { return std::string(tested.param.function); });

INSTANTIATE_TEST_SUITE_P(All, LastLineTest, testing::ValuesIn(select_cases()),
                         [](const auto &tested) { return std::string(tested.param.function); });

TEST_F(DifferencesTest, ABadColumnOrLimitHasNoLastLine) {
  start_with({all_in_one()}, {{"t", {line("5", "500", "9.9.9.9", "a")}}});
  clear();
  EXPECT_EQ(run("tarn_memdb_nl_select_best_match", {query("5"), ID, "16"}), -1);
  EXPECT_EQ(run("tarn_memdb_nl_select_field_out_of_range", {query("*"), ID, "16", "0", "4"}), -1);
  EXPECT_EQ(run("tarn_memdb_nl_select_field_within_the_range",
                {query("*"), ID, "16", "0", "4", "$var(count)"}),
            -1);
  EXPECT_EQ(
      run("tarn_memdb_nl_select_field_out_of_range", {query("*"), ID, "1", "$avp(none)", "4"}), -1);
  EXPECT_THAT(standin::log_texts(), Not(testing::Contains(FAILED)));
  EXPECT_EQ(standin::log_count(ERR_LEVEL), 4U);
}

// Words of messages.

TEST_F(DifferencesTest, SelectsWriteTheirPrintFailureSmallAndOthersWithACapital) {
  table holder = all_in_one(1000, "p");
  holder.ports = {{"dynamic", 2, 3}};
  start({all_in_one(), holder});
  const std::vector<std::pair<const char *, texts>> small = {
      {"tarn_memdb_select", {query("*"), ID}},
      {"tarn_memdb_nl_select", {query("*"), ID}},
      {"tarn_memdb_xavp_select", {query("*"), "x"}},
      {"tarn_memdb_nl_xavp_select", {query("*"), "x"}},
      {"tarn_memdb_select_best_match", {query("5"), ID, "1"}},
      {"tarn_memdb_nl_select_best_match", {query("5"), ID, "1"}},
      {"tarn_memdb_nl_select_best_match_prefix", {query("5"), ID, "1", "0"}},
      {"tarn_memdb_xavp_select_best_match", {query("5"), "x", "1"}},
      {"tarn_memdb_nl_xavp_select_best_match", {query("5"), "x", "1"}},
      {"tarn_memdb_nl_select_field_out_of_range", {query("*"), ID, "1", "0", "4"}},
      {"tarn_memdb_nl_select_field_within_the_range", {query("*"), ID, "1", "0", "4", "$var(c)"}},
      {"tarn_memdb_nl_select_subnetmask", {query("*"), ID, "10.0.0.1", "x", "x"}},
      {"tarn_memdb_select_by_port_type", {"external_port", pair_query(), PAIR_ID}},
      {"tarn_memdb_nl_select_by_port_type", {"external_port", pair_query(), PAIR_ID}},
      {"tarn_memdb_get_port", {"INT"}},
  };
  const std::vector<std::pair<const char *, texts>> capital = {
      {"tarn_memdb_clear_tbl", {"t"}},
      {"tarn_memdb_insert", {"t,a|b" + repeated("|c", 14)}},
      {"tarn_memdb_delete", {query("*")}},
      {"tarn_memdb_update", {query("*"), "grp=h"}},
      {"tarn_memdb_row_count", {"t", "$avp(c)"}},
      {"sqll_tarn_memdb_select", {"SELECT id FROM t WHERE grp=g", "$avp(id)"}},
      {"sqll_tarn_memdb_delete", {"DELETE FROM t WHERE grp=g"}},
      {"sqll_tarn_memdb_insert", {"INSERT INTO t grp VALUES g"}},
      {"sqll_tarn_memdb_update", {"UPDATE t SET grp=h WHERE grp=g"}},
      {"tarn_memdb_get_port", {"INT", "$avp(p)"}},
      {"tarn_memdb_get_port_from_range", {"INT", "100"}},
      {"tarn_memdb_set_port", {"100", "INT"}},
      {"tarn_memdb_free_port", {"INT", "100"}},
  };
  const auto first_line = [this](const char *function, const texts &parameters) {
    const standin::command prepared = fixup(function, parameters);
    clear();
    standin::fail_call("pv_printf", 1);
    EXPECT_LT(call(prepared), 0) << function;
    standin::stop_failing_calls();
    return messages().empty() ? std::string() : messages()[0].text;
  };
  for (const auto &[function, parameters] : small)
    EXPECT_EQ(first_line(function, parameters), UNPRINTABLE_SELECT) << function;
  for (const auto &[function, parameters] : capital)
    EXPECT_EQ(first_line(function, parameters), UNPRINTABLE) << function;
  EXPECT_EQ(small.size() + capital.size(), 28U) << "all functions but the one without parameters";
}

TEST_F(DifferencesTest, EverySelectButThatOfPortsSpeaksOfAnInsertThatCannotBeParsed) {
  start({all_in_one()});
  for (const select_case &each : select_cases()) {
    const std::string function = each.function;
    if (function.find("sqll") == 0) continue;
    const bool of_ports = function.find("port_type") != std::string::npos;
    texts parameters = each.parameters;
    std::string &text = parameters[of_ports ? 1 : 0];
    text = "t,a|b|c|d|e";
    const standin::command prepared = fixup(function, parameters);
    clear();
    EXPECT_EQ(call(prepared), -1) << function;
    const std::string told = of_ports ? "Could not parse query (t,a|b|c|*|d|e) for select by port "
                                        "type\n"
                                      : "Could not parse query (t,a|b|c|d|e) for insert\n";
    EXPECT_TRUE(standin::logged(ERR_LEVEL, told)) << function << "\n" << standin::log_dump();
  }
}

// Which functions answer 0.

TEST_F(DifferencesTest, OnlyTwoPortFunctionsEverAnswerZero) {
  table holder{"p", {}};
  for (const char *name : {"id", "k1", "k2", "k3", "in", "loc", "ex", "st", "dt"})
    holder.columns.push_back({name});
  holder.ports = {{"dynamic", 4, 6}};
  write_file(ranges_file(), "EXT 10000 10001\n");
  start_with({all_in_one(), holder}, {{"t", {line("5", "500", "10.0.0.1", "a")}}});
  // Per function calls that succeed, find nothing and fail, as far as there are any.
  std::vector<std::pair<std::string, texts>> all = {
      {"tarn_memdb_clear_pmap", {}},
      {"tarn_memdb_clear_tbl", {"p"}},
      {"tarn_memdb_clear_tbl", {"nowhere"}},
      {"tarn_memdb_insert", {"p,1|a|b|c|21000|WAN|0|0|0"}},
      {"tarn_memdb_insert", {"p,1"}},
      {"tarn_memdb_update", {"p,id=1,", "k1=x"}},
      {"tarn_memdb_update", {"p,id=2,", "k1=x"}},
      {"tarn_memdb_update", {"p,1,", "k1=x"}},
      {"tarn_memdb_delete", {"p,id=1,"}},
      {"tarn_memdb_delete", {"p,id=1,"}},
      {"tarn_memdb_delete", {"p,1"}},
      {"tarn_memdb_row_count", {"p", "$avp(c)"}},
      {"tarn_memdb_row_count", {"nowhere", "$avp(c)"}},
      {"sqll_tarn_memdb_insert", {"INSERT INTO p id VALUES 1"}},
      {"sqll_tarn_memdb_insert", {"INSERT"}},
      {"sqll_tarn_memdb_update", {"UPDATE p SET k1=x WHERE id=1"}},
      {"sqll_tarn_memdb_update", {"UPDATE p SET k1=x WHERE id=2"}},
      {"sqll_tarn_memdb_update", {"UPDATE"}},
      {"sqll_tarn_memdb_delete", {"DELETE FROM p WHERE id=1"}},
      {"sqll_tarn_memdb_delete", {"DELETE FROM p WHERE id=1"}},
      {"sqll_tarn_memdb_delete", {"DELETE"}},
      {"tarn_memdb_get_port", {"INT"}},
      {"tarn_memdb_get_port", {"wrong"}},
      {"tarn_memdb_get_port", {"INT", "$avp(p)"}},
      {"tarn_memdb_get_port", {"wrong", "$avp(p)"}},
      {"tarn_memdb_get_port_from_range", {"EXT", "10000"}},
      {"tarn_memdb_get_port_from_range", {"EXT", "1"}},
      {"tarn_memdb_get_port_from_range", {"wrong", "1"}},
      {"tarn_memdb_get_port_from_range", {"INT", "21000"}},
      {"tarn_memdb_set_port", {"21001", "INT"}},
      {"tarn_memdb_set_port", {"1", "INT"}},
      {"tarn_memdb_set_port", {"1", "wrong"}},
      {"tarn_memdb_free_port", {"INT", "21001"}},
      {"tarn_memdb_free_port", {"INT", "1"}},
      {"tarn_memdb_free_port", {"wrong", "1"}},
  };
  for (const select_case &each : select_cases()) {
    all.emplace_back(each.function, each.parameters);
    for (const std::string &text : {query("zzz"), std::string("t,x")}) {
      texts parameters = each.parameters;
      for (std::string &parameter : parameters)
        if (parameter.find("t,g|") == 0) parameter = text;
      all.emplace_back(each.function, parameters);
    }
  }
  std::set<std::string> called;
  std::set<std::string> zero;
  for (const auto &[function, parameters] : all) {
    called.insert(function + "/" + std::to_string(parameters.size()));
    if (run(function, parameters) == 0) zero.insert(function + " " + joined(parameters, " "));
  }
  EXPECT_EQ(called.size(), 29U) << "every exported function";
  EXPECT_THAT(zero, ElementsAre("tarn_memdb_free_port INT 21001",
                                "tarn_memdb_get_port_from_range INT 21000"));
}

// Audit lines.

TEST_F(DifferencesTest, TheBlanksAheadOfAnAuditLineTellItsSource) {
  table tagged{"t", {{"a"}, {"b"}}};
  tagged.log_tag = "TAG";
  table holder{"p", {}};
  for (const char *name : {"id", "k1", "k2", "k3", "in", "loc", "ex", "st", "dt"})
    holder.columns.push_back({name});
  holder.ports = {{"dynamic", 4, 6}};
  holder.log_tag = "PTAG";
  start({tagged, holder});
  const auto audited = [this](const std::function<void()> &work) {
    clear();
    work();
    texts out = standin::log_texts(NOTICE_LEVEL);
    return joined(out, "\n");
  };
  const auto script = [this](const std::string &function, const texts &parameters) {
    return [this, function, parameters] { EXPECT_EQ(run(function, parameters), 1); };
  };
  const auto command = [this](const std::string &name, const std::vector<value> &arguments) {
    return [this, name, arguments] { EXPECT_THAT(rpc(name, arguments).faults, IsEmpty()); };
  };
  // Ten blanks for script writes.
  EXPECT_EQ(audited(script("tarn_memdb_insert", {"t,1|x"})),
            "           TAG - (1) Inserting t,1|x");
  EXPECT_EQ(audited(script("tarn_memdb_update", {"t,a=1,", "b=y"})),
            "           TAG - (1) Updating t,1|y");
  EXPECT_EQ(audited(script("tarn_memdb_delete", {"t,a=1,"})),
            "           TAG - (0) Deleting t,1|y");
  // Five for statements.
  EXPECT_EQ(audited(script("sqll_tarn_memdb_insert", {"INSERT INTO t a VALUES 1"})),
            "      TAG - (1) SQLL Inserting t,1");
  EXPECT_EQ(audited(script("sqll_tarn_memdb_update", {"UPDATE t SET b=y WHERE a=1"})),
            "      TAG - (1) SQLL Updating t,1|y");
  EXPECT_EQ(audited(script("sqll_tarn_memdb_delete", {"DELETE FROM t WHERE a=1"})),
            "      TAG - (0) SQLL Deleting t,1|y");
  // Six for commands.
  EXPECT_EQ(audited(command("tarn_memdb.insert", {"t,1|x"})),
            "       TAG - (1) RPC Inserting t,1|x");
  EXPECT_EQ(audited(command("tarn_memdb.update", {"t,1|*", "*|y"})),
            "       TAG - (1) RPC Updating t,1|y");
  EXPECT_EQ(audited(command("tarn_memdb.delete", {"t,1|*"})),
            "       TAG - (0) RPC Deleting t,1|y");
  // Seven and six for the script's clearing, three for the operator's.
  EXPECT_EQ(audited(script("tarn_memdb_clear_tbl", {"t"})), "        TAG - (0) Clearing table t");
  EXPECT_EQ(audited(script("tarn_memdb_clear_pmap", {})), "       PTAG - (0) Clearing table p");
  EXPECT_EQ(audited(command("tarn_memdb.clear_tbl", {"t"})), "    TAG - (0) RPC Clearing table t");
  EXPECT_EQ(audited(command("tarn_memdb.clear_all", {})),
            "    TAG - (0) RPC Clearing table t\n    PTAG - (0) RPC Clearing table p");
}

TEST_F(DifferencesTest, TheCountsOfAnAuditLineFollowTheFunction) {
  table tagged{"t", {{"a"}, {"b"}}};
  tagged.log_tag = "TAG";
  start({tagged});
  const auto counts = [](const texts &lines) {
    texts out;
    for (const std::string &text : lines)
      out.push_back(text.substr(text.find('('), text.find(')') - text.find('(') + 1));
    return out;
  };
  const auto fill = [this] {
    const quiet silence;
    run("tarn_memdb_delete", {"t,*|*"});
    for (const char *row : {"t,1|x", "t,|y", "t,3|x", "t,|y"})
      EXPECT_EQ(run("tarn_memdb_insert", {row}), 1);
    clear();
  };
  fill();
  EXPECT_EQ(run("tarn_memdb_delete", {"t,*|y"}), 1);
  EXPECT_THAT(counts(standin::log_texts(NOTICE_LEVEL)), ElementsAre("(3)", "(2)"))
      << "what remains, though the table's count follows at the end";
  fill();
  EXPECT_EQ(run("sqll_tarn_memdb_delete", {"DELETE FROM t WHERE b=y"}), 1);
  EXPECT_THAT(counts(standin::log_texts(NOTICE_LEVEL)), ElementsAre("(3)", "(2)"));
  // Visited: |y goes, 3|x stays, |y goes, 1|x stays. A row that goes tells the rows selected.
  fill();
  EXPECT_EQ(run("tarn_memdb_update", {"t,*|*,", "*|"}), 1);
  EXPECT_THAT(counts(standin::log_texts(NOTICE_LEVEL)), ElementsAre("(3)", "(4)", "(1)", "(4)"));
  EXPECT_EQ(row_count("t"), 2);
  fill();
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE t SET a='' WHERE b=x"}), 1);
  EXPECT_THAT(counts(standin::log_texts(NOTICE_LEVEL)), ElementsAre("(3)", "(2)"));
}

// What updates make of an empty value.

TEST_F(DifferencesTest, AnUpdateEmptiesAColumnAndAStatementDropsTheRow) {
  start_with({{"t", {{"a"}, {"b"}}}}, {{"t", {"1|x"}}});
  EXPECT_EQ(run("tarn_memdb_update", {"t,1|*", "*|"}), 1);
  expect_rows("t", {{"1", ""}});
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE t SET b='' WHERE a=1"}), 1);
  expect_rows("t", {});
  EXPECT_EQ(run("tarn_memdb_insert", {"t,1|"}), 1);
  EXPECT_EQ(run("tarn_memdb_update", {"t,1|*", "|*"}), 1) << "no column has a text any more";
  expect_rows("t", {});
}

// What a full table is told at.

TEST_F(DifferencesTest, AFullTableIsAnErrorForAQueryAndAWarningForAStatement) {
  start_with({{"t", {{"a"}, {"b"}}, 1}}, {{"t", {"1|x"}}});
  const std::string told =
      "MAX number of rows allowed (1) for table 't' reached. Data will not be inserted!\n";
  clear();
  EXPECT_EQ(run("tarn_memdb_insert", {"t,2|y"}), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(told), err("INSERT failed!\n")));
  clear();
  EXPECT_EQ(run("sqll_tarn_memdb_insert", {"INSERT INTO t a VALUES 2"}), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(warn(told), err("INSERT failed!\n")));
}

}  // namespace
}  // namespace module_test
