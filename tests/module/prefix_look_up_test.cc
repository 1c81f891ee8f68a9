// Best-match selects on large tables, which have look-ups: for which searches these are made, and
// that nobody sees a difference. At debug level the rows are scanned, which tells what to expect.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char NL[] = "tarn_memdb_nl_select_best_match";

constexpr char ALL_AVPS[] = "$avp(g)|$avp(p)|$avp(w)";
constexpr size_t LARGE = 200;  // the fewest rows

table routes(bool indexed = false) {
  return {"routes", {{"grp", 31, indexed}, {"prefix"}, {"gw"}}, 5000};
}

// Rows of three groups and prefixes of one to four digits, with ties.
texts many_rows(size_t count) {
  texts out;
  for (size_t i = 0; i < count; i++)
    out.push_back(std::string(1, static_cast<char>('f' + i % 3)) + "|" +
                  std::to_string(i * 7919 % 10007).substr(0, 1 + i % 4) + "|gw" +
                  std::to_string(i));
  return out;
}

class PrefixLookUpTest : public ModuleTest {
 protected:
  void start_large(size_t rows = LARGE, bool indexed = false) {
    start_with({routes(indexed)}, {{"routes", many_rows(rows)}});
  }

  // The shared blocks that the fix-up of such a call takes.
  size_t blocks_of(const std::string &function, const texts &parameters) {
    const size_t before = module_blocks(pool::shm);
    EXPECT_TRUE(fixup(function, parameters).accepted());
    return module_blocks(pool::shm) - before;
  }
  size_t blocks_of(const std::string &query, const std::string &column = "1") {
    return blocks_of(NL, {query, ALL_AVPS, column});
  }

  // What a call delivers, and its result, at a log level.
  texts delivered(const standin::command &prepared, int level) {
    forget();
    standin::clear_avps();
    standin::set_debug_level(level);
    texts out = {std::to_string(call(prepared))};
    for (const char *name : {"g", "p", "w"})
      for (const std::string &text : avp_texts(name)) out.push_back(text);
    if (level < DBG_LEVEL)
      for (const message &said : messages()) out.push_back(said.text);
    standin::set_debug_level(DBG_LEVEL);
    return out;
  }

  // Each key in each group gives the same by the look-up and by a scan. The number of calls that
  // found rows.
  size_t expect_no_difference(const standin::command &prepared) {
    size_t found = 0;
    for (const char *group : {"f", "g", "h", "none"}) {
      for (int key = 0; key < 40; key++) {
        standin::set_var("group", group);
        standin::set_var("key", std::to_string(key * 251));
        const texts by_look_up = delivered(prepared, ALERT_LEVEL);
        EXPECT_EQ(by_look_up, delivered(prepared, DBG_LEVEL)) << group << " " << key * 251;
        if (by_look_up[0] == "1") found++;
      }
    }
    return found;
  }
};

// For which searches.

TEST_F(PrefixLookUpTest, IsMadeByTheFixUpForATableOfMoreThanSixtyFourRows) {
  start_large(64);
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 0U);
  unload();
  load();
  start_large(65);
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 2U);
}

TEST_F(PrefixLookUpTest, IsMadeOnceForEachFormOfSearches) {
  start_large();
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 2U);
  EXPECT_EQ(blocks_of("routes,$var(group)|39$var(key),7"), 0U) << "two fields";
  EXPECT_EQ(blocks_of("routes,$var(group)|39$var(key)|*,7"), 0U);
  EXPECT_EQ(blocks_of("routes,*|$var(key)|*"), 2U);
  EXPECT_EQ(blocks_of("routes,*|$var(key)|$var(group)"), 2U);
  EXPECT_EQ(blocks_of("routes,*|*|$var(key)", "2"), 2U);
  EXPECT_EQ(blocks_of("routes,$var(group)|x|$var(key)", "2"), 0U) << "there are four";
}

TEST_F(PrefixLookUpTest, IsMadeForEveryFlavour) {
  for (const texts &flavour :
       {texts{"tarn_memdb_select_best_match", "routes,g|$fU|*", ALL_AVPS, "1"},
        texts{"tarn_memdb_nl_select_best_match", "routes,g|$fU|*", ALL_AVPS, "1"},
        texts{"tarn_memdb_nl_select_best_match_prefix", "routes,g|$fU|*", ALL_AVPS, "1", "$var(f)"},
        texts{"tarn_memdb_xavp_select_best_match", "routes,g|$fU|*,", "x", "1"},
        texts{"tarn_memdb_nl_xavp_select_best_match", "routes,grp=g;prefix=$fU,", "x", "1"}}) {
    start_large();
    EXPECT_EQ(blocks_of(flavour[0], texts(flavour.begin() + 1, flavour.end())), 2U) << flavour[0];
    unload();
    load();
  }
}

TEST_F(PrefixLookUpTest, IsMadeForFieldsThatAreValuesAndNoWildcards) {
  start_large();
  ASSERT_EQ(blocks_of("routes,*|$var(key)|*"), 2U);
  EXPECT_EQ(blocks_of("routes,*|$var(key)|*,*"), 0U);
  EXPECT_EQ(blocks_of("routes,\\*|$var(key)|*"), 2U) << "a star as a text";
  EXPECT_EQ(blocks_of("routes,|$var(key)|*"), 0U) << "an empty text is one as well";
  EXPECT_EQ(blocks_of("routes,**|1\\|2|*"), 0U);
  EXPECT_EQ(blocks_of("routes,*|$var(key)|*$var(x)"), 2U);
}

TEST_F(PrefixLookUpTest, IsNotMadeWhereTheTextDoesNotTell) {
  start_large();
  for (const char *query :
       {"$var(query)", "$var(table),g|$var(key)|*", "routes", "routes,$var(fields)",
        "routes,g|$var(key)", "routes,g|$var(key)|*|*", "missing,g|$var(key)|*",
        "rou\\tes,g|$var(key)|*", "routes,g|*|*", ",g|$var(key)|*",
        "a name that is longer than any table's,g|$var(key)|*"})
    EXPECT_EQ(blocks_of(query), 0U) << query;
  for (const char *column : {"3", "99999"})
    EXPECT_EQ(blocks_of("routes,g|1|*", column), 0U) << column;
  EXPECT_EQ(blocks_of("routes,g|1|*", "x"), 2U) << "no number is column 0";
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(PrefixLookUpTest, IsNotMadeForAnIndexedColumn) {
  start_large(LARGE, true);
  EXPECT_EQ(blocks_of("routes,$var(key)|*|*", "0"), 0U);
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 2U);
}

TEST_F(PrefixLookUpTest, IsNotMadeForRangeSelects) {
  start_large();
  EXPECT_EQ(blocks_of("tarn_memdb_nl_select_field_out_of_range",
                      {"routes,g|5|*", ALL_AVPS, "1", "5", "7"}),
            0U);
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 2U);
  EXPECT_EQ(blocks_of("tarn_memdb_nl_select_field_out_of_range",
                      {"routes,g|5|*", ALL_AVPS, "1", "5", "7"}),
            0U)
      << "that of the other select stays";
}

TEST_F(PrefixLookUpTest, IsMadeOfTheFirstOfTwoTablesOfOneName) {
  start_with({routes(), {"routes", {{"prefix"}, {"gw"}}, 5000}}, {{"routes", many_rows(LARGE)}});
  EXPECT_EQ(blocks_of("routes,$var(key)|*", "0"), 0U);
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 2U);
}

TEST_F(PrefixLookUpTest, IsDoneWithoutSilentlyWhereMemoryIsShort) {
  start_large();
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(blocks_of("routes,g|$var(key)|*"), 0U);
  EXPECT_EQ(standin::failed_allocations(), 1U);
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
  standin::set_var("key", "67");
  EXPECT_EQ(run(NL, {"routes,g|$var(key)|*", ALL_AVPS, "1"}), 1);
}

// No difference.

TEST_F(PrefixLookUpTest, NobodySeesADifference) {
  for (const bool indexed : {false, true}) {
    start_large(300, indexed);
    const standin::command by_group = fixup(NL, {"routes,$var(group)|$var(key)|*", ALL_AVPS, "1"});
    const standin::command of_all = fixup(NL, {"routes,*|$var(key)|*", ALL_AVPS, "1"});
    const standin::command of_some = fixup(NL, {"routes,*|$var(key)|*,200", ALL_AVPS, "1"});
    for (const standin::command *one : {&by_group, &of_all, &of_some})
      EXPECT_GT(expect_no_difference(*one), 60U);
    unload();
    load();
  }
}

TEST_F(PrefixLookUpTest, NobodySeesADifferenceAfterWrites) {
  start_large(300);
  const standin::command by_group = fixup(NL, {"routes,$var(group)|$var(key)|*", ALL_AVPS, "1"});
  for (const char *gateway : {"gw7", "gw100", "gw200", "gw299"}) {
    EXPECT_EQ(run("tarn_memdb_update", {std::string("routes,*|*|") + gateway, "routes,g|67|*"}), 1);
    EXPECT_EQ(run("tarn_memdb_insert", {std::string("routes,h|1|again ") + gateway}), 1);
  }
  EXPECT_EQ(run("tarn_memdb_delete", {"routes,f|*|*,50"}), 1);
  EXPECT_GT(expect_no_difference(by_group), 60U);
  const standin::command insert = fixup("tarn_memdb_insert", {"routes,g|$var(key)|more"});
  for (size_t i = 0; i < 1000; i++) {
    standin::set_var("key", std::to_string(i));
    call(insert);
  }
  EXPECT_GT(expect_no_difference(by_group), 60U);
}

TEST_F(PrefixLookUpTest, NobodySeesADifferenceAfterAReloadAndAClear) {
  start_large(300);
  const standin::command by_group = fixup(NL, {"routes,$var(group)|$var(key)|*", ALL_AVPS, "1"});
  const size_t blocks = module_blocks(pool::shm);
  EXPECT_FALSE(rpc("tarn_memdb.reload_table", {"routes"}).fault);
  EXPECT_EQ(module_blocks(pool::shm), blocks);
  EXPECT_GT(expect_no_difference(by_group), 60U);
  EXPECT_EQ(run("tarn_memdb_clear_tbl", {"routes"}), 1);
  EXPECT_EQ(module_blocks(pool::shm), blocks - 300 - 2);
  EXPECT_EQ(expect_no_difference(by_group), 0U);
}

TEST_F(PrefixLookUpTest, NobodySeesADifferenceWhereVariablesMakeAnotherForm) {
  start_large(300);
  const standin::command prepared = fixup(NL, {"routes,$var(g)|$var(key)|$var(w)", ALL_AVPS, "1"});
  for (const char *group : {"*", "g", "\\*", ""}) {
    for (const char *gateway : {"*", "gw1", ""}) {
      standin::set_var("g", group);
      standin::set_var("w", gateway);
      expect_no_difference(prepared);
    }
  }
  standin::set_var("g", "*");
  standin::set_var("w", "*");
  EXPECT_GT(expect_no_difference(prepared), 60U);
}

TEST_F(PrefixLookUpTest, FlagsAreLeftToTheScan) {
  start_large(300);
  const standin::command prepared =
      fixup("tarn_memdb_nl_select_best_match_prefix",
            {"routes,$var(group)|$var(key)|*", ALL_AVPS, "1", "$var(f)"});
  for (const int flags : {0, 1, 3, -1}) {
    standin::set_var("f", flags);
    EXPECT_GT(expect_no_difference(prepared), 60U) << flags;
  }
}

}  // namespace
}  // namespace module_test
