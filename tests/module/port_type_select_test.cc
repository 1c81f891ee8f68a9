// The selects of a port pair: columns 2 and 3 of a table.
#include "tests/module/injection.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char LOCKED[] = "tarn_memdb_select_by_port_type";
constexpr char NL[] = "tarn_memdb_nl_select_by_port_type";
// As a script writes them: one place less than the table has columns.
constexpr char NAMES[] = "$avp(id)|$avp(call)|$avp(other)|$avp(tag)";
constexpr char WRONG_SELECTION[] = "wrong port selection parameter!\n";
const message NO_NAME = dbg("Could not get avp name\n");
const message INTERNAL = dbg("Selection of internal port!\n");
const message EXTERNAL = dbg("Selection of external port!\n");

// Columns: id, call, the external port, the internal port, tag.
table pairs(int max_rows = 100) {
  return {"pairs", {{"id"}, {"call", 31, true}, {"ext"}, {"int"}, {"tag"}}, max_rows};
}

class PortTypeTest : public InjectionTest, public testing::WithParamInterface<const char *> {
 protected:
  void start_pairs(const texts &rows, int max_rows = 100) {
    start_with({pairs(max_rows)}, {{"pairs", rows}});
  }
  int select(const std::string &side, const std::string &query, const std::string &names = NAMES) {
    const standin::command prepared = fixup(GetParam(), {side, query, names});
    clear();
    return call(prepared);
  }
  static texts other_ports() { return avp_texts("other"); }
};

TEST_P(PortTypeTest, ComparesThePortOfItsSideAndDeliversTheOther) {
  start_pairs({"1|a|500|600|t", "2|b|501|601|u"});
  for (const bool external : {true, false}) {
    const std::string side = external ? "external_port" : "internal_port";
    const std::string wanted = external ? "500" : "600";
    clear();
    EXPECT_THAT(trace(GetParam(), {side, "pairs,*|*|" + wanted + "|*", NAMES}),
                ElementsAre(dbg("Port to select=" + side + ";\n"),
                            dbg("Select pairs,*|*|" + wanted + "|*|*\n"),
                            external ? EXTERNAL : INTERNAL, NO_NAME));
    EXPECT_THAT(avp_texts("id"), ElementsAre("1"));
    EXPECT_THAT(avp_texts("call"), ElementsAre("a"));
    EXPECT_THAT(other_ports(), ElementsAre(external ? "600" : "500"));
    EXPECT_THAT(avp_texts("tag"), ElementsAre("t"));
    EXPECT_EQ(standin::avp_count(), 4U) << "the port asked for isn't delivered";
  }
}

TEST_P(PortTypeTest, FindsNoRowByThePortOfTheOtherSideOrInAnEmptyTable) {
  start_with({pairs(), table{"empty", pairs().columns}}, {{"pairs", {"1|a|500|600|t"}}});
  EXPECT_EQ(select("internal_port", "pairs,*|*|500|*"), -2);
  EXPECT_EQ(select("external_port", "pairs,*|*|600|*"), -2);
  EXPECT_EQ(select("external_port", "empty,*|*|500|*"), -2);
  EXPECT_EQ(standin::avp_count(), 0U);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_P(PortTypeTest, DeliversEveryRowOfThePortUpToTheLimit) {
  start_pairs({"1|a|500|600|t", "2|b|500|601|u", "3|c|500|602|v"});
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*"), 1);
  EXPECT_THAT(other_ports(), ElementsAre("600", "601", "602"));
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*,2"), 1);
  EXPECT_THAT(other_ports(), ElementsAre("601", "602"));
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*,1"), 1);
  EXPECT_THAT(other_ports(), ElementsAre("602"));
}

TEST_P(PortTypeTest, DeliversAsManyRowsAsTheTableMayHoldWithoutALimit) {
  start_pairs(texts(601, "1|a|500|600|t"), 600);
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*"), 1);
  EXPECT_THAT(other_ports(), SizeIs(600)) << "a table loaded beyond its limit";
}

TEST_P(PortTypeTest, FiltersByTheOtherFieldsAndTakesAWildcardOrAnEmptyTextForThePort) {
  start_pairs({"1|a|500|600|t", "2|b|501|601|u", "3|b|501||v", "4|c||604|w"});
  struct {
    const char *side;
    const char *query;
    texts other;
  } const cases[] = {
      {"external_port", "*|b|501|*", {"601", ""}}, {"external_port", "2|b|501|u", {"601"}},
      {"internal_port", "2|b|601|u", {"501"}},     {"external_port", "*|a|*|*", {"600"}},
      {"internal_port", "*|a|*|*", {"500"}},       {"external_port", "*|*||*", {"604"}},
      {"internal_port", "*|*||*", {"501"}}};
  for (const auto &each : cases) {
    EXPECT_EQ(select(each.side, std::string("pairs,") + each.query), 1) << each.query;
    EXPECT_EQ(other_ports(), each.other) << each.side << " " << each.query;
  }
}

TEST_P(PortTypeTest, LetsAnIndexOnEitherPortColumnServe) {
  start_with({{"idx", {{"id"}, {"call"}, {"ext", 31, true}, {"int", 31, true}, {"tag"}}}},
             {{"idx", {"1|a|500|600|t", "2|b|600|500|u"}}});
  EXPECT_EQ(select("external_port", "idx,*|*|500|*"), 1);
  EXPECT_THAT(avp_texts("id"), ElementsAre("1"));
  EXPECT_THAT(other_ports(), ElementsAre("600"));
  EXPECT_EQ(select("internal_port", "idx,*|*|500|*"), 1);
  EXPECT_THAT(avp_texts("id"), ElementsAre("2"));
  EXPECT_THAT(other_ports(), ElementsAre("600"));
}

TEST_P(PortTypeTest, ReachesATableOfFourColumnsThroughAVariableAlone) {
  // A query of three fields has too few bars to be widened in its list; with the bars that the
  // fix-up looks for behind the limit, where nothing is read, the list comes from the variable.
  start_with({{"four", {{"id"}, {"call"}, {"ext"}, {"int"}}}}, {{"four", {"1|a|500|600"}}});
  EXPECT_EQ(select("external_port", "four,*|*|500", "$avp(id)|$avp(call)|$avp(other)"), -1);
  standin::set_var("q", "*|*|500|*");
  EXPECT_EQ(select("external_port", "four,$var(q),,|||", "$avp(id)|$avp(call)|$avp(other)"), 1);
  EXPECT_THAT(messages(), Contains(dbg("Select four,*|*|500|*,,|||*|\n")));
  EXPECT_THAT(other_ports(), ElementsAre("600"));
}

// The name list.

TEST_P(PortTypeTest, PassesOverEveryEmptyPlaceWithADebugLine) {
  start_pairs({"1|a|500|600|t"});
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*", "$avp(id)||$avp(other)|"), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("other", "id"));
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Port to select=external_port;\n"), dbg("Select pairs,*|*|500|*|*\n"),
                          EXTERNAL, NO_NAME, NO_NAME, NO_NAME));
}

TEST_P(PortTypeTest, DeliversNoMoreThanTheListOrTheTableHas) {
  start_pairs({"1|a|500|600|t"});
  EXPECT_EQ(select("internal_port", "pairs,*|*|600|*", "$avp(id)|$avp(call)|$avp(other)"), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("other", "call", "id"));
  EXPECT_EQ(
      select("internal_port", "pairs,*|*|600|*", "$avp(a)|$avp(b)|$avp(c)|$avp(d)|$avp(e)|$avp(f)"),
      1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("d", "c", "b", "a"));
}

TEST_P(PortTypeTest, ShiftsAListWithFewerThanTwoBarsByOnePlace) {
  start_pairs({"1|a|500|600|t"});
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*", "$avp(x)"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("a")) << "the first place is empty now";
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*", "$avp(x)|$avp(y)"), 1);
  EXPECT_THAT(avp_texts("x"), ElementsAre("a"));
  EXPECT_THAT(avp_texts("y"), ElementsAre("500"));
}

// Refusals and failures.

TEST_P(PortTypeTest, RefusesAnyOtherSelectionBeforeTheQueryIsParsed) {
  start_pairs({"1|a|500|600|t"});
  for (const std::string side : {"external", "EXTERNAL_PORT", "external_por", "external_pore"}) {
    EXPECT_EQ(select(side, "nowhere,*|*|500|*"), -1);
    EXPECT_THAT(messages(),
                ElementsAre(dbg("Port to select=" + side + ";\n"), err(WRONG_SELECTION)));
  }
}

TEST_P(PortTypeTest, PrintsASelectionOf13CharactersAndTheQueryAheadOfAllElse) {
  start_pairs({"1|a|500|600|t"});
  standin::set_var("long", std::string(4096, 'x'));
  standin::set_var("empty", "");
  for (const char *side : {"external_ports", "$var(empty)"}) {
    EXPECT_EQ(select(side, "pairs,*|*|500|*"), -1);
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
  }
  for (const char *side : {"external_port", "wrong"}) {
    EXPECT_EQ(select(side, "pairs,*|*|500|$var(long)"), -1);
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
  }
}

TEST_P(PortTypeTest, FailsToParseWithoutALastLine) {
  start_pairs({"1|a|500|600|t"});
  EXPECT_EQ(select("external_port", "pairs,*|*|500|*|*"), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Port to select=external_port;\n"),
                          dbg("Select pairs,*|*|500|*|*|*\n"), err("Size mismatch"),
                          err("Wrong number of fields in field list: pairs,*|*|500|*|*|* | "
                              "(null)\n"),
                          err("Could not parse query (pairs,*|*|500|*|*|*) for select by port "
                              "type\n")));
}

TEST_P(PortTypeTest, WidensAQueryOfTooFewFieldsIntoOneOfAnUnknownTable) {
  start_pairs({"1|a|500|600|t"});
  EXPECT_EQ(select("external_port", "pairs,a|b"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Table '*|pairs' was not found\n"), err("Table not found\n"),
                          err("Could not parse query (*|pairs,a|b) for select by port type\n")));
}

TEST_P(PortTypeTest, CountsEscapedBarsInTheQueryAsBars) {
  // The new place comes ahead of the port, which is then compared with the other column.
  start_pairs({"x\\|y|a|500|600|t"});
  EXPECT_EQ(select("external_port", "pairs,x\\|y|*|600|*"), 1);
  EXPECT_THAT(messages(), Contains(dbg("Select pairs,x\\|y|*|*|600|*\n")));
  EXPECT_THAT(avp_texts("id"), ElementsAre("x|y"));
}

TEST_P(PortTypeTest, RefusesATableWithoutAPairOfPortColumns) {
  start_with({{"three", {{"a"}, {"b"}, {"c"}}}}, {{"three", {"1|2|3"}}});
  for (const char *side : {"external_port", "internal_port"}) {
    EXPECT_EQ(select(side, "three,*|*|3,,||"), -1);
    ASSERT_THAT(messages(INFO_LEVEL), SizeIs(1));
    EXPECT_EQ(messages(INFO_LEVEL)[0].level, ERR_LEVEL);
    EXPECT_EQ(standin::avp_count(), 0U);
  }
}

TEST_P(PortTypeTest, GoesOnWithoutANameAndKeepsWhatWasDeliveredWhenTheHostRefusesAValue) {
  start_pairs({"1|a|500|600|t", "2|b|500|601|u"});
  const standin::command prepared = fixup(GetParam(), {"external_port", "pairs,*|*|500|*", NAMES});
  clear();
  standin::fail_call("add_avp", 6);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(avp_texts("id"), ElementsAre("1", "2"));
  EXPECT_THAT(avp_texts("call"), ElementsAre("b"));
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not add avp\n")));
  clear();
  standin::fail_call("pv_get_avp_name", 2);
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(avp_texts("call"), ElementsAre("a"));
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_P(PortTypeTest, FailsCleanlyWhateverCallOrAllocationFails) {
  start_pairs({"1|a|500|600|t", "2|b|500|601|u"});
  const standin::command prepared =
      fixup(GetParam(), {"external_port", "pairs,*|*|500|*", "$avp(id)|$avp(call)|$avp(other)"});
  const auto unchanged = [this] {
    expect_rows("pairs", {{"1", "a", "500", "600", "t"}, {"2", "b", "500", "601", "u"}});
  };
  const scene around{[this] { clear(); }, unchanged};
  expect_results_of_failing_calls(prepared, 1,
                                  {{"pv_printf", {-1, -1}},
                                   {"pv_get_avp_name", {1, 1, 1, 1, 1, 1, 1, 1}},
                                   {"add_avp", {-1, -1, -1, -1, -1, -1}}},
                                  around);
  expect_results_of_failing_allocations(pool::pkg, prepared, 1, {-1}, around);
  expect_results_of_failing_allocations(pool::shm, prepared, 1, {}, around);
}

TEST_P(PortTypeTest, TakesPseudoVariablesInSelectionAndQuery) {
  start_pairs({"1|a|500|600|t"});
  standin::set_var("side", "internal_port");
  standin::set_value(msg, "$fU", "a");
  standin::set_value(msg, "$hdr(X-Port)", "600");
  standin::push_avp("tag", "t");
  EXPECT_EQ(run(GetParam(), {"$var(side)", "pairs,*|$fU|$hdr(X-Port)|$avp(tag)", NAMES}), 1);
  EXPECT_THAT(other_ports(), ElementsAre("500"));
  standin::set_value(msg, "$si", "external_port");
  standin::set_value(msg, "$hdr(X-Port)", "500");
  standin::set_var("limit", 1);
  clear();
  EXPECT_EQ(run(GetParam(), {"$si", "pairs,*|*|$hdr(X-Port)|*,$var(limit)", NAMES}), 1);
  EXPECT_THAT(other_ports(), ElementsAre("600"));
}

TEST_P(PortTypeTest, AsksTheHostForItsDebugLevelNoOftenerForMoreRows) {
  texts rows(500, "1|many|500|600|t");
  rows.push_back("1|one|500|600|t");
  start_pairs(rows, 1000);
  standin::set_debug_level(ALERT_LEVEL);
  const standin::command many = fixup(GetParam(), {"external_port", "pairs,*|many|500|*", NAMES});
  const standin::command one = fixup(GetParam(), {"external_port", "pairs,*|one|500|*", NAMES});
  standin::reset_calls();
  EXPECT_EQ(call(one), 1);
  const int for_one = standin::debug_level_queries();
  standin::reset_calls();
  EXPECT_EQ(call(many), 1);
  EXPECT_EQ(standin::debug_level_queries(), for_one);
  EXPECT_THAT(other_ports(), SizeIs(501));
}

INSTANTIATE_TEST_SUITE_P(All, PortTypeTest, testing::Values(LOCKED, NL), [](const auto &tested) {
  return std::string(tested.param == std::string(NL) ? "Nl" : "Locked");
});

}  // namespace
}  // namespace module_test
