// tarn_memdb_xavp_select and tarn_memdb_nl_xavp_select: rows as XAVPs on every kind of host.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using standin::host_kind;
using standin::xavp_items;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char UNPRINTABLE_SELECT[] = "could not print the formatted pv input\n";

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};

struct flavour {
  const char *function;
  host_kind host;
};

std::ostream &operator<<(std::ostream &out, const flavour &shown) {
  return out << shown.function
             << (shown.host == host_kind::ninth_operation ? " with the ninth operation"
                                                          : " with the exported function");
}

class XavpSelectTest : public ModuleTest, public testing::WithParamInterface<flavour> {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    standin::set_host_kind(GetParam().host);
  }

  standin::command prepared(const std::string &query, const std::string &name = "row") {
    standin::command out = fixup(GetParam().function, {query, name});
    EXPECT_TRUE(out.accepted()) << standin::log_dump();
    forget();
    return out;
  }

  int select(const std::string &query, const std::string &name = "row") {
    standin::clear_xavps();
    return call(prepared(query, name));
  }

  // The texts that the host was given since the test's beginning, oldest first.
  static std::vector<std::string> exploded() {
    std::vector<std::string> out;
    for (const standin::explode_call &one : standin::explode_calls()) out.push_back(one.params);
    return out;
  }

  static const std::vector<std::string> FOUR;
};

const std::vector<std::string> XavpSelectTest::FOUR = {"alice|30|rome", "bob|30|oslo",
                                                       "alice|31|rome", "carol||rome"};

INSTANTIATE_TEST_SUITE_P(
    Flavours, XavpSelectTest,
    testing::Values(flavour{"tarn_memdb_xavp_select", host_kind::exported_explode},
                    flavour{"tarn_memdb_xavp_select", host_kind::ninth_operation},
                    flavour{"tarn_memdb_nl_xavp_select", host_kind::exported_explode},
                    flavour{"tarn_memdb_nl_xavp_select", host_kind::ninth_operation}));

TEST_P(XavpSelectTest, OneRowBecomesOneXavp) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,bob|*|*\n"), dbg("Select xavp: [row]\n"),
                                      dbg("params to explode: name='bob';age='30';city='oslo'\n")));
  ASSERT_EQ(standin::explode_calls().size(), 1u);
  const standin::explode_call &made = standin::explode_calls()[0];
  EXPECT_EQ(made.params, "name='bob';age='30';city='oslo'");
  EXPECT_EQ(made.xavp, "row");
  EXPECT_TRUE(made.made);
  EXPECT_EQ(made.ninth_operation, GetParam().host == host_kind::ninth_operation);
  EXPECT_EQ(standin::xavps("row"),
            (std::vector<xavp_items>{{{"name", "bob"}, {"age", "30"}, {"city", "oslo"}}}));
}

TEST_P(XavpSelectTest, TheRowDeliveredLastStandsFirst) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,*|*|rome"), 1);
  EXPECT_THAT(exploded(),
              ElementsAre("name='carol';age='';city='rome'", "name='alice';age='31';city='rome'",
                          "name='alice';age='30';city='rome'"));
  ASSERT_EQ(standin::xavps("row").size(), 3u);
  EXPECT_EQ(standin::xavp_item("row", 0, "age"), value("30"));
  EXPECT_EQ(standin::xavp_item("row", 1, "age"), value("31"));
  EXPECT_EQ(standin::xavp_item("row", 2, "age"), value(""));
  EXPECT_EQ(standin::xavp_item("row", 2, "name"), value("carol"));
}

TEST_P(XavpSelectTest, AShortRowBehindALongOneIsComposedAfresh) {
  start_filled(USERS, {"a|1|x", std::string(31, 'l') + "|" + std::string(31, 'l') + "|long"});
  EXPECT_EQ(select("users,*|*|*"), 1);
  EXPECT_THAT(exploded(), ElementsAre("name='" + std::string(31, 'l') + "';age='" +
                                          std::string(31, 'l') + "';city='long'",
                                      "name='a';age='1';city='x'"));
}

TEST_P(XavpSelectTest, AMissAndAnEmptyTableAreSilent) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,dave|*|*"), -2);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: users,dave|*|*\n"), dbg("Select xavp: [row]\n")));
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|*|*"}), 1);
  EXPECT_EQ(select("users,*|*|*"), -2);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,*|*|*\n"), dbg("Select xavp: [row]\n")));
  EXPECT_THAT(exploded(), IsEmpty());
}

TEST_P(XavpSelectTest, AnEmptyTableNeedsNoBuffer) {
  start({USERS});
  const standin::command call_of_it = prepared("users,*|*|*");
  EXPECT_EQ(call(call_of_it), -2);
  EXPECT_EQ(standin::allocation_count(pool::pkg), 1u);
}

TEST_P(XavpSelectTest, TheLimitCounts) {
  start_filled(with(USERS, 3), FOUR);
  EXPECT_EQ(select("users,*|*|*,1"), 1);
  EXPECT_EQ(standin::xavps("row").size(), 1u);
  EXPECT_EQ(standin::xavp_item("row", 0, "name"), value("carol"));
  EXPECT_EQ(select("users,*|*|*"), 1);
  EXPECT_EQ(standin::xavps("row").size(), 3u);
  EXPECT_EQ(select("users,*|*|*,9"), 1);
  EXPECT_EQ(standin::xavps("row").size(), 4u);
}

TEST_P(XavpSelectTest, NamedListsGiveTheColumnsThatMatter) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,city=rome;age=31,"), 1);
  EXPECT_THAT(exploded(), ElementsAre("name='alice';age='31';city='rome'"));
}

TEST_P(XavpSelectTest, TheXavpsNameComesFromTheMessage) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*", "row_$fU");
  standin::set_value(msg, "$fU", "one");
  EXPECT_EQ(call(call_of_it), 1);
  standin::set_value(msg, "$fU", "two");
  EXPECT_EQ(call(call_of_it), 1);
  EXPECT_EQ(standin::xavps("row_one").size(), 1u);
  EXPECT_EQ(standin::xavps("row_two").size(), 1u);
  EXPECT_TRUE(standin::logged(DBG_LEVEL, "Select xavp: [row_two]\n"));
}

TEST_P(XavpSelectTest, ValuesArentEscaped) {
  start_filled({"users", {{"name"}, {"age"}}}, {"a;b=c\"d|\\\\"});
  EXPECT_EQ(select("users,*|*"), 1);
  EXPECT_THAT(exploded(), ElementsAre("name='a;b=c\"d';age='\\'"));
  EXPECT_EQ(standin::xavp_item("row", 0, "name"), value("a;b=c\"d"));
}

TEST_P(XavpSelectTest, AQuoteInAValueIsTheHostsToRefuse) {
  start_filled(USERS, {"o'brien|1|x"});
  EXPECT_EQ(select("users,*|*|*"), -1);
  EXPECT_THAT(exploded(), ElementsAre("name='o'brien';age='1';city='x'"));
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("SELECT failed!\n")));
}

TEST_P(XavpSelectTest, ATableOfOneColumn) {
  start_filled({"one", {{"only"}}}, {"x"});
  EXPECT_EQ(select("one,*"), 1);
  EXPECT_THAT(exploded(), ElementsAre("only='x'"));
}

TEST_P(XavpSelectTest, LongRowsComeWhole) {
  const std::string half(9000, 'h');
  start_filled({"wide", {{"a", 9000}, {"b", 9000}, {"c"}}},
               {half + "|" + half + "|x", "s|" + half + "|y"});
  EXPECT_EQ(select("wide,*|*|*"), 1);
  EXPECT_THAT(exploded(), ElementsAre("a='s';b='" + half + "';c='y'",
                                      "a='" + half + "';b='" + half + "';c='x'"));
  EXPECT_EQ(messages().back(), dbg("params to explode: a='" + half + "';b='" + half + "';c='x'\n"));
}

TEST_P(XavpSelectTest, TheLongestNamesAndFieldsOfManyColumnsComeWhole) {
  table t = {"many", {}};
  std::string line, expected;
  for (int i = 0; i < 120; i++) {
    std::string name(31, 'n');
    name.replace(0, 3, std::to_string(100 + i));
    const std::string text(60, static_cast<char>('a' + i % 26));
    t.columns.push_back({name, 60});
    line += (i > 0 ? "|" : "") + text;
    expected += (i > 0 ? ";" : "") + name + "='" + text + "'";
  }
  start_filled(t, {line});
  std::string list = "*";
  for (int i = 1; i < 120; i++) list += "|*";
  EXPECT_EQ(select("many," + list), 1);
  EXPECT_THAT(exploded(), ElementsAre(expected));
}

// Memory.

TEST_P(XavpSelectTest, NoMemoryForTheBufferLooksLikeAMiss) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  standin::fail_at(pool::pkg, 2);
  EXPECT_EQ(call(call_of_it), -2);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not allocate xavp memory for tarn_memdb_select_cmn\n")));
  EXPECT_THAT(exploded(), IsEmpty());
  EXPECT_EQ(run("tarn_memdb_delete", {"users,bob|*|*"}), 1);  // the lock is free
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_P(XavpSelectTest, OneBufferServesAllRows) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  const auto own_allocations = [] { return standin::allocation_count(pool::pkg); };
  EXPECT_EQ(call(call_of_it), 1);
  const uint64_t four_rows = own_allocations();
  forget();
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|*|rome"}), 1);
  forget();
  EXPECT_EQ(call(call_of_it), 1);
  // The host takes a block per item while it reads a text: three more rows of three columns.
  EXPECT_EQ(four_rows, own_allocations() + 9);
  EXPECT_EQ(own_allocations(), 2u + 3u);
}

// Sizes of the blocks that the module asks for during a call.
class RecordedSizes {
 public:
  RecordedSizes() : real_(_pkg_root.xmalloc) {
    sizes().clear();
    forward() = real_;
    _pkg_root.xmalloc = record;
  }
  ~RecordedSizes() { _pkg_root.xmalloc = real_; }
  RecordedSizes(const RecordedSizes &) = delete;
  RecordedSizes &operator=(const RecordedSizes &) = delete;

  static std::vector<size_t> &sizes() {
    static std::vector<size_t> only;
    return only;
  }

 private:
  using function = decltype(_pkg_root.xmalloc);
  static function &forward() {
    static function only;
    return only;
  }
  static void *record(void *block, size_t size, const char *file, const char *func,
                      unsigned int line, const char *owner) {
    if (std::string(owner) == "tarn_memdb") sizes().push_back(size);
    return forward()(block, size, file, func, line, owner);
  }
  function real_;
};

TEST_P(XavpSelectTest, TheBufferHas34BytesPerColumnAnd4096OrRoomForTheLongestRow) {
  start_filled(USERS, FOUR);
  const standin::command small = prepared("users,bob|*|*");
  {
    const RecordedSizes recorded;
    EXPECT_EQ(call(small), 1);
    EXPECT_EQ(recorded.sizes().back(), 34u * 3 + 4096);
  }
  unload();
  load();
  start_filled({"wide", {{"a", 9000}, {"b", 9000}}}, {"x|y"});
  const standin::command wide = prepared("wide,*|*");
  const RecordedSizes recorded;
  EXPECT_EQ(call(wide), 1);
  EXPECT_GT(recorded.sizes().back(), strlen("a='';b=''") + 18000);
}

// Refusals.

TEST_P(XavpSelectTest, ANameThatCantBeReadIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,bob|*|*");
  standin::fail_call("get_str_fparam", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,bob|*|*\n"),
                                      err("cannot get the xavp name\n"), err("SELECT failed!\n")));
  EXPECT_THAT(exploded(), IsEmpty());
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_P(XavpSelectTest, AnEmptyNameIsTheHostsToRefuse) {
  start_filled(USERS, FOUR);
  standin::set_var("empty", "");
  for (const std::string name : {"", "$var(empty)"}) {
    EXPECT_EQ(select("users,bob|*|*", name), -1);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("SELECT failed!\n")));
  }
}

TEST_P(XavpSelectTest, ARefusedXavpEndsTheSelectAndWhatCameStays) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|rome");
  standin::fail_call("explode_params", 2);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("SELECT failed!\n")));
  EXPECT_EQ(standin::explode_calls().size(), 2u);
  ASSERT_EQ(standin::xavps("row").size(), 1u);
  EXPECT_EQ(standin::xavp_item("row", 0, "name"), value("carol"));
  EXPECT_EQ(run("tarn_memdb_delete", {"users,bob|*|*"}), 1);  // the lock is free
  EXPECT_EQ(select("users,*|*|rome"), 1);
}

TEST_P(XavpSelectTest, QueriesThatCantBeParsedAreRefusedBeforeTheNameIsRead) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,alice|*"), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: users,alice|*\n"), err("Size mismatch"),
                          err("Wrong number of fields in field list: users,alice|* | (null)\n"),
                          err("Could not parse query (users,alice|*) for insert\n"),
                          err("SELECT failed!\n")));
  EXPECT_EQ(standin::calls("get_str_fparam"), 0);
}

TEST_P(XavpSelectTest, ATextThatCantBePrintedIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  standin::fail_call("pv_printf", 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err("SELECT failed!\n")));
}

TEST_P(XavpSelectTest, NoMemoryForTheFieldsIsRefused) {
  start_filled(USERS, FOUR);
  const standin::command call_of_it = prepared("users,*|*|*");
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(call(call_of_it), -1);
  EXPECT_EQ(messages().back(), err("SELECT failed!\n"));
  EXPECT_EQ(call(call_of_it), 1);
}

TEST_P(XavpSelectTest, AvpsAreLeftAlone) {
  start_filled(USERS, FOUR);
  EXPECT_EQ(select("users,*|*|*"), 1);
  EXPECT_EQ(standin::avp_count(), 0u);
  EXPECT_EQ(standin::calls("add_avp"), 0);
}

TEST_P(XavpSelectTest, TheHostsReleaseOfTheNameWorks) {
  start_filled(USERS, FOUR);
  standin::command call_of_it = prepared("users,bob|*|*", "row_$fU");
  EXPECT_EQ(call_of_it.row()->free_fixup(call_of_it.slot(2).address(), 2), 0);
  EXPECT_TRUE(call_of_it.slot(2).untouched());
}

// A host with neither road.

class NoXavpTest : public ModuleTest {};

TEST_F(NoXavpTest, TheSelectFailsCleanlyAndTheOthersWork) {
  standin::set_host_kind(host_kind::without_explode);
  write_file(main_file("users"), table_text({"alice|30|rome", "bob|31|oslo"}));
  start({USERS});
  for (const std::string function : {"tarn_memdb_xavp_select", "tarn_memdb_nl_xavp_select"}) {
    const standin::command call_of_it = fixup(function, {"users,*|*|*", "row"});
    ASSERT_TRUE(call_of_it.accepted());
    forget();
    EXPECT_EQ(call(call_of_it), -1);
    EXPECT_THAT(messages(), ElementsAre(dbg("Select: users,*|*|*\n"), dbg("Select xavp: [row]\n"),
                                        dbg("params to explode: name='bob';age='31';city='oslo'\n"),
                                        err("SELECT failed!\n")));
    const standin::command miss = fixup(function, {"users,x|*|*", "row"});
    EXPECT_EQ(call(miss), -2);
  }
  EXPECT_EQ(run("tarn_memdb_select", {"users,*|*|*", "$avp(a)"}), 1);
  EXPECT_EQ(run("tarn_memdb_delete", {"users,*|*|*"}), 1);
}

TEST_F(NoXavpTest, APvModuleThatFillsNothingIsSuchAHost) {
  standin::set_host_kind(host_kind::ninth_operation);
  write_file(main_file("users"), table_text({"alice|30|rome"}));
  configure({USERS});
  standin::fail_call("pv_register_api", 1);
  start_configured();
  // The exported function is looked for then, and found.
  EXPECT_EQ(run("tarn_memdb_xavp_select", {"users,*|*|*", "row"}), 1);
  EXPECT_FALSE(standin::explode_calls()[0].ninth_operation);
}

TEST_F(NoXavpTest, ALookUpOfTheExplodeFunctionThatFailsIsSuchAHost) {
  write_file(main_file("users"), table_text({"alice|30|rome"}));
  configure({USERS});
  standin::fail_call("find_export", 2);
  start_configured();
  EXPECT_EQ(run("tarn_memdb_xavp_select", {"users,*|*|*", "row"}), -1);
  EXPECT_THAT(standin::explode_calls(), IsEmpty());
}

}  // namespace
}  // namespace module_test
