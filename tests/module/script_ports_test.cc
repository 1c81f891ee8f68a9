// The script functions on ports: their results, AVPs and words. What the maps do is tested in
// tests/unit/ports, what rows do with them in port_rows_test.cc, and the clearing of all maps in
// clear_pmap_test.cc.
#include "tests/module/injection.h"

namespace module_test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char GET[] = "tarn_memdb_get_port";
constexpr char FROM_RANGE[] = "tarn_memdb_get_port_from_range";
constexpr char SET[] = "tarn_memdb_set_port";
constexpr char FREE[] = "tarn_memdb_free_port";
constexpr char CLEAR[] = "tarn_memdb_clear_pmap";
constexpr int RESERVED = 0x80;  // in use, held by no row
constexpr int PRIVATE = 0x40;

// The maps' words with their lowest ports.
const std::map<std::string, int> FIRST = {
    {"INT", 100}, {"EXT", 200}, {"STATIC_INT", 100}, {"STATIC_EXT", 300}};

message wrong_word(const std::string &shown) {
  return err("Wrong parameter (" + shown +
             "). Allowed values are 'EXT', 'INT', 'STATIC_EXT' and 'STATIC_INT'\n");
}
message returned(const std::string &function, int port) {
  return dbg(function + ": port to be returned = " + std::to_string(port) + "\n");
}

class PortsTest : public InjectionTest {
 protected:
  // Maps of four ports each, unless a test asks for others.
  void set_bounds(const std::string &word, int min, int max) {
    std::string name = word;
    for (char &c : name) c = static_cast<char>(tolower(c));
    ASSERT_TRUE(module().set_param("min_" + name + "_port", min));
    ASSERT_TRUE(module().set_param("max_" + name + "_port", max));
  }
  void start_small(const std::string &ranges = "", const std::vector<table> &tables = {}) {
    for (const auto &[word, first] : FIRST) set_bounds(word, first, first + 3);
    if (!ranges.empty()) write_file(ranges_file(), ranges);
    start(tables);
  }

  int get(const std::string &word) { return run(GET, {word}); }
  // The result of the form with an AVP, and what the AVP got.
  std::pair<int, texts> get_into(const std::string &word) {
    standin::clear_avps();
    const int result = run(GET, {word, "$avp(port)"});
    return {result, avp_texts("port")};
  }
  int from_range(const std::string &word, const std::string &base) {
    return run(FROM_RANGE, {word, base});
  }
  int set(const std::string &port, const std::string &word) { return run(SET, {port, word}); }
  int free(const std::string &word, const std::string &port) { return run(FREE, {word, port}); }

  int next(const std::string &word) { return view().map(word).next_free_port; }
  std::vector<int> bytes(const std::string &word) { return view().bytes(word); }
};

// Results.

TEST_F(PortsTest, GetGivesTheNextPortAndMinusOneWhenTheMapIsExhausted) {
  start_small();
  for (int port = 100; port <= 103; port++)
    EXPECT_EQ(trace(GET, {"INT"}).back(), returned(GET, port));
  EXPECT_THAT(bytes("INT"), Each(RESERVED));
  EXPECT_EQ(get("INT"), -1);
  EXPECT_THAT(trace(GET, {"INT"}),
              ElementsAre(dbg("tarn_memdb_get_port: no free port available!\n")));
  EXPECT_EQ(free("INT", "102"), 0);
  EXPECT_EQ(get("INT"), 102);
}

TEST_F(PortsTest, GetIntoGivesOneAndThePortAsATextOrMinusOneWhenTheMapIsExhausted) {
  start_small();
  EXPECT_EQ(trace(GET, {"INT", "$avp(port)"}).back(), returned(GET, 100));
  EXPECT_THAT(standin::avp("port"), ElementsAre(value("100"))) << "a text and not a number";
  for (const char *port : {"101", "102", "103", "-1", "-1"})
    EXPECT_EQ(get_into("INT"), std::pair(1, texts{port}));
  EXPECT_THAT(trace(GET, {"INT", "$avp(port)"}),
              ElementsAre(dbg("tarn_memdb_get_port: no free port available\n")));
  EXPECT_THAT(bytes("INT"), Each(RESERVED));
}

TEST_F(PortsTest, FromRangeTakesFromTheRangeOfThatBaseAndGivesMinusOneWhereThereIsNone) {
  start_small("INT 101 102 103\n");
  const std::vector<message> said = trace(FROM_RANGE, {"INT", "101"});
  EXPECT_EQ(said.front(), dbg("Base port received 101, for range INT\n"));
  EXPECT_EQ(said.back(), returned(FROM_RANGE, 102));
  EXPECT_EQ(from_range("INT", "101"), 103);
  EXPECT_EQ(trace(FROM_RANGE, {"INT", "101"}).back(), returned(FROM_RANGE, -1));
  EXPECT_EQ(from_range("INT", "101"), -1);
  EXPECT_EQ(from_range("INT", "102"), -1) << "a port of a range is no base";
  EXPECT_THAT(bytes("INT"), ElementsAre(0, PRIVATE, PRIVATE | RESERVED, PRIVATE | RESERVED));
}

TEST_F(PortsTest, FromRangeGivesZeroOnAMapWithoutRanges) {
  start_small("INT 101 102\n");
  EXPECT_EQ(from_range("EXT", "200"), 0);
  EXPECT_EQ(trace(FROM_RANGE, {"EXT", "200"}).back(), returned(FROM_RANGE, 0));
  EXPECT_THAT(bytes("EXT"), Each(0));
}

TEST_F(PortsTest, SetGivesOneEachTimeAndMinusTwoOutOfRange) {
  start_small();
  EXPECT_EQ(set("102", "INT"), 1);
  EXPECT_EQ(set("102", "INT"), 1) << "in use already";
  EXPECT_EQ(trace(SET, {"102", "INT"}).back(),
            dbg("Port 102 is being reserved, value 0xffffff80 \n"));
  for (const char *port : {"99", "104", "-1", "text"}) EXPECT_EQ(set(port, "INT"), -2) << port;
  EXPECT_THAT(bytes("INT"), ElementsAre(0, 0, RESERVED, 0));
}

TEST_F(PortsTest, FreeGivesZeroAndMinusTwoOutOfRange) {
  start_small();
  set("102", "INT");
  EXPECT_THAT(trace(FREE, {"INT", "102"}),
              ElementsAre(dbg("Received port to be freed = 102\n"),
                          dbg("Port = 102 is freed and value update to 0x0\n")));
  EXPECT_EQ(free("INT", "102"), 0) << "nobody holds it";
  for (const char *port : {"99", "104", "-1", "text"}) EXPECT_EQ(free("INT", port), -2) << port;
}

TEST_F(PortsTest, EachFunctionServesTheFourMapsApart) {
  std::string ranges;
  for (const auto &[word, first] : FIRST)
    ranges += word + " " + std::to_string(first + 2) + " " + std::to_string(first + 3) + "\n";
  start_small(ranges);
  for (const auto &[word, first] : FIRST) {
    EXPECT_EQ(get(word), first);
    EXPECT_EQ(set(std::to_string(first + 1), word), 1);
    EXPECT_EQ(from_range(word, std::to_string(first + 2)), first + 3);
    EXPECT_EQ(free(word, std::to_string(first)), 0);
    for (const auto &[any, its_first] : FIRST) {
      const int taken = any <= word ? RESERVED : 0;
      EXPECT_THAT(bytes(any), ElementsAre(0, taken, PRIVATE, PRIVATE | taken))
          << any << " after " << word;
    }
  }
  EXPECT_EQ(get_into("EXT"), std::pair(1, texts{"200"}));
}

TEST_F(PortsTest, BoundsAreThoseOfTheModuleByDefault) {
  start({});
  for (const auto &[word, first] :
       {std::pair("INT", 21000), {"EXT", 10000}, {"STATIC_INT", 21000}, {"STATIC_EXT", 9000}})
    EXPECT_EQ(get(word), first);
  EXPECT_EQ(bytes("EXT").size(), 5001U);
}

// Words and texts.

// A parameter of a function: what it holds at most, what is said and given where it can't be
// printed, and the result with the longest text. Digits are zeros ahead of the number.
struct parameter_case {
  const char *shows;
  const char *function;
  texts parameters;  // of which one is $var(text)
  size_t longest;
  int unprintable;
  const char *line;
  std::string number;  // empty: letters
  int result;
};

std::ostream &operator<<(std::ostream &out, const parameter_case &shown) {
  return out << shown.shows;
}

class PortParameterTest : public PortsTest, public testing::WithParamInterface<parameter_case> {};

TEST_P(PortParameterTest, FailsToPrintWhenEmptyOrTooLong) {
  const parameter_case &one = GetParam();
  start_small("INT 101 102 103\n");
  const std::vector<int> before = bytes("INT");
  const standin::command prepared = fixup(one.function, one.parameters);
  for (const size_t size : {size_t{0}, one.longest + 1}) {
    standin::set_var("text", std::string(size, '1'));
    clear();
    EXPECT_EQ(call(prepared), one.unprintable) << size;
    EXPECT_THAT(messages(), ElementsAre(err(one.line))) << size;
    EXPECT_EQ(standin::avp_count(), 0U);
  }
  EXPECT_EQ(bytes("INT"), before);
  EXPECT_EQ(next("INT"), 100);
  standin::set_var("text", one.number.empty()
                               ? std::string(one.longest, 'X')
                               : std::string(one.longest - one.number.size(), '0') + one.number);
  clear();
  EXPECT_EQ(call(prepared), one.result);
  EXPECT_EQ(standin::log_contains(ERR_LEVEL, "Wrong parameter"), one.number.empty());
}

INSTANTIATE_TEST_SUITE_P(
    All, PortParameterTest,
    testing::Values(
        parameter_case{"Get", GET, {"$var(text)"}, 18, -1, UNPRINTABLE_SELECT, "", -1},
        parameter_case{"GetInto", GET, {"$var(text)", "$avp(port)"}, 7, -1, UNPRINTABLE, "", -1},
        parameter_case{
            "FromRangeWord", FROM_RANGE, {"$var(text)", "101"}, 18, -1, UNPRINTABLE_SELECT, "", -1},
        parameter_case{
            "FromRangeBase", FROM_RANGE, {"INT", "$var(text)"}, 18, -3, UNPRINTABLE, "101", 102},
        parameter_case{"SetPort", SET, {"$var(text)", "INT"}, 18, -3, UNPRINTABLE, "100", 1},
        parameter_case{"SetWord", SET, {"100", "$var(text)"}, 18, -3, UNPRINTABLE, "", -1},
        parameter_case{"FreeWord", FREE, {"$var(text)", "100"}, 18, -3, UNPRINTABLE, "", -1},
        parameter_case{"FreePort", FREE, {"INT", "$var(text)"}, 6, -3, UNPRINTABLE, "100", 0}),
    [](const auto &tested) { return std::string(tested.param.shows); });

TEST_F(PortsTest, AllIsPrintedBeforeAWordIsLookedAt) {
  start_small("INT 101 102\n");
  standin::set_var("empty", "");
  EXPECT_EQ(from_range("$var(empty)", "$var(empty)"), -3) << "the base first";
  EXPECT_EQ(free("wrong", "$var(empty)"), -3);
  EXPECT_EQ(set("$var(empty)", "wrong"), -3);
  EXPECT_THAT(messages(INFO_LEVEL), Each(err(UNPRINTABLE)));
}

TEST_F(PortsTest, GetIntoHasNoRoomForTheWordsOfTheStaticMaps) {
  start_small();
  for (const char *word : {"STATIC_INT", "STATIC_EXT"}) {
    clear();
    EXPECT_EQ(get_into(word), std::pair(-1, texts{}));
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
  }
}

TEST_F(PortsTest, AWrongWordIsShownItselfOrElseTheLastQuery) {
  start_small("INT 101 102\n", {{"t", {{"a"}}}});
  for (const std::string query : {"", "t,value"}) {
    if (!query.empty()) run("tarn_memdb_insert", {query});
    for (const std::string word : {"int", "INT ", "STATIC", "$avp(none)"}) {
      const std::string printed = word == "$avp(none)" ? "<null>" : word;
      const std::pair<standin::command, std::string> cases[] = {
          {fixup(GET, {word}), query},
          {fixup(GET, {word, "$avp(port)"}), printed},
          {fixup(FROM_RANGE, {word, "101"}), query},
          {fixup(SET, {"100", word}), printed},
          {fixup(FREE, {word, "100"}), printed}};
      for (const auto &[prepared, shown] : cases) {
        clear();
        EXPECT_EQ(call(prepared), -1);
        EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(wrong_word(shown))) << word;
      }
    }
  }
  EXPECT_THAT(bytes("INT"), ElementsAre(0, PRIVATE, PRIVATE, 0));
}

TEST_F(PortsTest, PseudoVariablesAreTakenEverywhere) {
  start_small("EXT 201 202\n");
  standin::set_var("map", "INT");
  EXPECT_EQ(get("$var(map)"), 100);
  standin::set_value(msg, "$fU", "EXT");
  EXPECT_EQ(get_into("$fU"), std::pair(1, texts{"200"}));
  standin::push_avp("base", 201);
  EXPECT_EQ(from_range("$fU", "$avp(base)"), 202);
  standin::set_value(msg, "$hdr(X-Port)", "103");
  EXPECT_EQ(set("$hdr(X-Port)", "$var(map)"), 1);
  standin::set_value(msg, "$si", "103");
  EXPECT_EQ(free("$var(map)", "$si"), 0);
  standin::set_var("half", "IN");
  EXPECT_EQ(get("$var(half)T"), 101) << "a variable may be a part of the word";
  standin::set_var("port", 102);
  EXPECT_EQ(set("$var(port)", "INT"), 1) << "a number prints as its digits";
}

// The AVP.

TEST_F(PortsTest, GetIntoKeepsThePortWhenTheAvpCannotBeNamedOrSet) {
  start_small();
  const standin::command prepared = fixup(GET, {"INT", "$avp(port)"});
  for (const auto &[failing, said] : {std::pair("pv_get_avp_name", "Could not get avp name\n"),
                                      {"add_avp", "Could not add avp\n"}}) {
    clear();
    standin::fail_call(failing, 1);
    EXPECT_EQ(call(prepared), -1);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(said)));
    EXPECT_EQ(standin::avp_count(), 0U);
  }
  EXPECT_THAT(bytes("INT"), ElementsAre(RESERVED, RESERVED, 0, 0));
}

TEST_F(PortsTest, GetIntoFailsWithATargetThatIsNoAvpAndKeepsThePort) {
  start_small();
  for (const auto &[target, said] : {std::pair("port", "Could not get avp name\n"),
                                     {"$var(port)", "Could not get avp name\n"},
                                     {"text $var(port)", "Could not get avp name\n"},
                                     {"$ru", "Could not add avp\n"}}) {
    clear();
    EXPECT_EQ(run(GET, {"INT", target}), -1) << target;
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(said))) << target;
    EXPECT_EQ(standin::avp_count(), 0U) << target;
  }
  EXPECT_EQ(standin::var("port"), value(0)) << "a script variable isn't set either";
  EXPECT_THAT(bytes("INT"), Each(RESERVED));
}

TEST_F(PortsTest, GetIntoAddsItsValueToTheFirstAvpOfItsTargetAheadOfOlderOnes) {
  start_small();
  standin::set_var("name", "first");
  for (const char *target : {"$avp(first)$avp(second)", "$avp(first)", "$avp($var(name))"})
    EXPECT_EQ(run(GET, {"INT", target}), 1);
  EXPECT_THAT(avp_texts("first"), ElementsAre("102", "101", "100"));
  EXPECT_THAT(avp_texts("second"), IsEmpty());
}

// Cost and failures.

TEST_F(PortsTest, LongSearchesAndManyRowsAskTheHostForItsDebugLevelNoOftener) {
  for (const auto &[word, first] : FIRST) set_bounds(word, first, first + 600);
  start({with(port_table("c", "dynamic"), 1000, "TAG")});
  standin::set_debug_level(ALERT_LEVEL);
  const standin::command take = fixup(GET, {"INT"});
  const standin::command insert = fixup("tarn_memdb_insert", {"c,1|a|b|c||WAN||0|0|101|"});
  const standin::command clear_map = fixup(CLEAR, {});
  const auto queries = [this](const standin::command &prepared) {
    standin::reset_calls();
    call(prepared);
    return standin::debug_level_queries();
  };
  const int for_one_step = queries(take);
  for (int port = 101; port <= 699; port++) call(take);
  EXPECT_EQ(queries(take), for_one_step) << "the search behind the last port looks at all";
  EXPECT_EQ(next("INT"), -1);
  call(insert);
  const int for_one_row = queries(clear_map);
  for (int i = 0; i < 500; i++) call(insert);
  EXPECT_EQ(queries(clear_map), for_one_row);
}

TEST_F(PortsTest, FailCleanlyWhateverCallFailsAndAllocateNothing) {
  start_small("INT 101 102 103\n", {port_table("c", "dynamic")});
  struct {
    const char *function;
    texts parameters;
    int good;
    failing_results failing;
  } const all[] = {{GET, {"INT"}, 100, {{"pv_printf", {-1}}}},
                   {GET,
                    {"INT", "$avp(port)"},
                    1,
                    {{"pv_printf", {-1}}, {"pv_get_avp_name", {-1}}, {"add_avp", {-1}}}},
                   {FROM_RANGE, {"INT", "101"}, 102, {{"pv_printf", {-3, -1}}}},
                   {SET, {"102", "INT"}, 1, {{"pv_printf", {-3, -3}}}},
                   {FREE, {"INT", "102"}, 0, {{"pv_printf", {-3, -3}}}},
                   {CLEAR, {}, 1, {}}};
  const standin::command clear_map = fixup(CLEAR, {});
  const scene around{[this, &clear_map] {
                       clear();
                       call(clear_map);
                     },
                     [] {}};
  for (const auto &each : all) {
    const standin::command prepared = fixup(each.function, each.parameters);
    expect_results_of_failing_calls(prepared, each.good, each.failing, around);
    expect_results_of_failing_allocations(pool::pkg, prepared, each.good, {}, around);
    expect_results_of_failing_allocations(pool::shm, prepared, each.good, {}, around);
  }
}

}  // namespace
}  // namespace module_test
