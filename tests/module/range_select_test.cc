// The two selects that compare a number: out of the range, and within it.
#include <pthread.h>

#include "script/params/fixup.h"
#include "tests/module/injection.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char OUT[] = "tarn_memdb_nl_select_field_out_of_range";
constexpr char WITHIN[] = "tarn_memdb_nl_select_field_within_the_range";
constexpr char ALL_AVPS[] = "$avp(g)|$avp(n)|$avp(t)";
constexpr char FAILED[] = "SELECT failed!\n";
constexpr size_t MOST_VISITED = 512;
constexpr size_t MOST_COUNTED = 32000;

table loads(int max_rows = 100) {
  return {"loads", {{"grp", 31, true}, {"number"}, {"tag"}}, max_rows};
}

std::string text(int number) { return std::to_string(number); }

message entered(int column) { return dbg("Entered,column: '" + text(column) + "'\n"); }
message group_column(int column, const std::string &field) {
  return dbg("Grp column (" + text(column) + ") in.flds[column] =" + field + "\n");
}
message main_column(int column) {
  return dbg("Main column (" + text(column) + ") in.flds[column] =(null)\n");
}
message limit(int rows) { return dbg("Max_res (" + text(rows) + ") \n"); }
message entering() { return dbg("Entering 1st memdb_select for lace\n"); }
message in_range(const std::string &entry, int number, int lower, int upper) {
  return dbg("Field in range [" + entry + "], length=" + text(static_cast<int>(entry.size())) +
             " column=1 entryInt=" + text(number) + " range=(" + text(lower) + " to " +
             text(upper) + ") \n");
}
message out_of_range(int row, const std::string &entry) {
  return dbg("RowIndex (" + text(row) + ") table content entry (" + entry +
             ") is out of range, processing  row\n");
}
message saving() { return dbg("MATCH FOUND and Saving AVP"); }
message too_great(int column, int columns) {
  return err("main column (" + text(column) + ") is greater than total coumns (" + text(columns) +
             ")\n");
}
message indexed(int column) {
  return err("Main column (" + text(column) + ") is an index column, ignoring this row\n");
}
const message UNREADABLE = err("Cannot get flags value\n");
const message LOWER_TEXT = err("Invalid pvar type - param 3: lower range limit\n");
const message UPPER_TEXT = err("Invalid pvar type - param 4: upper range limit\n");
const message NO_KIND = err("get flags value Error\n");

message loop(int row, int count, int max_res, int before, int lower, int upper) {
  return dbg("Loop Debug - i=" + text(row) + ", rowCount=" + text(count) +
             ", in.max_res=" + text(max_res) + ", entryInt=" + text(before) +
             ", lower_range_limit=" + text(lower) + ", upper_range_limit=" + text(upper) + "\n");
}
message alarm_entry(int number, int lower, int upper) {
  return dbg("ALARM REG_USERS DBG: entryInt=" + text(number) +
             ", lower_range_limit=" + text(lower) + ", upper_range_limit=" + text(upper) + "\n");
}
message alarm_count(int count) { return dbg("ALARM REG_USERS DBG: rowCount_in " + text(count)); }
message target_set(int count) {
  return dbg("ALARM REG_USERS DBG Set AVP rowCount_in = " + text(count) + " successfully\n");
}
const message NOT_SET = err("ALARM REG_USERS DBG Could not set AVP for rowCount_in\n");
const message RETURNING =
    dbg("ALARM REG_USERS DBG Returning row count result: -2 (found=0, xavp_buff='(null)')\n");

// Runs work in a thread with that much stack.
int on_small_stack(size_t bytes, const std::function<int()> &work) {
  struct job {
    const std::function<int()> &work;
    int result;
  } done{work, 0};
  pthread_attr_t attributes;
  pthread_t thread;
  pthread_attr_init(&attributes);
  EXPECT_EQ(pthread_attr_setstacksize(&attributes, bytes), 0);
  const auto run = [](void *arg) -> void * {
    auto *const mine = static_cast<job *>(arg);
    mine->result = mine->work();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, run, &done), 0);
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
  return done.result;
}

class RangeTest : public InjectionTest {
 protected:
  void start_loads(const texts &rows, int max_rows = 100) {
    start_with({loads(max_rows)}, {{"loads", rows}});
  }
  // A table of one group with these numbers, oldest first.
  void start_numbers(const texts &numbers, int max_rows = 100) {
    texts rows;
    for (const std::string &number : numbers) rows.push_back("g|" + number + "|t");
    start_loads(rows, max_rows);
  }
  int out_of(const std::string &query, const std::string &lower, const std::string &upper,
             const std::string &column = "1") {
    clear();
    return run(OUT, {query, ALL_AVPS, column, lower, upper});
  }
  int within(const std::string &query, const std::string &lower, const std::string &upper,
             const std::string &target = "$var(count)", const std::string &column = "1") {
    clear();
    standin::set_var("count", "unset");
    return run(WITHIN, {query, ALL_AVPS, column, lower, upper, target});
  }
  // The numbers of the delivered rows, the one delivered last first.
  static texts numbers() { return avp_texts("n"); }
  static value counted() { return standin::var("count"); }
};

// Out of the range: what is delivered.

TEST_F(RangeTest, OutTellsEveryStep) {
  start_loads({"g|9|a", "g|15|b", "h|5|x", "g|21|c"});
  EXPECT_THAT(trace(OUT, {"loads,g|x|*", ALL_AVPS, "1", "10", "20"}),
              ElementsAre(dbg("Select: loads,g|x|*\n"), entered(1), group_column(0, "g"),
                          main_column(1), limit(100), entering(), out_of_range(0, "21"), entering(),
                          in_range("15", 15, 10, 20), entering(), out_of_range(2, "9"), saving(),
                          saving()));
}

TEST_F(RangeTest, OutDeliversWhatLiesBelowOrAboveTheLimits) {
  start_numbers({"9", "10", "15", "20", "21"});
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), 2);
  EXPECT_THAT(numbers(), ElementsAre("9", "21"));
  EXPECT_THAT(avp_texts("g"), ElementsAre("g", "g"));
  EXPECT_THAT(avp_texts("t"), ElementsAre("t", "t"));
}

TEST_F(RangeTest, OutTakesAnEmptyFieldAndOneThatIsNoNumberForZero) {
  start_numbers({"", "abc", "15"});
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), 2);
  EXPECT_THAT(numbers(), ElementsAre("", "abc"));
  EXPECT_EQ(out_of("loads,g|*|*", "0", "5"), 1);
  EXPECT_THAT(numbers(), ElementsAre("15"));
}

TEST_F(RangeTest, OutReadsSignsLeadingBlanksAndTheNumberAtTheStart) {
  start_numbers({"-5", " 7", "+8", "9x", "0010"});
  EXPECT_EQ(out_of("loads,g|*|*", "7", "10"), 1);
  EXPECT_THAT(numbers(), ElementsAre("-5"));
}

TEST_F(RangeTest, OutGivesTheNumberOfRowsAndNotOne) {
  start_numbers({"1", "2", "3", "4", "5"});
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), 5);
  EXPECT_THAT(numbers(), ElementsAre("1", "2", "3", "4", "5"));
}

TEST_F(RangeTest, OutGivesMinusTwoWhenEveryRowIsInRange) {
  start_numbers({"10", "15", "20"});
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(standin::avp_count(), 0U);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(RangeTest, OutGivesMinusTwoForAnEmptyTableAndForNoMatch) {
  start({loads()});
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(run("tarn_memdb_insert", {"loads,g|1|t"}), 1);
  EXPECT_EQ(out_of("loads,h|*|*", "10", "20"), -2);
}

TEST_F(RangeTest, OutFindsEveryRowWithLimitsTheWrongWayRound) {
  start_numbers({"9", "15", "21"});
  EXPECT_EQ(out_of("loads,g|*|*", "20", "10"), 3);
}

TEST_F(RangeTest, OutFiltersByTheOtherFieldsAndIgnoresTheMainOne) {
  start_loads({"g|1|a", "h|1|a", "g|1|b"});
  EXPECT_EQ(out_of("loads,g|*|a", "10", "20"), 1);
  EXPECT_EQ(out_of("loads,g|77|a", "10", "20"), 1) << "a wrong value has no effect";
  EXPECT_EQ(out_of("loads,g||a", "10", "20"), 1) << "nor has an empty one";
  EXPECT_EQ(out_of("loads,*|*|*", "10", "20"), 3);
}

TEST_F(RangeTest, OutStopsAfterMaxResRowsHeld) {
  start_numbers({"1", "2", "15", "15", "3", "15"});
  EXPECT_EQ(out_of("loads,g|*|*,2", "10", "20"), 2);
  EXPECT_THAT(numbers(), ElementsAre("2", "3"));
  EXPECT_EQ(out_of("loads,g|*|*,1", "10", "20"), 1) << "a first row in range isn't held";
  EXPECT_THAT(numbers(), ElementsAre("3"));
}

TEST_F(RangeTest, OutHoldsAsManyRowsAsTheTableMayHoldWithoutALimit) {
  start_numbers({"1", "2", "3", "15", "4"}, 3);
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), 3) << "a table loaded beyond its limit";
  EXPECT_THAT(numbers(), ElementsAre("2", "3", "4"));
  EXPECT_EQ(out_of("loads,g|*|*,4", "10", "20"), 4);
}

TEST_F(RangeTest, OutLooksAtNoRowPastThe512th) {
  texts rows(MOST_VISITED + 1, "15");
  rows[0] = "1";  // visited as the 513th
  rows[1] = "2";
  start_numbers(rows, 1000);
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), 1);
  EXPECT_THAT(numbers(), ElementsAre("2"));
}

TEST_F(RangeTest, OutHolds512RowsAtMost) {
  start_numbers(texts(MOST_VISITED + 1, "1"), 1000);
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), static_cast<int>(MOST_VISITED));
  EXPECT_THAT(numbers(), SizeIs(MOST_VISITED));
}

TEST_F(RangeTest, OutCountsOnlyRowsThatPassTheFilterAsVisited) {
  texts rows(MOST_VISITED, "h|15|t");
  rows.insert(rows.begin(), "g|1|t");
  start_loads(rows, 1000);
  EXPECT_EQ(out_of("loads,g|*|*", "10", "20"), 1);
}

// Within the range: what is counted.

TEST_F(RangeTest, WithinTellsEveryStep) {
  // With every row counted, the rows visited and the rows counted are alike.
  start_loads({"g|500|a", "h|5|x", "g|11|b"});
  EXPECT_THAT(
      trace(WITHIN, {"loads,g|x|*,7", ALL_AVPS, "1", "10", "20", "$var(count)"}),
      ElementsAre(dbg("Select: loads,g|x|*,7\n"), entered(1), group_column(0, "g"), main_column(1),
                  limit(7), loop(0, 0, 7, 0, 10, 20), entering(), alarm_entry(11, 10, 20),
                  alarm_count(1), loop(1, 1, 7, 11, 10, 20), entering(), alarm_entry(500, 10, 20),
                  alarm_count(2), target_set(2), RETURNING));
}

TEST_F(RangeTest, WithinSaysNothingOfARowThatDoesNotCount) {
  start_loads({"g|10|a"});
  EXPECT_THAT(trace(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "10", "20", "$var(count)"}),
              ElementsAre(dbg("Select: loads,g|*|*\n"), entered(1), group_column(0, "g"),
                          main_column(1), limit(100), loop(0, 0, 100, 0, 10, 20), entering(),
                          alarm_entry(10, 10, 20), target_set(0), RETURNING));
}

TEST_F(RangeTest, WithinCountsWhatLiesAboveTheLowerLimitAlone) {
  start_numbers({"5", "10", "11", "500"});
  EXPECT_EQ(within("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(counted(), value(2));
}

TEST_F(RangeTest, WithinDoesNotLookAtTheUpperLimit) {
  start_numbers({"5", "10", "11", "500"});
  for (const char *upper : {"0", "11", "499", "2147483647"}) {
    EXPECT_EQ(within("loads,g|*|*", "10", upper), -2);
    EXPECT_EQ(counted(), value(2)) << upper;
  }
}

TEST_F(RangeTest, WithinGivesMinusTwoAndACountOfZeroWithoutARow) {
  start({loads()});
  EXPECT_EQ(within("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(counted(), value(0));
  EXPECT_EQ(run("tarn_memdb_insert", {"loads,h|100|t"}), 1);
  EXPECT_EQ(within("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(counted(), value(0));
}

TEST_F(RangeTest, WithinDeliversNothingWhateverTheRowsHold) {
  start_numbers({"11", "12"});
  EXPECT_EQ(within("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(standin::avp_count(), 0U);
  EXPECT_EQ(standin::calls("add_avp"), 0);
  EXPECT_EQ(standin::calls("pv_get_avp_name"), 0);
}

TEST_F(RangeTest, WithinFiltersByTheOtherFieldsAndIgnoresTheMainOne) {
  start_loads({"g|50|a", "h|50|a", "g|50|b"});
  EXPECT_EQ(within("loads,g|77|a", "10", "20"), -2);
  EXPECT_EQ(counted(), value(1));
  EXPECT_EQ(within("loads,*||*", "10", "20"), -2);
  EXPECT_EQ(counted(), value(3));
}

TEST_F(RangeTest, WithinStopsAfterMaxResRowsVisited) {
  start_numbers({"50", "50", "5", "5"});
  EXPECT_EQ(within("loads,g|*|*,3", "10", "20"), -2);
  EXPECT_EQ(counted(), value(1)) << "two of the three rows visited don't count";
  EXPECT_EQ(within("loads,g|*|*,2", "10", "20"), -2);
  EXPECT_EQ(counted(), value(0));
}

TEST_F(RangeTest, WithinVisits32000RowsAtMostWhateverTheQueryAsksFor) {
  start_numbers(texts(MOST_COUNTED + 2, "50"), 40000);
  standin::set_debug_level(NOTICE_LEVEL);
  EXPECT_EQ(within("loads,g|*|*", "10", "20"), -2);
  EXPECT_EQ(counted(), value(static_cast<int>(MOST_COUNTED)));
  EXPECT_EQ(within("loads,g|*|*,32001", "10", "20"), -2);
  EXPECT_EQ(counted(), value(static_cast<int>(MOST_COUNTED)));
  EXPECT_EQ(within("loads,g|*|*,31999", "10", "20"), -2);
  EXPECT_EQ(counted(), value(static_cast<int>(MOST_COUNTED) - 1));
}

TEST_F(RangeTest, WithinNeedsNoRoomForTheRows) {
  start_numbers(texts(MOST_COUNTED, "50"), 40000);
  standin::set_debug_level(NOTICE_LEVEL);
  const standin::command prepared =
      fixup(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "10", "20", "$var(count)"});
  standin::reset_allocation_count();
  // References to the rows would take twice this stack.
  constexpr size_t STACK_BYTES = MOST_COUNTED * sizeof(void *) / 2;
  EXPECT_EQ(on_small_stack(STACK_BYTES, [&] { return module().run(prepared, msg); }), -2);
  EXPECT_EQ(counted(), value(static_cast<int>(MOST_COUNTED)));
  EXPECT_EQ(standin::allocation_count(pool::pkg), 1U) << "the fields of the query";
  EXPECT_EQ(standin::allocation_count(pool::shm), 0U);
}

TEST_F(RangeTest, WithinHandsTheCountBackThroughAnAvp) {
  start_numbers({"50", "60"});
  EXPECT_EQ(within("loads,g|*|*", "10", "20", "$avp(rows)"), -2);
  EXPECT_THAT(standin::avp("rows"), ElementsAre(value(2)));
}

TEST_F(RangeTest, WithinGoesOnWhenTheTargetCannotBeSet) {
  start_numbers({"50"});
  const standin::command prepared =
      fixup(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "10", "20", "$var(count)"});
  clear();
  standin::fail_call("pv_set_spec_value", 1);
  EXPECT_EQ(call(prepared), -2);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(NOT_SET));
  EXPECT_EQ(messages().back(), RETURNING);
}

TEST_F(RangeTest, WithinGoesOnWithATargetThatStayedText) {
  start_numbers({"50"});
  EXPECT_EQ(within("loads,g|*|*", "10", "20", "count"), -2);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(NOT_SET));
  EXPECT_EQ(within("loads,g|*|*", "10", "20", "$"), -2) << "one character names no variable";
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(NOT_SET));
}

TEST_F(RangeTest, WithinSetsNothingWithoutATarget) {
  start_numbers({"50"});
  const standin::command prepared =
      fixup(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "10", "20", "$var(count)"});
  clear();
  standin::reset_calls();
  EXPECT_EQ(call_with_null(prepared, 6), -2);
  EXPECT_EQ(standin::calls("pv_set_spec_value"), 0);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
  EXPECT_EQ(messages().back(), RETURNING);
}

TEST_F(RangeTest, WithinRefusesOtherTargetsAsTheScriptLoads) {
  start_numbers({"50"});
  EXPECT_FALSE(fixup(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "10", "20", "$fU"}).accepted());
  EXPECT_FALSE(fixup(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "10", "20", "$nosuch"}).accepted());
}

TEST_F(RangeTest, OutTakesAMissingLimitForZero) {
  start_numbers({"5"});
  const standin::command prepared = fixup(OUT, {"loads,g|*|*", ALL_AVPS, "1", "1", "7"});
  EXPECT_EQ(call(prepared), -2);
  EXPECT_EQ(call_with_null(prepared, 5), 1);
  clear();
  EXPECT_EQ(call_with_null(prepared, 4), -2);
  EXPECT_THAT(messages(), Contains(in_range("5", 5, 0, 7)));
}

TEST_F(RangeTest, WithinTakesAMissingLimitForZero) {
  start_numbers({"5"});
  const standin::command prepared =
      fixup(WITHIN, {"loads,g|*|*", ALL_AVPS, "1", "6", "7", "$var(count)"});
  EXPECT_EQ(call(prepared), -2);
  EXPECT_EQ(counted(), value(0));
  EXPECT_EQ(call_with_null(prepared, 4), -2);
  EXPECT_EQ(counted(), value(1));
  EXPECT_THAT(messages(), Contains(alarm_entry(5, 0, 7)));
  clear();
  EXPECT_EQ(call_with_null(prepared, 5), -2);
  EXPECT_THAT(messages(), Contains(alarm_entry(5, 6, 0)));
}

// What both have in common.

struct range_function {
  const char *name;
  int success;  // on a table of one row with the number 50 and the limits 10 and 20
};

class BothRangesTest : public RangeTest, public testing::WithParamInterface<range_function> {
 protected:
  standin::command prepare(const std::string &query, const std::string &lower,
                           const std::string &upper, const std::string &column = "1") {
    texts all = {query, ALL_AVPS, column, lower, upper};
    if (GetParam().name == std::string(WITHIN)) all.push_back("$var(count)");
    return fixup(GetParam().name, all);
  }
  int select(const std::string &query, const std::string &lower, const std::string &upper,
             const std::string &column = "1") {
    const standin::command prepared = prepare(query, lower, upper, column);
    clear();
    return call(prepared);
  }
  int good() const { return GetParam().success; }
};

TEST_P(BothRangesTest, TakesNumbersFromTheScript) {
  start_numbers({"50"});
  EXPECT_EQ(select("loads,g|*|*", "10", "20"), good());
  EXPECT_EQ(select("loads,g|*|*", "text", "0"), good()) << "a text that is no number counts as 0";
}

TEST_P(BothRangesTest, ReadsLimitsFromVariablesAndAvpsAtEachCall) {
  start_numbers({"50"});
  const standin::command prepared = prepare("loads,g|*|*", "$var(low)", "$avp(high)");
  standin::set_var("low", 10);
  standin::push_avp("high", 20);
  EXPECT_EQ(call(prepared), good());
  EXPECT_THAT(messages(), Contains(main_column(1)));
  standin::set_var("low", 40);
  standin::push_avp("high", 60);
  EXPECT_EQ(call(prepared), -2);
}

TEST_P(BothRangesTest, TakesNegativeLimitsFromVariablesAlone) {
  start_numbers({"50"});
  EXPECT_FALSE(prepare("loads,g|*|*", "-1", "20").accepted());
  EXPECT_FALSE(prepare("loads,g|*|*", "10", "-1").accepted());
  standin::set_var("low", -10);
  standin::set_var("high", -5);
  EXPECT_EQ(select("loads,g|*|*", "$var(low)", "$var(high)"), good());
}

TEST_P(BothRangesTest, RefusesLimitsThatAreTexts) {
  start_numbers({"50"});
  standin::set_var("digits", "10");
  EXPECT_EQ(select("loads,g|*|*", "$var(digits)", "20"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,g|*|*\n"), LOWER_TEXT));
  EXPECT_EQ(select("loads,g|*|*", "10", "$var(digits)"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,g|*|*\n"), UPPER_TEXT));
  EXPECT_EQ(select("loads,g|*|*", "$avp(nothing)", "$avp(nothing)"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(LOWER_TEXT));
  EXPECT_EQ(select("loads,g|*|*", "10", "$avp(nothing)"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(UPPER_TEXT));
}

TEST_P(BothRangesTest, FailsForLimitsThatCannotBeRead) {
  start_numbers({"50"});
  standin::set_var("bad", value::unreadable());
  EXPECT_EQ(select("loads,g|*|*", "$var(bad)", "20"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,g|*|*\n"), UNREADABLE));
  EXPECT_EQ(select("loads,g|*|*", "10", "$var(bad)"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,g|*|*\n"), UNREADABLE));
}

TEST_P(BothRangesTest, FailsForLimitsOfNoKnownKind) {
  start_numbers({"50"});
  for (const size_t slot : {size_t{4}, size_t{5}}) {
    const standin::command prepared = prepare("loads,g|*|*", "10", "20");
    reinterpret_cast<num_or_pv *>(prepared.slot(slot).get())->type = 1;
    clear();
    EXPECT_EQ(call(prepared), -1);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(NO_KIND));
  }
}

TEST_P(BothRangesTest, RefusesAColumnEqualToTheCountOrAboveIt) {
  start_numbers({"50"});
  EXPECT_EQ(select("loads,g|*|*", "10", "20", "3"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,g|*|*\n"), too_great(3, 3)));
  EXPECT_EQ(select("loads,g|*|*", "10", "20", "4"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,g|*|*\n"), too_great(4, 3)));
}

TEST_P(BothRangesTest, RefusesANegativeColumnAsTheScriptLoadsAndAtRunTime) {
  start_numbers({"50"});
  EXPECT_FALSE(prepare("loads,g|*|*", "10", "20", "-1").accepted());
  const standin::command prepared = prepare("loads,g|*|*", "10", "20", "00");
  clear();
  replace_text(prepared, 3, "-1");
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(too_great(-1, 3)));
}

TEST_P(BothRangesTest, RefusesAnIndexedColumn) {
  start_numbers({"50"});
  EXPECT_EQ(select("loads,*|*|*", "10", "20", "0"), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: loads,*|*|*\n"), entered(0), indexed(0)));
}

TEST_P(BothRangesTest, ReadsTheLimitsBeforeItLooksAtTheColumn) {
  start_numbers({"50"});
  EXPECT_EQ(select("loads,g|*|*", "$avp(nothing)", "20", "9"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(LOWER_TEXT));
  EXPECT_EQ(select("loads,g|*|*", "10", "$avp(nothing)", "9"), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(UPPER_TEXT));
}

TEST_P(BothRangesTest, PrintsANullForTheColumnBeforeTheFirst) {
  start_with({{"plain", {{"number"}, {"tag"}}}}, {{"plain", {"50|t"}}});
  EXPECT_EQ(select("plain,*|*", "10", "20", "0"), good());
  EXPECT_THAT(messages(), Contains(group_column(-1, "(null)")));
  EXPECT_THAT(messages(), Contains(main_column(0)));
}

TEST_P(BothRangesTest, SearchesTheLastColumn) {
  start_loads({"g|1|50"});
  EXPECT_EQ(select("loads,g|1|*", "10", "20", "2"), good());
}

TEST_P(BothRangesTest, EndsPrintAndParseFailuresWithTheLastLine) {
  start_numbers({"50"});
  const standin::command prepared = prepare("loads,g|*|*", "10", "20");
  clear();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err(FAILED)));
  standin::set_var("q", "");
  EXPECT_EQ(select("$var(q)", "10", "20"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err(FAILED)));
  EXPECT_EQ(select("loads", "10", "20"), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: loads\n"), err("Field list is missing\n"),
                          err("Could not parse query (loads) for insert\n"), err(FAILED)));
  EXPECT_EQ(select("loads,g|*|*,0", "10", "20"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Invalid value for maximum result count\n"),
                          err("Could not parse query (loads,g|*|*,0) for insert\n"), err(FAILED)));
}

TEST_P(BothRangesTest, PutsPseudoVariablesIntoTheQuery) {
  start_loads({"g|50|t", "h|50|t"});
  standin::set_value(msg, "$fU", "g");
  standin::set_value(msg, "$hdr(X-Tag)", "t");
  standin::push_avp("any", "*");
  EXPECT_EQ(select("loads,$fU|$avp(any)|$hdr(X-Tag)", "10", "20"), good());
}

TEST_P(BothRangesTest, AsksTheHostForItsDebugLevelNoOftenerForMoreRows) {
  texts rows(500, "g|50|t");
  rows.push_back("h|50|t");
  start_loads(rows, 1000);
  standin::set_debug_level(ALERT_LEVEL);
  const standin::command many = prepare("loads,g|*|*", "10", "20");
  const standin::command one = prepare("loads,h|*|*", "10", "20");
  standin::reset_calls();
  EXPECT_EQ(call(one), good());
  const int for_one = standin::debug_level_queries();
  standin::reset_calls();
  EXPECT_EQ(call(many), good() > 0 ? 500 : good());
  EXPECT_EQ(standin::debug_level_queries(), for_one);
  EXPECT_GT(for_one, 0);
}

INSTANTIATE_TEST_SUITE_P(All, BothRangesTest,
                         testing::Values(range_function{OUT, 1}, range_function{WITHIN, -2}),
                         [](const auto &tested) {
                           return std::string(tested.param.success == 1 ? "Out" : "Within");
                         });

// Failures, one at a time.

TEST_F(RangeTest, OutFailsCleanlyWhateverCallOrAllocationFails) {
  start_numbers({"9", "15", "21"});
  standin::set_var("low", 10);
  standin::set_var("high", 20);
  const standin::command prepared =
      fixup(OUT, {"loads,g|*|*", "$avp(g)|$avp(n)", "1", "$var(low)", "$var(high)"});
  const auto unchanged = [this] {
    expect_rows("loads", {{"g", "9", "t"}, {"g", "15", "t"}, {"g", "21", "t"}});
  };
  const scene around{[this] { clear(); }, unchanged};
  expect_results_of_failing_calls(prepared, 2,
                                  {{"pv_printf", {-1}},
                                   {"pv_get_spec_value", {-1, -1}},
                                   {"pv_get_avp_name", {2, 2, 2, 2}},
                                   {"add_avp", {-1, -1, -1, -1}}},
                                  around);
  expect_results_of_failing_allocations(pool::pkg, prepared, 2, {-1}, around);
  expect_results_of_failing_allocations(pool::shm, prepared, 2, {}, around);
}

TEST_F(RangeTest, OutEndsADeliveryFailureWithoutALastLineAndKeepsWhatIsDelivered) {
  start_numbers({"9", "21"});
  const standin::command prepared = fixup(OUT, {"loads,g|*|*", "$avp(g)|$avp(n)", "1", "10", "20"});
  clear();
  standin::fail_call("add_avp", 4);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(avp_texts("g"), ElementsAre("g", "g"));
  EXPECT_THAT(numbers(), ElementsAre("21"));
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not add avp\n")));
}

TEST_F(RangeTest, WithinFailsCleanlyWhateverCallOrAllocationFails) {
  start_numbers({"9", "15", "21"});
  standin::set_var("low", 10);
  standin::set_var("high", 20);
  const standin::command prepared =
      fixup(WITHIN, {"loads,g|*|*", "$avp(g)", "1", "$var(low)", "$var(high)", "$avp(count)"});
  const auto unchanged = [this] {
    expect_rows("loads", {{"g", "9", "t"}, {"g", "15", "t"}, {"g", "21", "t"}});
  };
  const scene around{[this] { clear(); }, unchanged};
  expect_results_of_failing_calls(
      prepared, -2,
      {{"pv_printf", {-1}}, {"pv_get_spec_value", {-1, -1}}, {"pv_set_spec_value", {-2}}}, around);
  expect_results_of_failing_allocations(pool::pkg, prepared, -2, {-1}, around);
  expect_results_of_failing_allocations(pool::shm, prepared, -2, {}, around);
}

}  // namespace
}  // namespace module_test
