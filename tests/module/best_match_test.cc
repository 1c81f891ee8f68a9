// The five best-match selects.
#include "script/params/fixup.h"
#include "tests/module/injection.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char NL[] = "tarn_memdb_nl_select_best_match";
constexpr char PREFIX[] = "tarn_memdb_nl_select_best_match_prefix";
constexpr char ALL_AVPS[] = "$avp(g)|$avp(p)|$avp(w)";
constexpr char FAILED[] = "SELECT failed!\n";
constexpr size_t MOST_HELD = 512;

table routes(int max_rows = 100) {
  return {"routes", {{"grp", 31, true}, {"prefix"}, {"gw"}}, max_rows};
}

message line(const std::string &text) { return dbg("memdb_select_best_match: " + text); }
message entering() { return line("entering 1st memdb_select for lace\n"); }
message processing(const std::string &entry) {
  return line("processing entry [" + entry + "], length=" + std::to_string(entry.size()) + "\n");
}
message no_match(const std::string &entry) {
  return line("table content entry (" + entry + ") does not match, ignoring this row\n");
}
std::string row_and_length(int row, int length) {
  return "rowIndex (" + std::to_string(row) + ") maxLength (" + std::to_string(length) +
         ") table content entry (";
}
message new_best(int row, int length, const std::string &entry) {
  return line(row_and_length(row, length) + entry +
              ") is new best match, discard old one, processing  row\n");
}
message tie(int row, int length, const std::string &entry) {
  return line(row_and_length(row, length) + entry +
              ") is best match as old one, processing  row\n");
}
message shorter(const std::string &entry) {
  return line("table content entry (" + entry +
              ") is match but not the best one match, ignoring this row\n");
}
message empty_ignored(int column) {
  return line("main column (" + std::to_string(column) +
              ") table content empty, ignoring this row\n");
}
message main_column(int column, const std::string &field) {
  return line("main column (" + std::to_string(column) + ") in.flds[column] =" + field + "\n");
}
message entered(int column) { return line("entered,column: '" + std::to_string(column) + "'\n"); }
message group_column(int column, const std::string &field) {
  return line("grp column (" + std::to_string(column) + ") in.flds[column] =" + field + "\n");
}
message limit(int rows) { return line("max_res (" + std::to_string(rows) + ") \n"); }
message saving() { return line("MATCH FOUND and Saving AVP"); }

message no_value(int column) {
  return err("memdb_select_best_match: main column (" + std::to_string(column) +
             ") value is not set or empty, ignoring this row\n");
}
message too_great(int column, int columns) {
  return err("memdb_select_best_match: main column (" + std::to_string(column) +
             ") is greater than total coumns (" + std::to_string(columns) + ")\n");
}
message indexed(int column) {
  return err("memdb_select_best_match: main column (" + std::to_string(column) +
             ") is an index column, ignoring this row\n");
}

class BestMatchTest : public InjectionTest {
 protected:
  void start_routes(const texts &rows, int max_rows = 100) {
    start_with({routes(max_rows)}, {{"routes", rows}});
  }

  // A select of all columns by the second one.
  int best(const std::string &query, const std::string &column = "1") {
    clear();
    return run(NL, {query, ALL_AVPS, column});
  }
  int best_less(const std::string &query, const std::string &flags) {
    clear();
    return run(PREFIX, {query, ALL_AVPS, "1", flags});
  }
  // The gateways of the delivered rows, the one delivered last first.
  static texts gateways() { return avp_texts("w"); }
};

// Traces.

TEST_F(BestMatchTest, TellsEveryStepOfASearch) {
  start_routes({"g|9|a", "g|98|b", "h|987|x", "g|97|c"});
  EXPECT_THAT(
      trace(NL, {"routes,g|987|*", ALL_AVPS, "1"}),
      ElementsAre(dbg("Select: routes,g|987|*\n"), main_column(1, "987"), entered(1),
                  group_column(0, "g"), main_column(1, "(null)"), limit(100), entering(),
                  processing("97"), no_match("97"), entering(), processing("98"),
                  new_best(1, 2, "98"), entering(), processing("9"), shorter("9"), saving()));
}

TEST_F(BestMatchTest, TellsDefaultsTiesAndWhatDiscardsThem) {
  start_routes({"g||e", "g|98|d", "g|98|c", "g|9|b", "g||a", "g||f"});
  EXPECT_THAT(trace(NL, {"routes,g|987|*,7", ALL_AVPS, "1"}),
              ElementsAre(dbg("Select: routes,g|987|*,7\n"), main_column(1, "987"), entered(1),
                          group_column(0, "g"), main_column(1, "(null)"), limit(7), entering(),
                          tie(0, 0, ""), entering(), tie(1, 0, ""), entering(), processing("9"),
                          new_best(2, 1, "9"), entering(), processing("98"), new_best(3, 2, "98"),
                          entering(), processing("98"), tie(4, 2, "98"), entering(),
                          empty_ignored(1), saving(), saving()));
}

TEST_F(BestMatchTest, TellsTheXavpAndWhatGoesIntoIt) {
  start_routes({"g|98|b"});
  EXPECT_THAT(
      trace("tarn_memdb_nl_xavp_select_best_match", {"routes,g|987|*,", "x", "1"}),
      ElementsAre(dbg("Select: routes,g|987|*,\n"), dbg("Select xavp: [x]\n"),
                  main_column(1, "987"), entered(1), group_column(0, "g"), main_column(1, "(null)"),
                  limit(100), entering(), processing("98"), new_best(0, 2, "98"), saving(),
                  dbg("params to explode: grp='g';prefix='98';gw='b'\n")));
}

TEST_F(BestMatchTest, PrintsANullForTheColumnBeforeTheFirst) {
  start_with({{"plain", {{"prefix"}, {"gw"}}}}, {{"plain", {"9|a"}}});
  EXPECT_THAT(trace(NL, {"plain,98|*", "$avp(p)", "0"}),
              ElementsAre(dbg("Select: plain,98|*\n"), main_column(0, "98"), entered(0),
                          group_column(-1, "(null)"), main_column(0, "(null)"), limit(100),
                          entering(), processing("9"), new_best(0, 1, "9"), saving()));
  EXPECT_THAT(avp_texts("p"), ElementsAre("9"));
}

TEST_F(BestMatchTest, SaysNothingAboveDebugWhenNothingMatches) {
  start_routes({"g|9|a"});
  EXPECT_EQ(best("routes,g|8|*"), -2);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

// Which entry wins.

TEST_F(BestMatchTest, DeliversTheLongestPrefixAlone) {
  start_routes({"g|9|a", "g|98|b", "g|97|c"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(avp_texts("g"), ElementsAre("g"));
  EXPECT_THAT(avp_texts("p"), ElementsAre("98"));
  EXPECT_THAT(gateways(), ElementsAre("b"));
}

TEST_F(BestMatchTest, DeliversTheLongestPrefixWhateverTheOrderOfTheRows) {
  start_routes({"g|98|b", "g|97|c", "g|9|a"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("b"));
}

TEST_F(BestMatchTest, DeliversEveryRowOfTheLongestEntryInTheOrderOfTheirVisit) {
  start_routes({"g|98|oldest", "g|98|middle", "g|9|x", "g|98|newest"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  // Visited newest first; the value added last is read first.
  EXPECT_THAT(gateways(), ElementsAre("oldest", "middle", "newest"));
}

TEST_F(BestMatchTest, TakesDifferentEntriesOfOneLengthAsTies) {
  start_routes({"g|123|a", "g|124|b"});
  EXPECT_EQ(best_less("routes,g|12|*", "1"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a", "b"));
}

TEST_F(BestMatchTest, MatchesAnEntryEqualToTheKey) {
  start_routes({"g|987|a"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

TEST_F(BestMatchTest, DoesNotMatchAnEntryLongerThanTheKey) {
  start_routes({"g|9876|a"});
  EXPECT_EQ(best("routes,g|987|*"), -2);
  EXPECT_EQ(standin::avp_count(), 0U);
}

TEST_F(BestMatchTest, DeliversRowsWithoutAnEntryWhenNoneMatched) {
  start_routes({"g||a", "g|8|b", "g||c"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a", "c"));
}

TEST_F(BestMatchTest, DiscardsRowsWithoutAnEntryForTheFirstThatMatches) {
  start_routes({"g||later", "g|1|one", "g||b", "g||a"});
  EXPECT_EQ(best("routes,g|12|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("one"));
}

TEST_F(BestMatchTest, SearchesOneGroupAmongSeveral) {
  start_routes({"g|98|a", "h|987|b", "g|9|c", "h||d"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
  EXPECT_EQ(best("routes,h|11|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("d"));
  EXPECT_EQ(best("routes,i|987|*"), -2);
}

TEST_F(BestMatchTest, FiltersByEveryOtherFieldAndTheEmptyOneToo) {
  start_routes({"g|98|", "g|987|b"});
  EXPECT_EQ(best("routes,*|987|"), 1);
  EXPECT_THAT(avp_texts("p"), ElementsAre("98"));
}

TEST_F(BestMatchTest, VisitsEveryRowNewestFirstWithoutAFilter) {
  start_routes({"g|9|a", "h|9|b", "i|9|c"});
  EXPECT_EQ(best("routes,*|9|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a", "b", "c"));
}

TEST_F(BestMatchTest, ComparesBytesAndNotNumbers) {
  start_routes({"g|+49|a", "g|049|b", "g|49 |c"});
  EXPECT_EQ(best("routes,g|+4930|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
  EXPECT_EQ(best("routes,g|4930|*"), -2);
}

TEST_F(BestMatchTest, TakesTheFirstColumnForATextWithoutANumber) {
  start_with({{"plain", {{"prefix"}, {"gw"}}}}, {{"plain", {"9|a"}}});
  EXPECT_EQ(run(NL, {"plain,98|*", "$avp(p)|$avp(w)", "gw"}), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

TEST_F(BestMatchTest, SearchesTheLastColumn) {
  start_routes({"g|x|98", "g|y|97"});
  EXPECT_EQ(best("routes,g|*|987", "2"), 1);
  EXPECT_THAT(avp_texts("p"), ElementsAre("x"));
}

TEST_F(BestMatchTest, GivesNoRowForAnEmptyTable) {
  start({routes()});
  EXPECT_EQ(best("routes,g|987|*"), -2);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

// Flags.

TEST_F(BestMatchTest, LeavesCharactersAtTheEndOfAnEntryOut) {
  start_routes({"g|123|a"});
  EXPECT_EQ(best_less("routes,g|12|*", "0"), -2);
  EXPECT_EQ(best_less("routes,g|12|*", "1"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

TEST_F(BestMatchTest, RanksEntriesByTheirFullLength) {
  start_routes({"g|1299|long", "g|12|short"});
  EXPECT_EQ(best_less("routes,g|12|*", "2"), 1);
  EXPECT_THAT(gateways(), ElementsAre("long"));
  EXPECT_THAT(messages(), Contains(new_best(1, 4, "1299")));
}

TEST_F(BestMatchTest, MatchesWithoutComparingWhenFlagsReachTheLength) {
  start_routes({"g|12|a"});
  EXPECT_EQ(best_less("routes,g|99|*", "2"), 1);
  EXPECT_EQ(best_less("routes,g|99|*", "3"), 1);
  EXPECT_EQ(best_less("routes,g|99|*", "1"), -2);
}

TEST_F(BestMatchTest, ComparesTheEntryThatIsOneLongerThanFlags) {
  start_routes({"g|923|match", "g|823|no"});
  EXPECT_EQ(best_less("routes,g|99|*", "2"), 1);
  EXPECT_THAT(gateways(), ElementsAre("match"));
}

TEST_F(BestMatchTest, MatchesEveryEntryWithNegativeFlags) {
  start_routes({"g|1|a", "g|777|b", "g|888|c", "g||d"});
  standin::set_var("flags", -1);
  EXPECT_EQ(best_less("routes,g|9|*", "$var(flags)"), 1);
  EXPECT_THAT(gateways(), ElementsAre("b", "c"));
}

TEST_F(BestMatchTest, KeepsEmptyEntriesAsDefaultsWhateverTheFlags) {
  start_routes({"g||d", "g|77|a"});
  EXPECT_EQ(best_less("routes,g|9|*", "5"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

TEST_F(BestMatchTest, ReadsFlagsFromAScriptVariableAtEachCall) {
  start_routes({"g|123|a"});
  const standin::command prepared = fixup(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "$var(f)"});
  EXPECT_EQ(call(prepared), -2) << "a variable that was never set holds 0";
  standin::set_var("f", 1);
  EXPECT_EQ(call(prepared), 1);
  standin::set_var("f", 0);
  EXPECT_EQ(call(prepared), -2);
}

TEST_F(BestMatchTest, ReadsFlagsFromAnAvpThatHoldsANumber) {
  start_routes({"g|123|a"});
  standin::push_avp("f", 1);
  EXPECT_EQ(run(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "$avp(f)"}), 1);
}

TEST_F(BestMatchTest, RefusesFlagsThatAreATextEvenOfDigits) {
  start_routes({"g|123|a"});
  const message not_integer = err("Invalid pvar type - param 3: flags\n");
  standin::set_var("f", "1");
  EXPECT_EQ(best_less("routes,g|12|*", "$var(f)"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(not_integer));
  clear();
  standin::push_avp("f", "1");
  EXPECT_EQ(run(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "$avp(f)"}), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(not_integer));
}

TEST_F(BestMatchTest, RefusesFlagsFromAnAvpWithoutAValue) {
  start_routes({"g|123|a"});
  EXPECT_EQ(best_less("routes,g|12|*", "$avp(nothing)"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Invalid pvar type - param 3: flags\n")));
}

TEST_F(BestMatchTest, FailsForFlagsThatCannotBeRead) {
  start_routes({"g|123|a"});
  standin::set_var("f", value::unreadable());
  EXPECT_EQ(best_less("routes,g|12|*", "$var(f)"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Cannot get flags value\n")));
}

TEST_F(BestMatchTest, FailsForFlagsOfNoKnownKind) {
  start_routes({"g|123|a"});
  const standin::command prepared = fixup(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "1"});
  reinterpret_cast<num_or_pv *>(prepared.slot(4).get())->type = 1;
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("get flags value Error\n")));
}

TEST_F(BestMatchTest, TakesMissingFlagsAsNone) {
  start_routes({"g|123|a"});
  const standin::command prepared = fixup(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "1"});
  EXPECT_EQ(call_with_null(prepared, 4), -2);
  EXPECT_EQ(call(prepared), 1);
}

TEST_F(BestMatchTest, RefusesNegativeFlagsAndOtherVariablesAsTheScriptLoads) {
  start_routes({"g|123|a"});
  EXPECT_FALSE(fixup(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "-1"}).accepted());
  EXPECT_FALSE(fixup(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "$fU"}).accepted());
  EXPECT_TRUE(fixup(PREFIX, {"routes,g|12|*", ALL_AVPS, "1", "text"}).accepted());
}

TEST_F(BestMatchTest, ReadsFlagsBeforeItLooksAtTheColumn) {
  start_routes({"g|123|a"});
  EXPECT_EQ(run(PREFIX, {"routes,g|12|*", ALL_AVPS, "9", "$avp(nothing)"}), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Invalid pvar type - param 3: flags\n")));
}

// Limits.

TEST_F(BestMatchTest, StopsAfterMaxResRowsVisited) {
  start_routes({"g|987|oldest", "g|98|middle", "g|11|newest"});
  EXPECT_EQ(best("routes,g|9876|*,1"), -2) << "the one row visited doesn't match";
  EXPECT_EQ(best("routes,g|9876|*,2"), 1);
  EXPECT_THAT(gateways(), ElementsAre("middle")) << "the longer entry stays unseen";
  EXPECT_EQ(best("routes,g|9876|*,3"), 1);
  EXPECT_THAT(gateways(), ElementsAre("oldest"));
}

TEST_F(BestMatchTest, VisitsAsManyRowsAsTheTableMayHoldWithoutALimit) {
  texts rows(6, "g|9|x");
  rows[0] = "g|98|oldest";
  start_routes(rows, 5);
  EXPECT_EQ(best("routes,g|98|*"), 1);
  EXPECT_THAT(gateways(), testing::SizeIs(5)) << "a table loaded beyond its limit";
  EXPECT_EQ(best("routes,g|98|*,6"), 1);
  EXPECT_THAT(gateways(), ElementsAre("oldest"));
}

TEST_F(BestMatchTest, CountsOnlyRowsThatPassTheFilterAsVisited) {
  start_routes({"g|98|a", "h|1|b", "h|2|c", "h|3|d"});
  EXPECT_EQ(best("routes,g|98|*,1"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

TEST_F(BestMatchTest, HoldsNoMoreThan512Rows) {
  texts rows;
  for (size_t i = 0; i < MOST_HELD + 88; i++) rows.push_back("g|98|" + std::to_string(i));
  start_routes(rows, 1000);
  EXPECT_EQ(best("routes,g|987|*"), 1);
  const texts found = gateways();
  ASSERT_EQ(found.size(), MOST_HELD);
  EXPECT_EQ(found.front(), "88") << "the 512th row from the newest on";
  EXPECT_EQ(found.back(), "599");
}

TEST_F(BestMatchTest, EndsTheScanWithAFullListThoughALongerEntryFollows) {
  texts rows = {"g|987|longer"};
  for (size_t i = 0; i < MOST_HELD; i++) rows.push_back("g|98|" + std::to_string(i));
  start_routes(rows, 1000);
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_EQ(gateways().size(), MOST_HELD);
  EXPECT_THAT(gateways(), Not(Contains("longer")));
}

TEST_F(BestMatchTest, GoesOnWithAListThatIsFullButForOneRow) {
  texts rows = {"g|987|longer"};
  for (size_t i = 0; i + 1 < MOST_HELD; i++) rows.push_back("g|98|" + std::to_string(i));
  start_routes(rows, 1000);
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(gateways(), ElementsAre("longer"));
}

TEST_F(BestMatchTest, StartsAFreshListWithALongerEntry) {
  // Visited: 511 short ones, then 512 long ones, then a longest one that isn't seen any more.
  texts rows = {"g|9876|longest"};
  for (size_t i = 0; i < MOST_HELD; i++) rows.push_back("g|987|" + std::to_string(i));
  for (size_t i = 0; i + 1 < MOST_HELD; i++) rows.push_back("g|98|short");
  start_routes(rows, 2000);
  EXPECT_EQ(best("routes,g|9876|*"), 1);
  EXPECT_EQ(gateways().size(), MOST_HELD);
  EXPECT_THAT(gateways(), Not(Contains("short")));
  EXPECT_THAT(gateways(), Not(Contains("longest")));
}

TEST_F(BestMatchTest, FillsTheListWithDefaultsToo) {
  texts rows = {"g|9|real"};
  for (size_t i = 0; i < MOST_HELD; i++) rows.push_back("g||" + std::to_string(i));
  start_routes(rows, 1000);
  EXPECT_EQ(best("routes,g|9|*"), 1);
  EXPECT_EQ(gateways().size(), MOST_HELD);
  EXPECT_THAT(gateways(), Not(Contains("real")));
}

// Refusals. The search begins with none of them.

TEST_F(BestMatchTest, RefusesAWildcardAtTheMainColumn) {
  start_routes({"g|9|a"});
  EXPECT_THAT(trace(NL, {"routes,g|*|*", ALL_AVPS, "1"}),
              ElementsAre(dbg("Select: routes,g|*|*\n"), main_column(1, "(null)"), no_value(1)));
  EXPECT_EQ(best("routes,g|*|*"), -1);
}

TEST_F(BestMatchTest, RefusesAnEmptyValueAtTheMainColumn) {
  start_routes({"g|9|a", "g||b"});
  EXPECT_THAT(trace(NL, {"routes,g||*", ALL_AVPS, "1"}),
              ElementsAre(dbg("Select: routes,g||*\n"), main_column(1, ""), no_value(1)));
  EXPECT_EQ(best("routes,g||*"), -1);
}

TEST_F(BestMatchTest, RefusesAnIndexedMainColumn) {
  start_routes({"g|9|a"});
  EXPECT_THAT(
      trace(NL, {"routes,g|9|*", ALL_AVPS, "0"}),
      ElementsAre(dbg("Select: routes,g|9|*\n"), main_column(0, "g"), entered(0), indexed(0)));
  EXPECT_EQ(best("routes,g|9|*", "0"), -1);
}

TEST_F(BestMatchTest, SeesAMissingValueBeforeAnIndexedColumn) {
  start_routes({"g|9|a"});
  EXPECT_EQ(best("routes,*|9|*", "0"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(no_value(0)));
}

TEST_F(BestMatchTest, RefusesAColumnAboveTheCount) {
  start_routes({"g|9|a"});
  EXPECT_THAT(trace(NL, {"routes,g|9|*", ALL_AVPS, "4"}),
              ElementsAre(dbg("Select: routes,g|9|*\n"), too_great(4, 3)));
  EXPECT_EQ(best("routes,g|9|*", "4"), -1);
}

TEST_F(BestMatchTest, RefusesAColumnEqualToTheCount) {
  start_routes({"g|9|a"});
  EXPECT_EQ(best("routes,g|9|*", "3"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: routes,g|9|*\n"), too_great(3, 3)));
}

TEST_F(BestMatchTest, RefusesANegativeColumnAsTheScriptLoadsAndAtRunTime) {
  start_routes({"g|9|a"});
  EXPECT_FALSE(fixup(NL, {"routes,g|9|*", ALL_AVPS, "-1"}).accepted());
  const standin::command prepared = fixup(NL, {"routes,g|9|*", ALL_AVPS, "00"});
  clear();
  replace_text(prepared, 3, "-1");
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(too_great(-1, 3)));
}

// Failures before the search.

TEST_F(BestMatchTest, EndsAPrintFailureWithTheLastLine) {
  start_routes({"g|9|a"});
  const standin::command prepared = fixup(NL, {"routes,g|9|*", ALL_AVPS, "1"});
  clear();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err(FAILED)));
}

TEST_F(BestMatchTest, TakesAnEmptyQueryForAPrintFailure) {
  start_routes({"g|9|a"});
  standin::set_var("q", "");
  EXPECT_EQ(best("$var(q)"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err(FAILED)));
}

TEST_F(BestMatchTest, TakesAQueryThatDoesNotFitForAPrintFailure) {
  start_routes({"g|9|a"});
  standin::set_var("q", "routes,g|9|" + std::string(4096 - 11, 'x'));
  EXPECT_EQ(best("$var(q)"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err(FAILED)));
  standin::set_var("q", "routes,g|9|" + std::string(4095 - 11, 'x'));
  EXPECT_EQ(best("$var(q)"), -2) << "with its terminator this one just fits";
}

TEST_F(BestMatchTest, EndsAParseFailureWithTheLastLine) {
  start_routes({"g|9|a"});
  EXPECT_EQ(best("routes,g|9"), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: routes,g|9\n"), err("Size mismatch"),
                          err("Wrong number of fields in field list: routes,g|9 | (null)\n"),
                          err("Could not parse query (routes,g|9) for insert\n"), err(FAILED)));
}

TEST_F(BestMatchTest, FailsToParseTheQueryOfAnUnknownTable) {
  start_routes({"g|9|a"});
  EXPECT_EQ(best("nowhere,g|9|*"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Table 'nowhere' was not found\n"), err("Table not found\n"),
                          err("Could not parse query (nowhere,g|9|*) for insert\n"), err(FAILED)));
}

TEST_F(BestMatchTest, FailsACallWhoseQueryTheHostRefusedAsTheScriptLoaded) {
  start_routes({"g|9|a"});
  const standin::command prepared = fixup(NL, {"routes,$nosuch|9|*", ALL_AVPS, "1"});
  ASSERT_TRUE(prepared.accepted());
  clear();
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err(FAILED)));
}

// Delivery.

TEST_F(BestMatchTest, SkipsColumnsWithAnEmptyPlaceInTheList) {
  start_routes({"g|98|a"});
  EXPECT_EQ(run(NL, {"routes,g|987|*", "$avp(g)||$avp(w)", "1"}), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("w", "g"));
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

TEST_F(BestMatchTest, DeliversNoMoreThanTheListOrTheTableHas) {
  start_routes({"g|98|a"});
  EXPECT_EQ(run(NL, {"routes,g|987|*", "$avp(g)", "1"}), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("g"));
  clear();
  EXPECT_EQ(run(NL, {"routes,g|987|*", "$avp(a)|$avp(b)|$avp(c)|$avp(d)", "1"}), 1);
  EXPECT_THAT(standin::avp_names(), ElementsAre("c", "b", "a"));
}

TEST_F(BestMatchTest, DeliversAnEmptyFieldAsAnEmptyText) {
  start_routes({"g|98|"});
  EXPECT_EQ(best("routes,g|987|*"), 1);
  EXPECT_THAT(standin::avp("w"), ElementsAre(value("")));
}

TEST_F(BestMatchTest, KeepsTheRowsAheadOfOneThatTheHostRefuses) {
  start_routes({"g|98|a", "g|98|b"});
  const standin::command prepared = fixup(NL, {"routes,g|987|*", ALL_AVPS, "1"});
  clear();
  standin::fail_call("add_avp", 5);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(avp_texts("g"), ElementsAre("g", "g"));
  EXPECT_THAT(gateways(), ElementsAre("b"));
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not add avp\n")));
}

TEST_F(BestMatchTest, MakesOneXavpPerRow) {
  for (const standin::host_kind kind :
       {standin::host_kind::exported_explode, standin::host_kind::ninth_operation}) {
    standin::set_host_kind(kind);
    start_routes({"g|98|a", "g|98|b", "g|9|c"});
    for (const char *function :
         {"tarn_memdb_xavp_select_best_match", "tarn_memdb_nl_xavp_select_best_match"}) {
      clear();
      EXPECT_EQ(run(function, {"routes,g|987|*,", "x", "1"}), 1);
      EXPECT_THAT(
          standin::xavps("x"),
          ElementsAre(
              ElementsAre(std::pair("grp", "g"), std::pair("prefix", "98"), std::pair("gw", "a")),
              ElementsAre(std::pair("grp", "g"), std::pair("prefix", "98"), std::pair("gw", "b"))));
    }
    forget_view();
    unload();
    load();
  }
  start({routes()});
}

TEST_F(BestMatchTest, NamesTheXavpThroughAPseudoVariable) {
  start_routes({"g|98|a"});
  standin::set_var("name", "route");
  EXPECT_EQ(run("tarn_memdb_nl_xavp_select_best_match", {"routes,g|987|*,", "$var(name)", "1"}), 1);
  EXPECT_EQ(standin::xavp_item("route", 0, "gw"), value("a"));
}

TEST_F(BestMatchTest, TakesNamedListsInTheXavpFlavoursAlone) {
  start_routes({"g|98|a"});
  EXPECT_EQ(run("tarn_memdb_xavp_select_best_match", {"routes,prefix=987;grp=g,", "x", "1"}), 1);
  EXPECT_EQ(standin::xavp_item("x", 0, "gw"), value("a"));
  EXPECT_EQ(best("routes,prefix=987;grp=g,"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), Contains(err("Size mismatch")));
}

TEST_F(BestMatchTest, FailsWithoutALastLineWhenTheXavpHasNoName) {
  start_routes({"g|98|a"});
  const standin::command prepared =
      fixup("tarn_memdb_xavp_select_best_match", {"routes,g|987|*,", "x", "1"});
  clear();
  standin::fail_call("get_str_fparam", 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: routes,g|987|*,\n"), err("cannot get the xavp name\n")));
}

TEST_F(BestMatchTest, FailsWithoutALineWhenTheXavpCannotBeMade) {
  start_routes({"g|98|a", "g|98|b"});
  const standin::command prepared =
      fixup("tarn_memdb_xavp_select_best_match", {"routes,g|987|*,", "x", "1"});
  clear();
  standin::fail_call("explode_params", 2);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_EQ(standin::xavps("x").size(), 1U);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(BestMatchTest, FailsForWantOfAnXavpBufferThoughNothingMatches) {
  start_routes({"g|98|a"});
  const standin::command prepared =
      fixup("tarn_memdb_nl_xavp_select_best_match", {"routes,g|5|*,", "x", "1"});
  clear();
  EXPECT_EQ(call(prepared), -2);
  standin::fail_at(pool::pkg, 2);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not allocate xavp memory for tarn_memdb_select_cmn\n")));
}

// Parameters from pseudo-variables.

TEST_F(BestMatchTest, PutsPseudoVariablesIntoTheQuery) {
  start_routes({"g|98|a"});
  standin::set_value(msg, "$fU", "987");
  standin::set_value(msg, "$hdr(X-Group)", "g");
  standin::set_value(msg, "$si", "a");
  EXPECT_EQ(best("routes,$hdr(X-Group)|$fU|$si"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
  standin::set_var("table", "routes");
  standin::push_avp("grp", "g");
  EXPECT_EQ(run(NL, {"$var(table),$avp(grp)|$fU|*,$ml", ALL_AVPS, "1"}), 1)
      << "a limit that isn't a number is none";
}

TEST_F(BestMatchTest, LetsAPseudoVariableChangeTheStructureOfTheQuery) {
  start_routes({"g|98|a"});
  standin::set_value(msg, "$fU", "987|*,1");
  EXPECT_EQ(best("routes,g|$fU"), 1);
  EXPECT_THAT(gateways(), ElementsAre("a"));
}

// Every flavour in turn.

struct flavour {
  const char *function;
  bool as_xavp;
  bool with_flags;
};

class BestMatchFlavourTest : public BestMatchTest, public testing::WithParamInterface<flavour> {
 protected:
  texts parameters(const std::string &query, const std::string &column = "1") const {
    texts out = {query, GetParam().as_xavp ? "x" : ALL_AVPS, column};
    if (GetParam().with_flags) out.push_back("0");
    return out;
  }
  size_t delivered() const {
    return GetParam().as_xavp ? standin::xavps("x").size() : gateways().size();
  }
};

TEST_P(BestMatchFlavourTest, GivesOneForRowsMinusTwoForNoneAndMinusOneForAFailure) {
  start_routes({"g|98|a", "g|98|b"});
  EXPECT_EQ(run(GetParam().function, parameters("routes,g|987|*,")), 1);
  EXPECT_EQ(delivered(), 2U);
  EXPECT_EQ(run(GetParam().function, parameters("routes,g|5|*,")), -2);
  EXPECT_EQ(run(GetParam().function, parameters("routes,g|*|*,")), -1);
  EXPECT_EQ(run(GetParam().function, parameters("routes,g|9|*,", "3")), -1);
  EXPECT_EQ(delivered(), 2U);
}

TEST_P(BestMatchFlavourTest, AsksTheHostForItsDebugLevelNoOftenerForMoreRows) {
  texts rows(500, "g|9|a");
  rows[499] = "h|98|b";
  start_routes(rows, 1000);
  standin::set_debug_level(ALERT_LEVEL);
  const standin::command many = fixup(GetParam().function, parameters("routes,g|987|*,"));
  const standin::command one = fixup(GetParam().function, parameters("routes,h|987|*,"));
  standin::reset_calls();
  EXPECT_EQ(call(one), 1);
  const int for_one = standin::debug_level_queries();
  standin::reset_calls();
  EXPECT_EQ(call(many), 1);
  EXPECT_EQ(standin::debug_level_queries(), for_one);
  EXPECT_GT(for_one, 0);
}

TEST_P(BestMatchFlavourTest, FailsCleanlyWhateverCallOrAllocationFails) {
  start_routes({"g|98|a", "g|98|b"});
  standin::set_var("q", "g|987|*");
  const standin::command prepared = fixup(GetParam().function, parameters("routes,$var(q),"));
  const auto unchanged = [this] { expect_rows("routes", {{"g", "98", "a"}, {"g", "98", "b"}}); };
  const scene around{[this] { clear(); }, unchanged};
  if (GetParam().as_xavp) {
    // A value and a name for each of the three places, twice, are what the host itself allocates.
    expect_results_of_failing_calls(
        prepared, 1, {{"pv_printf", {-1}}, {"get_str_fparam", {-1}}, {"explode_params", {-1, -1}}},
        around);
    expect_results_of_failing_allocations(pool::pkg, prepared, 1, {-1, -1, -1, -1, -1, -1, -1, -1},
                                          around);
  } else {
    // A name that can't be resolved is passed over.
    expect_results_of_failing_calls(prepared, 1,
                                    {{"pv_printf", {-1}},
                                     {"pv_get_avp_name", {1, 1, 1, 1, 1, 1}},
                                     {"add_avp", {-1, -1, -1, -1, -1, -1}}},
                                    around);
    expect_results_of_failing_allocations(pool::pkg, prepared, 1, {-1}, around);
  }
  expect_results_of_failing_allocations(pool::shm, prepared, 1, {}, around);
}

TEST_F(BestMatchTest, FailsCleanlyWhenFlagsCannotBeRead) {
  start_routes({"g|98|a"});
  const standin::command prepared = fixup(PREFIX, {"routes,g|987|*", "$avp(w)", "1", "$var(f)"});
  expect_results_of_failing_calls(prepared, 1,
                                  {{"pv_printf", {-1}},
                                   {"pv_get_spec_value", {-1}},
                                   {"pv_get_avp_name", {1}},
                                   {"add_avp", {-1}}},
                                  {});
}

INSTANTIATE_TEST_SUITE_P(
    All, BestMatchFlavourTest,
    testing::Values(flavour{"tarn_memdb_select_best_match", false, false},
                    flavour{"tarn_memdb_nl_select_best_match", false, false},
                    flavour{"tarn_memdb_nl_select_best_match_prefix", false, true},
                    flavour{"tarn_memdb_xavp_select_best_match", true, false},
                    flavour{"tarn_memdb_nl_xavp_select_best_match", true, false}),
    [](const auto &tested) {
      return std::string(tested.param.function + sizeof("tarn_memdb_") - 1);
    });

}  // namespace
}  // namespace module_test
