// tarn_memdb_select and tarn_memdb_nl_select: which rows are found, and how they come into AVPs.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char UNPRINTABLE_SELECT[] = "could not print the formatted pv input\n";

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};
const std::string NAMES = "$avp(name)|$avp(age)|$avp(city)";

using values = std::vector<value>;

// Both flavours go through every test: the lock is their only difference.
class SelectTest : public ModuleTest, public testing::WithParamInterface<const char *> {
 protected:
  standin::command prepared(const std::string &query, const std::string &names = NAMES) {
    standin::command out = fixup(GetParam(), {query, names});
    EXPECT_TRUE(out.accepted()) << standin::log_dump();
    forget();
    return out;
  }

  int select(const std::string &query, const std::string &names = NAMES) {
    standin::clear_avps();
    return call(prepared(query, names));
  }

  void expect_refused(const std::string &query, std::vector<message> said) {
    SCOPED_TRACE(query);
    EXPECT_EQ(select(query), -1);
    said.push_back(err("SELECT failed!\n"));
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAreArray(said));
    EXPECT_EQ(standin::avp_count(), 0u);
  }

  // The values of the first column that came, as the script reads them.
  std::vector<std::string> names_found() {
    std::vector<std::string> out;
    for (const value &one : standin::avp("name")) out.push_back(one.text);
    return out;
  }

  static const std::vector<std::string> FOUR;
};

const std::vector<std::string> SelectTest::FOUR = {"alice|30|rome", "bob|30|oslo", "alice|31|rome",
                                                   "carol||rome"};

INSTANTIATE_TEST_SUITE_P(Flavours, SelectTest,
                         testing::Values("tarn_memdb_select", "tarn_memdb_nl_select"));

TEST_P(SelectTest, OneRowComesColumnByColumn) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,bob|*|*\n")));
  EXPECT_EQ(standin::avp("name"), values{"bob"});
  EXPECT_EQ(standin::avp("age"), values{"30"});
  EXPECT_EQ(standin::avp("city"), values{"oslo"});
}

TEST_P(SelectTest, TheRowDeliveredLastIsReadFirst) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,*|*|rome"), 1);
  EXPECT_EQ(standin::avp("name"), (values{"alice", "alice", "carol"}));
  EXPECT_EQ(standin::avp("age"), (values{"30", "31", ""}));
  EXPECT_EQ(select("users,alice|*|*"), 1);
  EXPECT_EQ(standin::avp("age"), (values{"30", "31"}));
}

TEST_P(SelectTest, EveryFieldThatIsGivenHasToBeEqual) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,alice|31|rome"), 1);
  EXPECT_EQ(standin::avp("age"), values{"31"});
  EXPECT_EQ(select("users,alice|31|oslo"), -2);
  EXPECT_EQ(select("users,*||*"), 1);
  EXPECT_EQ(standin::avp("name"), values{"carol"});
  EXPECT_EQ(select("users,*|3|*"), -2);
}

TEST_P(SelectTest, AMissIsSilent) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,dave|*|*"), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,dave|*|*\n")));
  EXPECT_EQ(standin::avp_count(), 0u);
}

TEST_P(SelectTest, AnEmptyTableIsAMiss) {
  start({USERS});
  EXPECT_EQ(select("users,*|*|*"), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,*|*|*\n")));
}

TEST_P(SelectTest, NothingIsChanged) {
  start_filled(with(USERS, 100, "USR"), FOUR);
  EXPECT_EQ(select("users,*|*|*"), 1);
  EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
  EXPECT_FALSE(store_writes("users"));
  EXPECT_EQ(row_count("users"), 4);
}

TEST_P(SelectTest, ValuesComeFromTheMessage) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,$fU|*|*,$var(n)");
  standin::set_value(msg, "$fU", "alice");
  standin::set_var("n", 1);
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::avp("age"), values{"31"});
  standin::set_value(msg, "$fU", "nobody");
  EXPECT_EQ(call(call_of_it), -2);
  standin::set_value(msg, "$fU", "a|b");
  EXPECT_EQ(call(call_of_it), -1);
}

TEST_P(SelectTest, NamedListsGiveTheColumnsThatMatter) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,city=rome;age=30,"), 1);
  EXPECT_EQ(standin::avp("name"), values{"alice"});
  EXPECT_EQ(select("users,city=rome,1"), 1);
  EXPECT_EQ(standin::avp("name"), values{"carol"});
  EXPECT_EQ(select("users,,"), 1);
  EXPECT_EQ(standin::avp("name").size(), 4u);
}

TEST_P(SelectTest, EscapedValuesMatchTheirPlainText) {
  start_filled(USERS, {"a,b|1|x", "c|2|\\*", "d\\|e|3|\\\\"});
  EXPECT_EQ(select("users,a\\,b|*|*"), 1);
  EXPECT_EQ(standin::avp("age"), values{"1"});
  EXPECT_EQ(select("users,*|*|\\*"), 1);
  EXPECT_EQ(standin::avp("age"), values{"2"});
  EXPECT_EQ(select("users,d\\|e|*|\\\\"), 1);
  EXPECT_EQ(standin::avp("name"), values{"d|e"});
  EXPECT_EQ(standin::avp("city"), values{"\\"});
}

// The limit.

TEST_P(SelectTest, TheLimitTakesTheRowsInTheOrderOfTheSearch) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,*|*|*,1"), 1);
  EXPECT_THAT(names_found(), ElementsAre("carol"));
  EXPECT_EQ(select("users,*|*|*,3"), 1);
  EXPECT_THAT(names_found(), ElementsAre("bob", "alice", "carol"));
  EXPECT_EQ(select("users,*|30|*,1"), 1);
  EXPECT_THAT(names_found(), ElementsAre("bob"));
  EXPECT_EQ(select("users,alice|*|*,1"), 1);
  EXPECT_EQ(standin::avp("age"), values{"31"});
  EXPECT_EQ(select("users,*|*|*,500"), 1);
  EXPECT_EQ(standin::avp("name").size(), 4u);
}

TEST_P(SelectTest, WithoutALimitTheTablesOwnOneCounts) {
  start_filled(with(USERS, 2), FOUR);
  for (const std::string tail : {"", ",", ",abc", ",99999999999"}) {
    EXPECT_EQ(select("users,*|*|*" + tail), 1);
    EXPECT_THAT(names_found(), ElementsAre("alice", "carol")) << tail;
  }
  EXPECT_EQ(select("users,*|*|*,2147483647"), 1);
  EXPECT_EQ(standin::avp("name").size(), 4u);
}

TEST_P(SelectTest, ALimitThatIsntAboveZeroIsRefused) {
  start_filled(USERS, FOUR);
  for (const std::string number : {"0", "-1", "+"})
    expect_refused("users,*|*|*," + number,
                   {err("Invalid value for maximum result count\n"),
                    err("Could not parse query (users,*|*|*," + number + ") for insert\n")});
}

TEST_P(SelectTest, ATableWhoseLimitIsZeroFindsNothingWithoutANumber) {
  start_filled(with(USERS, 0), FOUR);
  EXPECT_EQ(select("users,*|*|*"), -2);
  EXPECT_EQ(select("users,*|*|*,1"), 1);
}

// Names and places.

TEST_P(SelectTest, AShortListLeavesTheLastColumnsOut) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,bob|*|*", "$avp(name)"), 1);
  EXPECT_EQ(standin::avp_count(), 1u);
  EXPECT_EQ(standin::avp("name"), values{"bob"});
}

TEST_P(SelectTest, ALongListLeavesItsLastNamesOut) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,bob|*|*", NAMES + "|$avp(more)|$avp(most)"), 1);
  EXPECT_EQ(standin::avp_count(), 3u);
  EXPECT_EQ(standin::avp("city"), values{"oslo"});
}

TEST_P(SelectTest, AnEmptyPlaceSkipsItsColumn) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,bob|*|*", "$avp(name)||$avp(city)"), 1);
  EXPECT_EQ(standin::avp_count(), 2u);
  EXPECT_EQ(standin::avp("name"), values{"bob"});
  EXPECT_EQ(standin::avp("city"), values{"oslo"});
  EXPECT_EQ(select("users,bob|*|*", "|$avp(age)|"), 1);
  EXPECT_EQ(standin::avp_count(), 1u);
  EXPECT_EQ(standin::avp("age"), values{"30"});
}

TEST_P(SelectTest, AListOfEmptyPlacesDeliversNothingAndIsTrue) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,bob|*|*", "||"), 1);
  EXPECT_EQ(standin::avp_count(), 0u);
  EXPECT_EQ(standin::calls("add_avp"), 0);
}

TEST_P(SelectTest, AnEmptyFieldIsAnEmptyText) {
  start_filled(USERS, {"carol||"});
  EXPECT_EQ(select("users,carol|*|*"), 1);
  EXPECT_EQ(standin::avp("age"), values{""});
  EXPECT_EQ(standin::avp("city"), values{""});
}

TEST_P(SelectTest, OneAvpMayTakeSeveralColumns) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,bob|*|*", "$avp(all)|$avp(all)|$avp(all)"), 1);
  EXPECT_EQ(standin::avp("all"), (values{"oslo", "30", "bob"}));
}

TEST_P(SelectTest, NewValuesStandBeforeOlderOnes) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*");
  standin::push_avp("name", "old");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::avp("name"), (values{"bob", "old"}));
}

TEST_P(SelectTest, NamesMayBeNumbersOrComeFromVariables) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it =
      prepared("users,bob|*|*", "$avp(i:7)|$avp($var(which))|$avp(s:text)");
  standin::set_var("which", "chosen");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::avp(7), values{"bob"});
  EXPECT_EQ(standin::avp("chosen"), values{"30"});
  EXPECT_EQ(standin::avp("text"), values{"oslo"});
}

TEST_P(SelectTest, ANameThatCantBeResolvedSkipsItsColumn) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*", "$avp(name)|$avp($fU)|$avp(city)");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,bob|*|*\n")));
  EXPECT_EQ(standin::avp_count(), 2u);
  EXPECT_EQ(standin::avp("city"), values{"oslo"});
}

TEST_P(SelectTest, EachNameThatTheHostFailsOnSkipsItsColumn) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*");
  const std::vector<std::string> names = {"name", "age", "city"};
  for (int n = 1; n <= 3; n++) {
    standin::clear_avps();
    standin::fail_call("pv_get_avp_name", n);
    EXPECT_EQ(call(call_of_it), 1);
    EXPECT_EQ(standin::avp_count(), 2u);
    EXPECT_THAT(standin::avp(names[static_cast<size_t>(n) - 1]), IsEmpty());
  }
}

TEST_P(SelectTest, ARefusedAvpEndsTheSelectAndWhatCameStays) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|rome");
  // The second row's second column.
  standin::fail_call("add_avp", 5);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not add avp\n"), err("SELECT failed!\n")));
  EXPECT_EQ(standin::avp("name"), (values{"alice", "carol"}));
  EXPECT_EQ(standin::avp("age"), values{""});
  EXPECT_EQ(standin::avp("city"), values{"rome"});
  EXPECT_EQ(standin::calls("add_avp"), 5);
  EXPECT_EQ(select("users,*|*|rome"), 1);
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|*|*"}), 1);  // the lock is free
}

TEST_P(SelectTest, EachAvpThatTheHostRefusesEndsTheSelect) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  for (int n = 1; n <= 12; n++) {
    standin::clear_avps();
    forget();
    standin::fail_call("add_avp", n);
    EXPECT_EQ(call(call_of_it), -1) << n;
    EXPECT_EQ(standin::avp_count(), static_cast<size_t>(n) - 1);
    EXPECT_THAT(messages(INFO_LEVEL),
                ElementsAre(err("Could not add avp\n"), err("SELECT failed!\n")));
  }
  standin::clear_avps();
  forget();
  standin::fail_call("add_avp", 13);
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_P(SelectTest, LongFieldsComeWhole) {
  const std::string text(20000, 'y');
  start_filled({"wide", {{"a", 20000}, {"b"}}}, {text + "|x"});
  EXPECT_EQ(select("wide,*|x", "$avp(a)"), 1);
  EXPECT_EQ(standin::avp("a"), values{text});
}

// Refusals.

TEST_P(SelectTest, QueriesThatCantBeParsedAreRefusedInTheWordsOfAnInsert) {
  start_filled(USERS, FOUR);
  expect_refused("users,alice|*", {err("Size mismatch"),
                                   err("Wrong number of fields in field list: users,alice|* | "
                                       "(null)\n"),
                                   err("Could not parse query (users,alice|*) for insert\n")});
}

TEST_P(SelectTest, ATextThatCantBePrintedIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err("SELECT failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_P(SelectTest, AQueryMayHave4095CharactersAndNoMore) {
  const std::string longest(4095 - strlen("wide,|*"), 'y');
  start_filled({"wide", {{"a", 5000}, {"b"}}}, {longest + "|x"});
  const standin::command call_of_it = prepared("wide,$fU|*", "|$avp(b)");
  standin::set_value(msg, "$fU", longest + "z");
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err("SELECT failed!\n")));
  standin::set_value(msg, "$fU", longest);
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::avp("b"), values{"x"});
}

TEST_P(SelectTest, AQueryWhosePrintedTableIsUnknownIsRefused) {
  start({{"a$$b", {{"x"}, {"y"}}}});
  expect_refused("a$$b,1|2", {err("Table 'a$b' was not found\n"), err("Table not found\n"),
                              err("Could not parse query (a$b,1|2) for insert\n")});
}

TEST_P(SelectTest, NoMemoryForTheFieldsIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(crit("no more pkg memory\n"),
                          err("Wrong number of fields in field list: users,*|*|* | (null)\n"),
                          err("Could not parse query (users,*|*|*) for insert\n"),
                          err("SELECT failed!\n")));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_P(SelectTest, RowsAreFoundThroughEveryIndex) {
  table t = {"users", {{"name", 31, true}, {"age"}, {"city", 7, true}}};
  std::vector<std::string> lines;
  for (int i = 0; i < 1500; i++)
    lines.push_back("name" + std::to_string(i) + "|" + std::to_string(i % 7) + "|city" +
                    std::to_string(i % 300));
  start_filled(with(t, 5000), lines);
  for (int i = 0; i < 1500; i += 37) {
    EXPECT_EQ(select("users,name" + std::to_string(i) + "|*|*"), 1);
    EXPECT_EQ(standin::avp("age"), values{std::to_string(i % 7)});
    EXPECT_EQ(select("users,*|*|city" + std::to_string(i % 300)), 1);
    EXPECT_EQ(standin::avp("name").size(), 5u);
    EXPECT_EQ(select("users,name" + std::to_string(i) + "|*|city" + std::to_string((i + 1) % 300)),
              -2);
  }
}

}  // namespace
}  // namespace module_test
