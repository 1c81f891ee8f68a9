// The six script functions on ports, and rows that hold ports.
#include "tests/module/injection.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char GET[] = "tarn_memdb_get_port";
constexpr char FROM_RANGE[] = "tarn_memdb_get_port_from_range";
constexpr char SET[] = "tarn_memdb_set_port";
constexpr char FREE[] = "tarn_memdb_free_port";
constexpr char CLEAR[] = "tarn_memdb_clear_pmap";
constexpr int RESERVED = 0x80;  // in use, held by no row
constexpr int HELD_ONCE = 0x81;
constexpr int PRIVATE = 0x40;
constexpr int NO_PORT_LEFT = -1;

message wrong_word(const std::string &shown) {
  return err("Wrong parameter (" + shown +
             "). Allowed values are 'EXT', 'INT', 'STATIC_EXT' and 'STATIC_INT'\n");
}
message returned(const std::string &function, int port) {
  return dbg(function + ": port to be returned = " + std::to_string(port) + "\n");
}
message said(const std::string &text) { return dbg(text); }

struct bounds {
  int min;
  int max;
};

// A table whose rows hold ports: WAN in column 5, or the type 6, stands for the internal side.
table calls(const std::string &name, const std::string &range, const std::string &tag = "") {
  std::vector<column> columns;
  for (const char *c : {"id", "k1", "k2", "k3", "in", "loc", "ex", "stype", "dtype"})
    columns.push_back({c});
  table out{name, columns};
  out.log_tag = tag;
  out.ports = {{range, 4, 6}};
  return out;
}

class PortsTest : public InjectionTest {
 protected:
  // Maps of four ports each, unless a test asks for others.
  void set_bounds(const std::string &word, const bounds &range) {
    std::string name = word;
    for (char &c : name) c = static_cast<char>(tolower(c));
    ASSERT_TRUE(module().set_param("min_" + name + "_port", range.min));
    ASSERT_TRUE(module().set_param("max_" + name + "_port", range.max));
  }
  void set_small_maps() {
    set_bounds("INT", {100, 103});
    set_bounds("EXT", {200, 203});
    set_bounds("STATIC_INT", {100, 103});
    set_bounds("STATIC_EXT", {300, 303});
  }
  void start_small(const std::string &ranges = "", const std::vector<table> &tables = {}) {
    set_small_maps();
    if (!ranges.empty()) write_file(ranges_file(), ranges);
    start(tables);
  }

  int get(const std::string &word) { return run(GET, {word}); }
  // The result of the form with an AVP, and what the AVP got.
  int get_into(const std::string &word, std::string *port) {
    standin::clear_avps();
    const int result = run(GET, {word, "$avp(port)"});
    const texts given = avp_texts("port");
    *port = given.empty() ? "none" : given[0];
    return result;
  }
  int from_range(const std::string &word, const std::string &base) {
    return run(FROM_RANGE, {word, base});
  }
  int set(const std::string &port, const std::string &word) { return run(SET, {port, word}); }
  int free(const std::string &word, const std::string &port) { return run(FREE, {word, port}); }

  int next(const std::string &word) { return view().map(word).next_free_port; }
  std::vector<int> bytes(const std::string &word) { return view().bytes(word); }
};

// tarn_memdb_get_port with one parameter.

TEST_F(PortsTest, GetTellsEveryStep) {
  start_small();
  EXPECT_THAT(
      trace(GET, {"INT"}),
      ElementsAre(said("Setting port 100\n"), said("Port 100 is within range\n"),
                  said("Current free port is 100\n"), said("Port 101 is within range\n"),
                  said("Port = 101 is FREE, value=0 \n"),
                  said("There is no private range of ports within this range\n"),
                  said("Next free port update to 101\n"),
                  said("Port 100 is being reserved, value 0xffffff80 \n"), returned(GET, 100)));
}

TEST_F(PortsTest, GetClimbsAndFallsBackToTheLowestFreePort) {
  start_small();
  EXPECT_EQ(get("INT"), 100);
  EXPECT_EQ(get("INT"), 101);
  EXPECT_EQ(get("INT"), 102);
  EXPECT_EQ(free("INT", "100"), 0);
  EXPECT_EQ(next("INT"), 103) << "a port freed below waits";
  EXPECT_EQ(get("INT"), 103);
  EXPECT_EQ(next("INT"), 100);
  EXPECT_EQ(get("INT"), 100);
  EXPECT_EQ(next("INT"), NO_PORT_LEFT);
  EXPECT_THAT(bytes("INT"), Each(RESERVED));
}

TEST_F(PortsTest, GetServesTheFourMapsApart) {
  start_small();
  EXPECT_EQ(get("INT"), 100);
  EXPECT_EQ(get("STATIC_INT"), 100) << "one number may be taken in both";
  EXPECT_EQ(get("EXT"), 200);
  EXPECT_EQ(get("STATIC_EXT"), 300);
  EXPECT_EQ(get("STATIC_EXT"), 301);
  EXPECT_THAT(bytes("INT"), ElementsAre(RESERVED, 0, 0, 0));
  EXPECT_THAT(bytes("EXT"), ElementsAre(RESERVED, 0, 0, 0));
  EXPECT_THAT(bytes("STATIC_INT"), ElementsAre(RESERVED, 0, 0, 0));
  EXPECT_THAT(bytes("STATIC_EXT"), ElementsAre(RESERVED, RESERVED, 0, 0));
}

TEST_F(PortsTest, GetGivesMinusOneAndADebugLineWhenTheMapIsExhausted) {
  start_small();
  for (int i = 0; i < 4; i++) get("INT");
  EXPECT_THAT(trace(GET, {"INT"}),
              ElementsAre(said("tarn_memdb_get_port: no free port available!\n")));
  EXPECT_EQ(get("INT"), -1);
  EXPECT_EQ(free("INT", "102"), 0);
  EXPECT_EQ(next("INT"), 102) << "out of exhaustion a freed port is next";
  EXPECT_EQ(get("INT"), 102);
  EXPECT_EQ(get("INT"), -1);
}

TEST_F(PortsTest, GetUsesTheBoundsOfTheModuleByDefault) {
  start({});
  EXPECT_EQ(get("INT"), 21000);
  EXPECT_EQ(get("EXT"), 10000);
  EXPECT_EQ(get("STATIC_INT"), 21000);
  EXPECT_EQ(get("STATIC_EXT"), 9000);
  EXPECT_EQ(bytes("EXT").size(), 5001U);
}

TEST_F(PortsTest, GetPrintsAWordOf18CharactersAtMost) {
  start_small();
  const std::string fits(18, 'X');
  EXPECT_EQ(get(fits), -1);
  EXPECT_THAT(messages(), ElementsAre(wrong_word("")));
  clear();
  EXPECT_EQ(get(fits + "X"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
}

TEST_F(PortsTest, GetTakesAnEmptyWordForAPrintFailure) {
  start_small();
  standin::set_var("word", "");
  EXPECT_EQ(get("$var(word)"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
}

TEST_F(PortsTest, GetShowsTheLastQueryInPlaceOfAWrongWord) {
  start_small("", {{"t", {{"a"}}}});
  EXPECT_EQ(get("int"), -1);
  EXPECT_THAT(messages(), ElementsAre(wrong_word(""))) << "there was no query yet";
  run("tarn_memdb_insert", {"t,value"});
  clear();
  EXPECT_EQ(get("int"), -1);
  EXPECT_THAT(messages(), ElementsAre(wrong_word("t,value")));
}

TEST_F(PortsTest, GetComparesWordsToTheLetter) {
  start_small();
  for (const char *word : {"int", "Int", "INT ", " INT", "STATIC", "STATIC_INTERNAL", "INTEXT"}) {
    clear();
    EXPECT_EQ(get(word), -1) << word;
    EXPECT_THAT(messages(), ElementsAre(wrong_word("")));
  }
  EXPECT_THAT(bytes("INT"), Each(0));
}

// tarn_memdb_get_port with two parameters.

TEST_F(PortsTest, GetIntoTellsEveryStep) {
  start_small();
  EXPECT_THAT(
      trace(GET, {"EXT", "$avp(port)"}),
      ElementsAre(said("Setting port 200\n"), said("Port 200 is within range\n"),
                  said("Current free port is 200\n"), said("Port 201 is within range\n"),
                  said("Port = 201 is FREE, value=0 \n"),
                  said("There is no private range of ports within this range\n"),
                  said("Next free port update to 201\n"),
                  said("Port 200 is being reserved, value 0xffffff80 \n"), returned(GET, 200)));
  EXPECT_THAT(standin::avp("port"), ElementsAre(value("200"))) << "a text and not a number";
}

TEST_F(PortsTest, GetIntoServesTheDynamicMaps) {
  start_small();
  std::string port;
  EXPECT_EQ(get_into("INT", &port), 1);
  EXPECT_EQ(port, "100");
  EXPECT_EQ(get_into("EXT", &port), 1);
  EXPECT_EQ(port, "200");
}

TEST_F(PortsTest, GetIntoHasNoRoomForTheWordsOfTheStaticMaps) {
  start_small();
  std::string port;
  for (const char *word : {"STATIC_INT", "STATIC_EXT"}) {
    clear();
    EXPECT_EQ(get_into(word, &port), -1);
    EXPECT_EQ(port, "none");
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
  }
  EXPECT_THAT(bytes("STATIC_INT"), Each(0));
}

TEST_F(PortsTest, GetIntoPrintsAWordOfSevenCharactersAtMost) {
  start_small();
  std::string port;
  EXPECT_EQ(get_into("INTERNA", &port), -1);
  EXPECT_THAT(messages(), ElementsAre(wrong_word("INTERNA")));
  clear();
  EXPECT_EQ(get_into("INTERNAL", &port), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
}

TEST_F(PortsTest, GetIntoTakesAnEmptyWordForAPrintFailure) {
  start_small();
  std::string port;
  EXPECT_EQ(get_into("$avp(word)", &port), -1) << "a variable without a value prints as <null>";
  EXPECT_THAT(messages(), ElementsAre(wrong_word("<null>")));
  clear();
  standin::set_var("word", "");
  EXPECT_EQ(get_into("$var(word)", &port), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
}

TEST_F(PortsTest, GetIntoShowsTheWrongWordItself) {
  start_small("", {{"t", {{"a"}}}});
  run("tarn_memdb_insert", {"t,value"});
  clear();
  std::string port;
  EXPECT_EQ(get_into("int", &port), -1);
  EXPECT_THAT(messages(), ElementsAre(wrong_word("int")));
}

TEST_F(PortsTest, GetIntoGivesOneAndMinusOneAsTheTextWhenTheMapIsExhausted) {
  start_small();
  for (int i = 0; i < 4; i++) get("INT");
  EXPECT_THAT(trace(GET, {"INT", "$avp(port)"}),
              ElementsAre(said("tarn_memdb_get_port: no free port available\n")));
  EXPECT_THAT(standin::avp("port"), ElementsAre(value("-1")));
  std::string port;
  EXPECT_EQ(get_into("INT", &port), 1);
  EXPECT_EQ(port, "-1");
}

TEST_F(PortsTest, GetIntoKeepsThePortWhenTheAvpCannotBeNamedOrSet) {
  start_small();
  const standin::command prepared = fixup(GET, {"INT", "$avp(port)"});
  clear();
  standin::fail_call("pv_get_avp_name", 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not get avp name\n")));
  clear();
  standin::fail_call("add_avp", 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not add avp\n")));
  EXPECT_THAT(bytes("INT"), ElementsAre(RESERVED, RESERVED, 0, 0));
  EXPECT_EQ(standin::avp_count(), 0U);
}

TEST_F(PortsTest, GetIntoFailsWithATargetThatIsPlainText) {
  start_small();
  EXPECT_EQ(run(GET, {"INT", "port"}), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not get avp name\n")));
  EXPECT_EQ(view().port("INT", 100), RESERVED) << "the port stays taken";
}

TEST_F(PortsTest, GetIntoFailsWithATargetThatIsNoAvp) {
  start_small();
  for (const char *target : {"$var(port)", "$ru", "text $var(port)"}) {
    clear();
    EXPECT_EQ(run(GET, {"INT", target}), -1) << target;
    EXPECT_EQ(standin::log_count(ERR_LEVEL), 1U) << target;
    EXPECT_EQ(standin::avp_count(), 0U) << target;
  }
  EXPECT_EQ(standin::var("port"), value(0)) << "a script variable isn't set either";
  EXPECT_THAT(bytes("INT"), ElementsAre(RESERVED, RESERVED, RESERVED, 0));
}

TEST_F(PortsTest, GetIntoTakesTheAvpThatStandsFirstInItsTarget) {
  start_small();
  EXPECT_EQ(run(GET, {"INT", "$avp(first)$avp(second)"}), 1);
  EXPECT_THAT(avp_texts("first"), ElementsAre("100"));
  EXPECT_THAT(avp_texts("second"), IsEmpty());
  standin::set_var("name", "third");
  EXPECT_EQ(run(GET, {"INT", "$avp($var(name))"}), 1);
  EXPECT_THAT(avp_texts("third"), ElementsAre("101"));
}

TEST_F(PortsTest, GetIntoAddsItsValueAheadOfOlderOnes) {
  start_small();
  const standin::command prepared = fixup(GET, {"INT", "$avp(port)"});
  EXPECT_EQ(call(prepared), 1);
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(avp_texts("port"), ElementsAre("101", "100"));
}

// tarn_memdb_get_port_from_range.

TEST_F(PortsTest, FromRangeTellsEveryStep) {
  start_small("INT 101 102 103\n");
  EXPECT_THAT(
      trace(FROM_RANGE, {"INT", "101"}),
      ElementsAre(said("Base port received 101, for range INT\n"),
                  said("Port 102 is within range\n"), said("Port = 102 is FREE, value=64 \n"),
                  said("Port 102 is free in private range with base port 101\n"),
                  said("Setting port 102\n"), said("Port 102 is within range\n"),
                  said("Port 102 is being reserved, value 0xffffffc0 \n"),
                  returned(FROM_RANGE, 102)));
}

TEST_F(PortsTest, FromRangeTellsPortsInUseAndExhaustion) {
  start_small("INT 101 102 103\n");
  from_range("INT", "101");
  EXPECT_EQ(from_range("INT", "101"), 103);
  EXPECT_THAT(
      trace(FROM_RANGE, {"INT", "101"}),
      ElementsAre(said("Base port received 101, for range INT\n"),
                  said("Port 102 is within range\n"), said("Port = 102 is in USE, value=-64 \n"),
                  said("Port 102 of private range is in use\n"), said("Port 103 is within range\n"),
                  said("Port = 103 is in USE, value=-64 \n"),
                  said("Port 103 of private range is in use\n"),
                  err("No free port available for this private range with base port "
                      "101\n"),
                  returned(FROM_RANGE, -1)));
  EXPECT_EQ(from_range("INT", "101"), -1);
}

TEST_F(PortsTest, FromRangeNeverGivesTheBasePort) {
  start_small("EXT 200 203 201\n");
  EXPECT_EQ(from_range("EXT", "200"), 203) << "in the order of the file";
  EXPECT_EQ(from_range("EXT", "200"), 201);
  EXPECT_EQ(from_range("EXT", "200"), -1);
  EXPECT_EQ(view().port("EXT", 200), PRIVATE);
}

TEST_F(PortsTest, FromRangeServesTheFourMapsApart) {
  start_small("INT 100 101\nEXT 200 201\nSTATIC_INT 100 102\nSTATIC_EXT 300 303\n");
  EXPECT_EQ(from_range("INT", "100"), 101);
  EXPECT_EQ(from_range("EXT", "200"), 201);
  EXPECT_EQ(from_range("STATIC_INT", "100"), 102);
  EXPECT_EQ(from_range("STATIC_EXT", "300"), 303);
}

TEST_F(PortsTest, FromRangeGivesMinusOneAndTakesNothingForAnUnknownBase) {
  start_small("INT 101 102\n");
  EXPECT_EQ(from_range("INT", "102"), -1) << "a port of a range is no base";
  EXPECT_THAT(messages(), Contains(said("The base port 102 is not assigned to any private "
                                        "range\n")));
  EXPECT_THAT(bytes("INT"), ElementsAre(0, PRIVATE, PRIVATE, 0));
  EXPECT_EQ(from_range("INT", "0"), -1);
}

TEST_F(PortsTest, FromRangeGivesZeroOnAMapWithoutRanges) {
  start_small("INT 101 102\n");
  EXPECT_THAT(trace(FROM_RANGE, {"EXT", "200"}),
              ElementsAre(said("Base port received 200, for range EXT\n"),
                          said("There is no private range of ports within this range\n"),
                          said("Setting port 0\n"), said("Port 0 out of range\n"),
                          returned(FROM_RANGE, 0)));
  EXPECT_EQ(from_range("EXT", "200"), 0);
  EXPECT_THAT(bytes("EXT"), Each(0));
}

TEST_F(PortsTest, FromRangeReportsAFullRangeOfTenPortsExhausted) {
  set_small_maps();
  set_bounds("INT", {100, 120});
  write_file(ranges_file(), "INT 100 101 102 103 104 105 106 107 108 109 110\n");
  start({});
  for (int port = 101; port <= 109; port++) EXPECT_EQ(from_range("INT", "100"), port);
  EXPECT_EQ(from_range("INT", "100"), -1);
  EXPECT_EQ(view().port("INT", 110), 0) << "an eleventh number isn't read";
}

TEST_F(PortsTest, FromRangeFindsTheFirstOfTwoRangesWithOneBaseAlone) {
  start_small("INT 100 101\nINT 100 102\n");
  EXPECT_EQ(from_range("INT", "100"), 101);
  EXPECT_EQ(from_range("INT", "100"), -1);
}

TEST_F(PortsTest, FromRangeTellsWhichOfItsPrintsFailed) {
  start_small("INT 101 102\n");
  const standin::command prepared = fixup(FROM_RANGE, {"INT", "101"});
  clear();
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(prepared), -3);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
  clear();
  standin::fail_call("pv_printf", 2);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
}

TEST_F(PortsTest, FromRangePrintsTheBaseFirst) {
  start_small("INT 101 102\n");
  standin::set_var("empty", "");
  EXPECT_EQ(from_range("$var(empty)", "$var(empty)"), -3);
  clear();
  EXPECT_EQ(from_range("$var(empty)", "101"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
}

TEST_F(PortsTest, FromRangePrints18CharactersOfEachAtMost) {
  start_small("INT 101 102\n");
  EXPECT_EQ(from_range("INT", std::string(15, '0') + "101"), 102);
  EXPECT_EQ(from_range("INT", std::string(16, '0') + "101"), -3);
  clear();
  EXPECT_EQ(from_range(std::string(19, 'X'), "101"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
}

TEST_F(PortsTest, FromRangeShowsTheLastQueryInPlaceOfAWrongWord) {
  start_small("INT 101 102\n", {{"t", {{"a"}}}});
  run("tarn_memdb_insert", {"t,value"});
  EXPECT_THAT(trace(FROM_RANGE, {"int", "101"}),
              ElementsAre(said("Base port received 101, for range int\n"), wrong_word("t,value")));
  EXPECT_EQ(from_range("int", "101"), -1);
}

// tarn_memdb_set_port.

TEST_F(PortsTest, SetTellsEveryStep) {
  start_small();
  EXPECT_THAT(trace(SET, {"102", "INT"}),
              ElementsAre(said("Setting port 102\n"), said("Port 102 is within range\n"),
                          said("Port 102 is being reserved, value 0xffffff80 \n")));
  EXPECT_THAT(trace(SET, {"99", "INT"}),
              ElementsAre(said("Setting port 99\n"), said("Port 99 out of range\n")));
}

TEST_F(PortsTest, SetTakesAPortOnceAndAgain) {
  start_small();
  EXPECT_EQ(set("102", "INT"), 1);
  EXPECT_EQ(set("102", "INT"), 1) << "in use already";
  EXPECT_THAT(bytes("INT"), ElementsAre(0, 0, RESERVED, 0));
  EXPECT_EQ(free("INT", "102"), 0);
  EXPECT_THAT(bytes("INT"), Each(0)) << "one call gives it back";
}

TEST_F(PortsTest, SetTakesTheBoundsAndRefusesWhatLiesBeyond) {
  start_small();
  EXPECT_EQ(set("100", "INT"), 1);
  EXPECT_EQ(set("103", "INT"), 1);
  EXPECT_EQ(set("99", "INT"), -2);
  EXPECT_EQ(set("104", "INT"), -2);
  EXPECT_EQ(set("-1", "INT"), -2);
  EXPECT_EQ(set("text", "INT"), -2) << "no number is port 0";
  EXPECT_THAT(bytes("INT"), ElementsAre(RESERVED, 0, 0, RESERVED));
}

TEST_F(PortsTest, SetServesTheFourMapsApart) {
  start_small();
  EXPECT_EQ(set("101", "INT"), 1);
  EXPECT_EQ(set("102", "STATIC_INT"), 1);
  EXPECT_EQ(set("201", "EXT"), 1);
  EXPECT_EQ(set("302", "STATIC_EXT"), 1);
  EXPECT_THAT(bytes("INT"), ElementsAre(0, RESERVED, 0, 0));
  EXPECT_THAT(bytes("STATIC_INT"), ElementsAre(0, 0, RESERVED, 0));
  EXPECT_THAT(bytes("EXT"), ElementsAre(0, RESERVED, 0, 0));
  EXPECT_THAT(bytes("STATIC_EXT"), ElementsAre(0, 0, RESERVED, 0));
}

TEST_F(PortsTest, SetMovesThePointerOnlyFromWhereItStands) {
  start_small();
  EXPECT_EQ(set("101", "INT"), 1);
  EXPECT_EQ(next("INT"), 100);
  EXPECT_EQ(set("100", "INT"), 1);
  EXPECT_EQ(next("INT"), 102) << "the step met an obstacle and looked from the bottom";
}

TEST_F(PortsTest, SetTakesAPrivatePort) {
  start_small("INT 101 102\n");
  EXPECT_EQ(set("102", "INT"), 1);
  EXPECT_THAT(bytes("INT"), ElementsAre(0, PRIVATE, PRIVATE | RESERVED, 0));
}

TEST_F(PortsTest, SetGivesMinusThreeForEitherPrintFailure) {
  start_small();
  const standin::command prepared = fixup(SET, {"100", "INT"});
  for (const int n : {1, 2}) {
    clear();
    standin::fail_call("pv_printf", n);
    EXPECT_EQ(call(prepared), -3);
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
  }
  standin::set_var("empty", "");
  EXPECT_EQ(set("$var(empty)", "INT"), -3);
  EXPECT_EQ(set("100", "$var(empty)"), -3);
  EXPECT_EQ(set(std::string(19, '1'), "INT"), -3);
  EXPECT_EQ(set("100", std::string(19, 'X')), -3);
  EXPECT_EQ(set(std::string(15, '0') + "100", "INT"), 1) << "18 characters fit";
}

TEST_F(PortsTest, SetShowsTheWrongWordItself) {
  start_small("", {{"t", {{"a"}}}});
  run("tarn_memdb_insert", {"t,value"});
  EXPECT_THAT(trace(SET, {"100", "int"}), ElementsAre(wrong_word("int")));
  EXPECT_EQ(set("100", "int"), -1);
  EXPECT_EQ(set("INT", "100"), -1) << "the port comes first";
}

// tarn_memdb_free_port.

TEST_F(PortsTest, FreeTellsEveryStep) {
  start_small();
  set("102", "INT");
  EXPECT_THAT(trace(FREE, {"INT", "102"}),
              ElementsAre(said("Received port to be freed = 102\n"),
                          said("Port = 102 is freed and value update to 0x0\n")));
  EXPECT_THAT(trace(FREE, {"INT", "104"}), ElementsAre(said("Received port to be freed = 104\n"),
                                                       said("Port 104 out of range\n")));
}

TEST_F(PortsTest, FreeTellsANewFreePortOutOfExhaustion) {
  start_small("INT 103\n");
  for (int i = 0; i < 3; i++) get("INT");
  ASSERT_EQ(next("INT"), NO_PORT_LEFT);
  EXPECT_THAT(
      trace(FREE, {"INT", "101"}),
      ElementsAre(said("Received port to be freed = 101\n"),
                  said("Port 101 is within range and it is not reserved for a private range\n"),
                  said("Port 101 is not reserved for a private range\n"),
                  said("New Free Port updated to 101\n"),
                  said("Port = 101 is freed and value update to 0x0\n")));
}

TEST_F(PortsTest, FreeGivesZeroForAPortThatWasNeverTaken) {
  start_small();
  EXPECT_EQ(free("INT", "101"), 0);
  EXPECT_THAT(bytes("INT"), Each(0));
  EXPECT_EQ(next("INT"), 100);
}

TEST_F(PortsTest, FreeGivesMinusTwoOutOfRange) {
  start_small();
  EXPECT_EQ(free("INT", "99"), -2);
  EXPECT_EQ(free("INT", "104"), -2);
  EXPECT_EQ(free("INT", "text"), -2);
}

TEST_F(PortsTest, FreeKeepsAPortThatTwoRowsHoldAfterOneCall) {
  start_small("", {calls("c", "dynamic")});
  run("tarn_memdb_insert", {"c,1|a|b|c|101|WAN|0|0|0"});
  run("tarn_memdb_insert", {"c,2|d|e|f|101|WAN|0|0|0"});
  ASSERT_EQ(view().port("INT", 101), 0x82);
  EXPECT_EQ(free("INT", "101"), 0);
  EXPECT_EQ(view().port("INT", 101), HELD_ONCE);
  EXPECT_EQ(free("INT", "101"), 0);
  EXPECT_EQ(view().port("INT", 101), 0);
}

TEST_F(PortsTest, FreePrivatePortsDoNotEndExhaustion) {
  start_small("INT 102 103\n");
  get("INT");
  get("INT");
  EXPECT_EQ(from_range("INT", "102"), 103);
  ASSERT_EQ(next("INT"), NO_PORT_LEFT);
  EXPECT_EQ(free("INT", "103"), 0);
  EXPECT_EQ(next("INT"), NO_PORT_LEFT);
  EXPECT_EQ(view().port("INT", 103), PRIVATE);
}

TEST_F(PortsTest, FreePrintsAPortOfSixCharactersAtMost) {
  start_small();
  set("102", "INT");
  EXPECT_EQ(free("INT", "0000102"), -3);
  EXPECT_EQ(view().port("INT", 102), RESERVED);
  EXPECT_EQ(free("INT", "000102"), 0);
  EXPECT_EQ(view().port("INT", 102), 0);
}

TEST_F(PortsTest, FreePrintsAWordOf18CharactersAtMost) {
  start_small();
  EXPECT_EQ(free(std::string(18, 'X'), "100"), -1);
  EXPECT_THAT(messages(), ElementsAre(wrong_word(std::string(18, 'X'))));
  EXPECT_EQ(free(std::string(19, 'X'), "100"), -3);
  EXPECT_EQ(free("STATIC_EXT", "300"), 0);
}

TEST_F(PortsTest, FreeGivesMinusThreeForEitherPrintFailure) {
  start_small();
  const standin::command prepared = fixup(FREE, {"INT", "100"});
  for (const int n : {1, 2}) {
    clear();
    standin::fail_call("pv_printf", n);
    EXPECT_EQ(call(prepared), -3);
    EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE)));
  }
  standin::set_var("empty", "");
  EXPECT_EQ(free("$var(empty)", "100"), -3);
  EXPECT_EQ(free("INT", "$var(empty)"), -3);
}

TEST_F(PortsTest, FreePrintsBothBeforeItLooksAtTheWord) {
  start_small();
  standin::set_var("empty", "");
  EXPECT_EQ(free("wrong", "$var(empty)"), -3);
}

TEST_F(PortsTest, FreeShowsTheWrongWordItself) {
  start_small("", {{"t", {{"a"}}}});
  run("tarn_memdb_insert", {"t,value"});
  EXPECT_THAT(trace(FREE, {"int", "100"}), ElementsAre(wrong_word("int")));
  EXPECT_EQ(free("int", "100"), -1);
  EXPECT_EQ(free("100", "INT"), -1) << "the word comes first";
}

// Private ranges beside ordinary allocation.

TEST_F(PortsTest, OrdinaryAllocationSkipsPrivatePorts) {
  start_small("INT 101 102\n");
  EXPECT_EQ(get("INT"), 100);
  EXPECT_EQ(get("INT"), 103);
  EXPECT_EQ(get("INT"), -1);
  EXPECT_EQ(from_range("INT", "101"), 102);
}

TEST_F(PortsTest, OrdinaryAllocationGivesOutAPrivatePortAtTheBottomOnce) {
  start_small("INT 100 101\n");
  EXPECT_EQ(get("INT"), 100) << "the pointer stood there from the start";
  EXPECT_EQ(get("INT"), 102);
  EXPECT_EQ(get("INT"), 103);
  EXPECT_EQ(get("INT"), -1);
}

// tarn_memdb_clear_pmap.

TEST_F(PortsTest, ClearTellsEveryStep) {
  start_small("", {calls("dyn", "dynamic", "TAG"), {"plain", {{"a"}}}, calls("st", "static")});
  run("tarn_memdb_insert", {"dyn,1|a|b|c|101|WAN|0|0|0"});
  run("tarn_memdb_insert", {"plain,x"});
  standin::tick();
  EXPECT_THAT(
      trace(CLEAR, {}),
      ElementsAre(
          said("Clear port map\n"), said("Clear table: dyn\n"),
          said("Table 'dyn' state was set to value 1\n"),
          notice("       TAG - (0) Clearing table dyn"), said("Clear table: st\n"),
          said("Table 'st' state was set to value 1\n"), said("Looking all tables for changes\n"),
          said("Storing table 'dyn' to file 'dyn.txt'\n"),
          said("Table 'dyn' was changed. Saving changes to file\n"),
          said("Saving backup file '" + backup_file("dyn") + "'\n"),
          said("Saving file '" + main_file("dyn") + "'\n"),
          said("Table 'dyn' state was set to value 0\n"),
          said("Storing table 'plain' to file 'plain.txt'\n"),
          said("Table 'plain' was not changed\n"), said("Storing table 'st' to file 'st.txt'\n"),
          said("Table 'st' was changed. Saving changes to file\n"),
          said("Saving backup file '" + backup_file("st") + "'\n"),
          said("Saving file '" + main_file("st") + "'\n"),
          said("Table 'st' state was set to value 0\n"), said("Clear port map OK!\n")));
}

TEST_F(PortsTest, ClearEmptiesPortTablesAndMapsAndNoOthers) {
  start_small("EXT 202 203\n", {calls("c", "dynamic"), {"plain", {{"a"}}}});
  run("tarn_memdb_insert", {"c,1|a|b|c|101|WAN|0|0|0"});
  run("tarn_memdb_insert", {"c,2|d|e|f|0|LAN|201|0|0"});
  run("tarn_memdb_insert", {"plain,x"});
  get("STATIC_INT");
  for (int i = 0; i < 5; i++) get("STATIC_EXT");
  EXPECT_EQ(run(CLEAR, {}), 1);
  expect_rows("c", {});
  expect_rows("plain", {{"x"}});
  for (const char *word : {"INT", "EXT", "STATIC_INT", "STATIC_EXT"}) {
    EXPECT_THAT(bytes(word), Each(0)) << word;
    EXPECT_EQ(next(word), view().map(word).min_port) << word;
  }
  EXPECT_EQ(get("INT"), 100);
  EXPECT_EQ(get("STATIC_EXT"), 300);
}

TEST_F(PortsTest, ClearStoresTheEmptiedTablesAtOnceAndKeepsTheRowsInTheBackup) {
  start_small("", {calls("c", "dynamic")});
  run("tarn_memdb_insert", {"c,1|a|b|c|101|WAN|0|0|0"});
  standin::tick();
  ASSERT_EQ(read_file(main_file("c")), table_text({"1|a|b|c|101|WAN|0|0|0"}));
  EXPECT_EQ(run(CLEAR, {}), 1);
  EXPECT_EQ(read_file(main_file("c")), table_text({}));
  EXPECT_EQ(read_file(backup_file("c")), table_text({"1|a|b|c|101|WAN|0|0|0"}));
  EXPECT_FALSE(store_writes("c"));
}

TEST_F(PortsTest, ClearStoresOtherChangedTablesToo) {
  start_small("", {calls("c", "dynamic"), {"plain", {{"a"}}}});
  run("tarn_memdb_insert", {"plain,x"});
  EXPECT_EQ(run(CLEAR, {}), 1);
  EXPECT_EQ(read_file(main_file("plain")), table_text({"x"}));
}

TEST_F(PortsTest, ClearMakesPrivatePortsOrdinaryAndKeepsTheirRanges) {
  start_small("INT 101 102\n");
  EXPECT_EQ(from_range("INT", "101"), 102);
  EXPECT_EQ(run(CLEAR, {}), 1);
  EXPECT_THAT(bytes("INT"), Each(0));
  EXPECT_EQ(get("INT"), 100);
  EXPECT_EQ(get("INT"), 101) << "ordinary now";
  EXPECT_EQ(from_range("INT", "101"), 102) << "still listed";
  EXPECT_EQ(get("INT"), 103);
  EXPECT_EQ(get("INT"), -1);
}

TEST_F(PortsTest, ClearDoesNotTreatRowsOneByOne) {
  start_small("", {calls("c", "dynamic")});
  run("tarn_memdb_insert", {"c,1|a|b|c|101|WAN|0|0|0"});
  EXPECT_THAT(trace(CLEAR, {}), Not(Contains(said("Initializing flag_treatment ...\n"))));
}

TEST_F(PortsTest, ClearLeavesTheNextIndexAlone) {
  table indexed = calls("c", "dynamic");
  indexed.use_index = true;
  start_small("", {indexed});
  EXPECT_EQ(run("tarn_memdb_insert", {"c,x|a|b|c|101|WAN|0|0|0"}), 1);
  EXPECT_EQ(run(CLEAR, {}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"c,x|a|b|c|101|WAN|0|0|0"}), 2);
}

TEST_F(PortsTest, ClearGivesOneOnEmptyTablesAndWithoutAny) {
  start_small("", {calls("c", "dynamic")});
  EXPECT_EQ(run(CLEAR, {}), 1);
  EXPECT_EQ(read_file(main_file("c")), table_text({})) << "marked and stored all the same";
  forget_view();
  unload();
  load();
  start_small();
  EXPECT_EQ(run(CLEAR, {}), 1);
}

TEST_F(PortsTest, ClearGivesOneWhenTheStoreFails) {
  start_small("", {calls("c", "dynamic")});
  run("tarn_memdb_insert", {"c,1|a|b|c|101|WAN|0|0|0"});
  const standin::command prepared = fixup(CLEAR, {});
  clear();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not open file '" + main_file("c") + "'\n"),
                          err("Could not store table 'c' to file 'c.txt'\n")));
  EXPECT_TRUE(store_writes("c")) << "tried again at the next tick";
}

// Rows that hold ports, written by script functions and by statements.

struct holder {
  std::string range;     // of the table
  std::string location;  // column 5
  std::string type;      // of the range's own type column
  std::string map;       // where the port is taken
};

class HolderTest : public PortsTest, public testing::WithParamInterface<holder> {
 protected:
  void start_table() { start_small("", {calls("c", GetParam().range, "TAG")}); }
  bool dynamic() const { return GetParam().range == "dynamic"; }
  bool internal() const { return GetParam().map.find("INT") != std::string::npos; }
  // The n-th port of the map.
  std::string port(int n) { return std::to_string(view().map(GetParam().map).min_port + n); }
  std::string row(const std::string &id, const std::string &taken) const {
    const std::string type = GetParam().type;
    return id + "|k" + id + "|b|c|" + (internal() ? taken : "9") + "|" + GetParam().location + "|" +
           (internal() ? "9" : taken) + "|" + (dynamic() ? "0" : type) + "|" +
           (dynamic() ? type : "0");
  }
  std::string statement(const std::string &id, const std::string &taken) const {
    return "INSERT INTO c id,k1," + std::string(internal() ? "in" : "ex") + ",loc," +
           (dynamic() ? "dtype" : "stype") + " VALUES " + id + ",k" + id + "," + taken + "," +
           GetParam().location + "," + GetParam().type;
  }
  std::string port_column() const { return internal() ? "in" : "ex"; }
  // Every byte of the four maps but those of the table's own one is zero.
  void expect_others_empty() {
    for (const char *word : {"INT", "EXT", "STATIC_INT", "STATIC_EXT"}) {
      if (word == GetParam().map) continue;
      EXPECT_THAT(bytes(word), Each(0)) << word;
    }
  }
};

TEST_P(HolderTest, AnInsertTakesThePortOfItsSide) {
  start_table();
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + row("1", port(1))}), 1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, HELD_ONCE, 0, 0));
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + row("2", port(1))}), 1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, 0x82, 0, 0));
  expect_others_empty();
}

TEST_P(HolderTest, AStatementTakesThePortOfItsSide) {
  start_table();
  EXPECT_EQ(run("sqll_tarn_memdb_insert", {statement("1", port(2))}), 1) << standin::log_dump();
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, 0, HELD_ONCE, 0));
  expect_others_empty();
}

TEST_P(HolderTest, AnInsertMovesThePointerFromWhereItStands) {
  start_table();
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + row("1", port(0))}), 1);
  EXPECT_EQ(std::to_string(next(GetParam().map)), port(1));
  EXPECT_EQ(run("sqll_tarn_memdb_insert", {statement("2", port(1))}), 1);
  EXPECT_EQ(std::to_string(next(GetParam().map)), port(2));
}

TEST_P(HolderTest, APortThatAScriptTookComesFreeWithItsRow) {
  start_table();
  const std::string taken = std::to_string(get(GetParam().map));
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + row("1", taken)}), 1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(HELD_ONCE, 0, 0, 0));
  EXPECT_EQ(run("tarn_memdb_delete", {"c,1|*|*|*|*|*|*|*|*"}), 1);
  EXPECT_THAT(bytes(GetParam().map), Each(0));
}

TEST_P(HolderTest, ADeleteReleasesThePort) {
  start_table();
  run("tarn_memdb_insert", {"c," + row("1", port(1))});
  run("tarn_memdb_insert", {"c," + row("2", port(1))});
  EXPECT_EQ(run("tarn_memdb_delete", {"c,1|*|*|*|*|*|*|*|*"}), 1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, HELD_ONCE, 0, 0));
  EXPECT_EQ(run("sqll_tarn_memdb_delete", {"DELETE FROM c WHERE id=2"}), 1);
  EXPECT_THAT(bytes(GetParam().map), Each(0));
}

TEST_P(HolderTest, AnUpdateThatNamesTheOldPortReleasesItAndTakesNothing) {
  start_table();
  run("tarn_memdb_insert", {"c," + row("1", port(1))});
  EXPECT_EQ(run("tarn_memdb_update",
                {"c," + port_column() + "=" + port(1) + ",", port_column() + "=" + port(3)}),
            1);
  EXPECT_THAT(bytes(GetParam().map), Each(0));
  // The row's new port is in no map, and the next release of it changes nothing.
  EXPECT_EQ(run("sqll_tarn_memdb_delete", {"DELETE FROM c WHERE id=1"}), 1);
  EXPECT_THAT(bytes(GetParam().map), Each(0));
}

TEST_P(HolderTest, AStatementThatNamesTheOldPortReleasesItAndTakesNothing) {
  start_table();
  run("sqll_tarn_memdb_insert", {statement("1", port(1))});
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE c SET " + port_column() + "=" + port(3) +
                                           " WHERE " + port_column() + "=" + port(1)}),
            1);
  EXPECT_THAT(bytes(GetParam().map), Each(0));
}

TEST_P(HolderTest, AnUpdateToTheSamePortReleasesNothing) {
  start_table();
  run("tarn_memdb_insert", {"c," + row("1", port(1))});
  EXPECT_EQ(run("tarn_memdb_update",
                {"c," + port_column() + "=" + port(1) + ",", port_column() + "=" + port(1)}),
            1);
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE c SET " + port_column() + "=" + port(1) +
                                           " WHERE " + port_column() + "=" + port(1)}),
            1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, HELD_ONCE, 0, 0));
}

TEST_P(HolderTest, AnUpdateThatSelectsOtherwiseReleasesNothing) {
  start_table();
  run("tarn_memdb_insert", {"c," + row("1", port(1))});
  EXPECT_EQ(run("tarn_memdb_update", {"c,id=1,", port_column() + "=" + port(3)}), 1);
  EXPECT_EQ(run("sqll_tarn_memdb_update",
                {"UPDATE c SET " + port_column() + "=" + port(2) + " WHERE id=1"}),
            1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, HELD_ONCE, 0, 0));
}

TEST_P(HolderTest, ARowGoneThroughAnUpdateStatementReleasesByTheQueriesAlone) {
  start_table();
  run("tarn_memdb_insert", {"c," + row("1", port(1))});
  run("tarn_memdb_insert", {"c," + row("2", port(2))});
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE c SET k2='' WHERE id=1"}), 1);
  EXPECT_EQ(row_count("c"), 1);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, HELD_ONCE, HELD_ONCE, 0));
  EXPECT_EQ(run("sqll_tarn_memdb_update",
                {"UPDATE c SET " + port_column() + "='' WHERE " + port_column() + "=" + port(2)}),
            1);
  EXPECT_EQ(row_count("c"), 0);
  EXPECT_THAT(bytes(GetParam().map), ElementsAre(0, HELD_ONCE, 0, 0));
}

TEST_P(HolderTest, APortOutOfRangeIsToldAndTheRowKept) {
  start_table();
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + row("1", "7")}), 1);
  EXPECT_THAT(messages(),
              Contains(said("Port 7 NOT set on load for range " + GetParam().range + "!\n")));
  clear();
  EXPECT_EQ(run("sqll_tarn_memdb_delete", {"DELETE FROM c WHERE id=1"}), 1);
  EXPECT_THAT(messages(INFO_LEVEL), Contains(err("Port 7 not cleared!\n")));
  EXPECT_EQ(row_count("c"), 0);
}

TEST_P(HolderTest, AnEmptyPortOnBothSidesOfAnUpdateIsReleasedAsPortZero) {
  start_table();
  run("tarn_memdb_insert", {"c," + row("1", "")});
  clear();
  EXPECT_EQ(run("sqll_tarn_memdb_update",
                {"UPDATE c SET k2=x," + port_column() + "='' WHERE " + port_column() + "=''"}),
            1);
  EXPECT_THAT(messages(INFO_LEVEL), Contains(err("Port  not cleared!\n")));
}

INSTANTIATE_TEST_SUITE_P(All, HolderTest,
                         testing::Values(holder{"dynamic", "WAN", "0", "INT"},
                                         holder{"dynamic", "LAN", "6", "INT"},
                                         holder{"dynamic", "LAN", "3", "EXT"},
                                         holder{"static", "WAN", "0", "STATIC_INT"},
                                         holder{"static", "LAN", "6", "STATIC_INT"},
                                         holder{"static", "wan", "3", "STATIC_EXT"}),
                         [](const auto &tested) {
                           return tested.param.range + tested.param.location + tested.param.type;
                         });

// A refused insert takes no port.

TEST_F(PortsTest, RefusedRowsTakeNoPort) {
  table small = calls("c", "dynamic");
  small.max_rows = 1;
  small.check_duplicates = true;
  start_small("", {small});
  const standin::command insert = fixup("tarn_memdb_insert", {"c,$var(row)"});
  standin::set_var("row", "1|a|b|c|101|WAN|0|0|0");
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(call(insert), -1);
  EXPECT_THAT(bytes("INT"), Each(0));
  EXPECT_EQ(call(insert), 1);
  EXPECT_EQ(call(insert), -1) << "full";
  EXPECT_THAT(bytes("INT"), ElementsAre(0, HELD_ONCE, 0, 0));
}

// Parameters, cost and failures.

TEST_F(PortsTest, TakePseudoVariablesEverywhere) {
  start_small("EXT 201 202\n");
  standin::set_var("map", "INT");
  EXPECT_EQ(get("$var(map)"), 100);
  standin::set_value(msg, "$fU", "EXT");
  std::string port;
  EXPECT_EQ(get_into("$fU", &port), 1);
  EXPECT_EQ(port, "200");
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
  EXPECT_EQ(view().port("INT", 102), RESERVED);
}

TEST_F(PortsTest, LongSearchesAskTheHostForItsDebugLevelNoOftener) {
  set_small_maps();
  set_bounds("INT", {100, 700});
  start({});
  standin::set_debug_level(ALERT_LEVEL);
  const standin::command take = fixup(GET, {"INT"});
  standin::reset_calls();
  EXPECT_EQ(call(take), 100);
  const int for_one_step = standin::debug_level_queries();
  for (int port = 101; port <= 699; port++) call(take);
  standin::reset_calls();
  EXPECT_EQ(call(take), 700) << "the search behind it looks at every port";
  EXPECT_EQ(standin::debug_level_queries(), for_one_step);
  EXPECT_EQ(next("INT"), NO_PORT_LEFT);
}

TEST_F(PortsTest, ClearingManyRowsAsksTheHostForItsDebugLevelNoOftener) {
  table big = calls("c", "dynamic", "TAG");
  big.max_rows = 1000;
  start_small("", {big});
  standin::set_debug_level(ALERT_LEVEL);
  const standin::command insert = fixup("tarn_memdb_insert", {"c,1|a|b|c|101|WAN|0|0|0"});
  const standin::command clear_map = fixup(CLEAR, {});
  call(insert);
  standin::reset_calls();
  call(clear_map);
  const int for_one = standin::debug_level_queries();
  for (int i = 0; i < 500; i++) call(insert);
  standin::reset_calls();
  call(clear_map);
  EXPECT_EQ(standin::debug_level_queries(), for_one);
}

TEST_F(PortsTest, FailCleanlyWhateverCallFails) {
  start_small("INT 101 102 103\n", {calls("c", "dynamic")});
  const standin::command clear_map = fixup(CLEAR, {});
  const scene around{[this, &clear_map] {
                       clear();
                       call(clear_map);
                     },
                     [] {}};
  expect_results_of_failing_calls(fixup(GET, {"INT"}), 100, {{"pv_printf", {-1}}}, around);
  expect_results_of_failing_calls(
      fixup(GET, {"INT", "$avp(port)"}), 1,
      {{"pv_printf", {-1}}, {"pv_get_avp_name", {-1}}, {"add_avp", {-1}}}, around);
  expect_results_of_failing_calls(fixup(FROM_RANGE, {"INT", "101"}), 102, {{"pv_printf", {-3, -1}}},
                                  around);
  expect_results_of_failing_calls(fixup(SET, {"102", "INT"}), 1, {{"pv_printf", {-3, -3}}}, around);
  expect_results_of_failing_calls(fixup(FREE, {"INT", "102"}), 0, {{"pv_printf", {-3, -3}}},
                                  around);
  expect_results_of_failing_calls(clear_map, 1, {}, around);
}

TEST_F(PortsTest, AllocateNothing) {
  start_small("INT 101 102 103\n", {calls("c", "dynamic")});
  const std::vector<standin::command> all = [this] {
    std::vector<standin::command> out;
    out.push_back(fixup(GET, {"INT"}));
    out.push_back(fixup(GET, {"INT", "$avp(port)"}));
    out.push_back(fixup(FROM_RANGE, {"INT", "101"}));
    out.push_back(fixup(SET, {"102", "INT"}));
    out.push_back(fixup(FREE, {"INT", "102"}));
    out.push_back(fixup(CLEAR, {}));
    return out;
  }();
  for (const standin::command &prepared : all) {
    standin::reset_allocation_count();
    call(prepared);
    EXPECT_EQ(standin::allocation_count(pool::both), 0U) << prepared.row()->name;
  }
}

TEST_F(PortsTest, AFailedPrintLeavesTheMapsAlone) {
  start_small("INT 101 102 103\n");
  const std::vector<int> before = bytes("INT");
  standin::fail_calls_from("pv_printf", 1);
  get("INT");
  run(GET, {"INT", "$avp(port)"});
  from_range("INT", "101");
  set("102", "INT");
  EXPECT_EQ(bytes("INT"), before);
  EXPECT_EQ(next("INT"), 100);
}

}  // namespace
}  // namespace module_test
