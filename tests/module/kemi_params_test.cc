// What calls from other script languages bring: texts and numbers that are none are refused with
// one line, nothing is evaluated, and lists of names are kept within bounds.
#include "tests/module/kemi_fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};
const std::string ALL = "users,*|*|*";

// A good call of each function that takes a text. The texts come first but in set_port.
struct good_call {
  const char *function;
  values given;
  // Places whose text may be empty.
  std::vector<size_t> may_be_empty = {};
};

std::vector<good_call> good_calls() {
  std::vector<good_call> out = {
      {"clear_tbl", {"users"}},
      {"insert", {"users,a|b|c"}},
      {"delete", {ALL}},
      {"update", {ALL, "*|b|c"}},
      {"row_count", {"users"}},
      {"nl_select_best_match_prefix", {ALL, "$avp(a)", 1, 0}},
      {"nl_select_field_out_of_range", {ALL, "$avp(a)", 1, 0, 4}},
      {"nl_select_field_within_the_range", {ALL, 1, 0}},
      {"nl_select_subnetmask", {ALL, "$avp(a)", "10.0.0.1", "x", "y"}, {3, 4}},
      {"get_port", {"INT"}},
      {"get_port_from_range", {"INT", 100}},
      {"set_port", {100, "INT"}},
      {"free_port", {"INT", 100}},
      {"get", {ALL, 0}},
  };
  for (const char *name : {"select", "nl_select"}) out.push_back({name, {ALL, "$avp(a)"}});
  for (const char *name : {"xavp_select", "nl_xavp_select"}) out.push_back({name, {ALL, "x"}});
  for (const char *name : {"select_best_match", "nl_select_best_match"})
    out.push_back({name, {ALL, "$avp(a)", 1}});
  for (const char *name : {"xavp_select_best_match", "nl_xavp_select_best_match"})
    out.push_back({name, {ALL, "x", 1}});
  return out;
}

class KemiParamsTest : public KemiTest {
 protected:
  void start_users() {
    start_filled(USERS, {"alice|30|rome", "bob|31|oslo"});
    standin::set_debug_level(INFO_LEVEL);
    own_blocks_ = module_blocks(pool::pkg);
  }

  // Blocks of private memory that calls have left.
  size_t blocks_left() const { return module_blocks(pool::pkg) - own_blocks_; }

  // The call fails with this line alone, and takes and leaves nothing.
  void expect_refusal(const good_call &call, const values &given, const std::string &told) {
    standin::clear_logs();
    const kemi_result result = kemi_full(call.function, given);
    if (result.kind != SR_KEMIP_NULL) {
      EXPECT_EQ(result.number, -1) << call.function;
    }
    EXPECT_THAT(messages(), ElementsAre(err(told))) << call.function;
    for (const standin::log_record &said : standin::logs())
      EXPECT_EQ(said.function, std::string("kemi_") + call.function);
    EXPECT_EQ(standin::avp_count(), 0u);
    EXPECT_THAT(standin::explode_calls(), IsEmpty());
    EXPECT_THAT(view().held_locks(), IsEmpty());
  }

  // Does work(call, place, "Parameter N") with each text of each call.
  template <typename Work>
  static void each_text(Work work) {
    for (const good_call &call : good_calls())
      for (size_t i = 0; i < call.given.size(); i++)
        if (std::holds_alternative<std::string>(call.given[i]))
          work(call, i, "Parameter " + std::to_string(i + 1));
  }

  int select(const std::string &avps) { return kemi("select", {"users,alice|*|*", avps}); }

 private:
  size_t own_blocks_ = 0;
};

TEST_F(KemiParamsTest, EveryFunctionWithATextIsTriedHere) {
  start_users();
  size_t found = 0;
  for (const sr_kemi_t *at = standin::kemi_tables().at(0); at->fname.s != nullptr; at++)
    if (standin::kemi_kinds(*at).find('s') != std::string::npos) found++;
  EXPECT_EQ(good_calls().size() + 1, found) << "all but escape, which takes every text";
}

TEST_F(KemiParamsTest, NoTextAndAnEmptyOneAreRefused) {
  start_users();
  each_text([this](const good_call &call, size_t place, const std::string &which) {
    values given = call.given;
    const auto &optional = call.may_be_empty;
    if (std::find(optional.begin(), optional.end(), place) != optional.end()) return;
    for (const kemi_value &none : {kemi_value(no_text()), kemi_value("")}) {
      given[place] = none;
      expect_refusal(call, given, which + " is empty\n");
    }
  });
  EXPECT_EQ(row_count("users"), 2);
}

TEST_F(KemiParamsTest, ARequestMayLackItsUsers) {
  start_with({all_in_one()}, {{"t", {line("5", "500", "10.0.0.1", "a")}}});
  for (const kemi_value &none : {kemi_value(no_text()), kemi_value("")})
    EXPECT_EQ(kemi("nl_select_subnetmask", {query("*"), "$avp(a)", "10.0.0.1", none, none}), 1);
}

TEST_F(KemiParamsTest, AZeroByteIsRefused) {
  start_users();
  each_text([this](const good_call &call, size_t place, const std::string &which) {
    for (const size_t at : {size_t{0}, std::get<std::string>(call.given[place]).size()}) {
      values given = call.given;
      std::get<std::string>(given[place]).insert(at, 1, '\0');
      expect_refusal(call, given, which + " has a zero byte in it\n");
    }
  });
  EXPECT_EQ(row_count("users"), 2);
}

TEST_F(KemiParamsTest, ATextThatIsTooLongIsRefused) {
  start_users();
  each_text([this](const good_call &call, size_t place, const std::string &which) {
    const std::string function = call.function;
    const bool is_name = function == "clear_tbl" || function == "row_count";
    const size_t most = is_name ? 31 : function == "nl_select_subnetmask" && place > 1 ? 255 : 4095;
    values given = call.given;
    std::get<std::string>(given[place]).resize(most + 1, 'x');
    expect_refusal(call, given,
                   which + " has " + std::to_string(most + 1) + " bytes, which is more than " +
                       std::to_string(most) + "\n");
  });
  EXPECT_EQ(row_count("users"), 2);
}

TEST_F(KemiParamsTest, TheLongestTextsAreTaken) {
  const std::string longest(31, 't');
  start({{longest, {{"a", 5000}}}});
  EXPECT_EQ(kemi("insert", {longest + "," + std::string(4095 - 32, 'x')}), 1);
  EXPECT_EQ(kemi("row_count", {longest}), 1);
  EXPECT_EQ(kemi("update", {longest + ",*", std::string(4095, 'y')}), 1);
  EXPECT_EQ(rows(longest), (row_list{{std::string(4095, 'y')}}));
}

TEST_F(KemiParamsTest, AWordThatNamesNoMapIsRefused) {
  start_users();
  for (const std::string word : {"int", "INT ", "STATIC", "$avp(a)"}) {
    const std::string told =
        "'" + word + "' is no port map, as EXT, INT, STATIC_EXT and STATIC_INT are\n";
    for (const auto &[function, given] :
         std::map<std::string, values>{{"get_port", {word}},
                                       {"get_port_from_range", {word, 100}},
                                       {"set_port", {100, word}},
                                       {"free_port", {word, 100}}}) {
      standin::clear_logs();
      EXPECT_EQ(kemi(function, given), -1);
      EXPECT_THAT(messages(), ElementsAre(err(told)));
    }
  }
}

TEST_F(KemiParamsTest, ATableThatIsNoneFails) {
  start_users();
  EXPECT_EQ(kemi("row_count", {"nowhere"}), -1);
  EXPECT_THAT(messages(),
              ElementsAre(err("Table 'nowhere' was not found\n"),
                          err("Table 'nowhere' not found\n"), err("Get row count failed!\n")));
  standin::clear_logs();
  EXPECT_EQ(kemi("select", {"nowhere,*", "$avp(a)"}), -1);
  EXPECT_THAT(messages(), testing::Contains(err("SELECT failed!\n")));
}

TEST_F(KemiParamsTest, WithoutAMessageWhatNeedsATextPrintedFails) {
  start_users();
  for (const good_call &call : good_calls()) {
    const kemi_result result =
        standin::kemi_call(*standin::kemi_find(call.function), call.given, nullptr);
    const bool is_of_ports = std::string(call.function).find("_port") != std::string::npos;
    EXPECT_EQ(result.kind, std::string(call.function) == "get" ? SR_KEMIP_NULL : SR_KEMIP_INT);
    if (result.kind == SR_KEMIP_INT && !is_of_ports) {
      EXPECT_EQ(result.number, -1) << call.function;
    }
  }
  EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "rome"}, {"bob", "31", "oslo"}}));
}

TEST_F(KemiParamsTest, NothingIsEvaluated) {
  start({USERS});
  standin::set_value(msg, "$fU", "evaluated");
  EXPECT_EQ(kemi("insert", {"users,$fU|$$|$(fU{s.len})"}), 1);
  EXPECT_EQ(kemi("update", {"users,$fU|*|*", "*|$var(x)|*"}), 1);
  expect_rows("users", {{"$fU", "$var(x)", "$(fU{s.len})"}});
  EXPECT_EQ(kemi("xavp_select", {"users,$fU|*|*", "$fU"}), 1);
  EXPECT_EQ(standin::xavps("$fU").size(), 1u);
  EXPECT_EQ(kemi("delete", {"users,$fU|*|*"}), 1);
  EXPECT_EQ(standin::calls("pv_get_spec_value"), 0);
  EXPECT_EQ(standin::calls("pv_parse_format"), 0);
}

// Results that differ from the native script's.

TEST_F(KemiParamsTest, RowCountGivesTheNumber) {
  start_users();
  EXPECT_EQ(kemi("row_count", {"users"}), 2);
  EXPECT_EQ(kemi("clear_tbl", {"users"}), 1);
  EXPECT_EQ(kemi("row_count", {"users"}), 0);
}

TEST_F(KemiParamsTest, WithinTheRangeGivesTheNumberOfRowsAboveTheLowerLimit) {
  start_users();
  EXPECT_EQ(kemi("nl_select_field_within_the_range", {ALL, 1, 30}), 1);
  EXPECT_EQ(kemi("nl_select_field_within_the_range", {ALL, 1, -5}), 2);
  EXPECT_EQ(kemi("nl_select_field_within_the_range", {ALL, 1, 31}), 0);
  EXPECT_THAT(messages(), IsEmpty());
  EXPECT_EQ(kemi("nl_select_field_within_the_range", {ALL, 0, 31}), -1);
  EXPECT_EQ(kemi("nl_select_field_within_the_range", {ALL, 3, 31}), -1);
}

TEST_F(KemiParamsTest, AFreedPortGivesOne) {
  start_with_small_maps({});
  const int port = kemi("get_port", {"INT"});
  EXPECT_EQ(port, 100);
  EXPECT_EQ(kemi("free_port", {"INT", port}), 1);
  EXPECT_EQ(view().port("INT", port), 0);
}

TEST_F(KemiParamsTest, AnExhaustedMapGivesMinusOne) {
  start_with_small_maps({});
  for (int port = 200; port < 210; port++) EXPECT_EQ(kemi("get_port", {"EXT"}), port);
  EXPECT_EQ(kemi("get_port", {"EXT"}), -1);
}

// Lists of names.

TEST_F(KemiParamsTest, WhatIsNoListOfPlainNamesIsRefusedUnparsed) {
  start_users();
  for (const std::string list : {"$avp($var(x))",
                                 "$(avp(a))",
                                 "$(avp(a){s.len})",
                                 "$avp(a)[0]",
                                 "$var(a)",
                                 "$fU",
                                 "avp(a)",
                                 "a",
                                 "$avp()",
                                 "$avp(a",
                                 "$avp(a)b",
                                 "$avp(a)|b",
                                 " $avp(a)",
                                 "$avp(a)|$avp($avp(b))",
                                 "$avp(a)$avp(b)",
                                 "$avp(a);$avp(b)",
                                 "$avp(a b)",
                                 "$",
                                 "|$",
                                 "$avp(a)\n"}) {
    standin::clear_logs();
    EXPECT_EQ(select(list), -1) << list;
    EXPECT_THAT(messages(), ElementsAre(err("Not a list of plain names, such as "
                                            "$avp(a)||$avp(b): '" +
                                            list + "'\n")));
  }
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 0);
  EXPECT_EQ(standin::avp_count(), 0u);
}

TEST_F(KemiParamsTest, ANameThatTheHostRefusesIsRefused) {
  start_users();
  standin::fail_call("pv_parse_spec2", 2);
  EXPECT_EQ(select("$avp(a)|$avp(b)"), -1);
  EXPECT_THAT(messages(), ElementsAre(err("Wrong item name list [$avp(a)|$avp(b)]!\n")));
  EXPECT_EQ(blocks_left(), 0u);
  EXPECT_EQ(select("$avp(a)|$avp(b)"), 1) << "nothing is kept of what failed";
}

TEST_F(KemiParamsTest, AListIsParsedOnce) {
  start_users();
  EXPECT_EQ(select("$avp(a)||$avp(s:c)"), 1);
  EXPECT_EQ(avp_texts("a"), texts{"alice"});
  EXPECT_EQ(avp_texts("c"), texts{"rome"});
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 2);
  EXPECT_EQ(select("|$avp(a)"), 1);
  EXPECT_EQ(avp_texts("a"), (texts{"30", "alice"}));
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 3);
  for (int turn = 0; turn < 100; turn++) {
    EXPECT_EQ(select("$avp(a)||$avp(s:c)"), 1);
    EXPECT_EQ(select("|$avp(a)"), 1);
  }
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 3);
}

TEST_F(KemiParamsTest, AListIsKnownByItsWholeText) {
  start_users();
  EXPECT_EQ(select("$avp(a)"), 1);
  EXPECT_EQ(select("$avp(a)|$avp(b)"), 1);
  EXPECT_EQ(avp_texts("b"), texts{"30"});
  EXPECT_EQ(select("$avp(a)"), 1);
  EXPECT_EQ(avp_texts("b"), texts{"30"});
  EXPECT_EQ(select("$avp(b)"), 1);
  EXPECT_EQ(avp_texts("b"), (texts{"alice", "30"}));
}

TEST_F(KemiParamsTest, SixtyFourListsAreKeptAndTheOldestGivenUp) {
  start_users();
  const auto list = [](int n) { return "$avp(n" + std::to_string(n) + ")"; };
  for (int n = 0; n < 64; n++) EXPECT_EQ(select(list(n)), 1);
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 64);
  EXPECT_EQ(blocks_left(), 128u) << "a text and a name each";
  for (int n = 0; n < 64; n++) EXPECT_EQ(select(list(n)), 1);
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 64);
  EXPECT_EQ(select(list(64)), 1);
  EXPECT_EQ(blocks_left(), 128u);
  for (int n = 1; n <= 64; n++) EXPECT_EQ(select(list(n)), 1);
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 65);
  EXPECT_EQ(select(list(0)), 1);
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 66);
  for (int n = 0; n < 1000; n++) {
    EXPECT_EQ(select(list(n)), 1);
    EXPECT_EQ(avp_texts("n" + std::to_string(n)).at(0), "alice");
  }
  EXPECT_EQ(blocks_left(), 128u);
}

TEST_F(KemiParamsTest, OfLongListsFewerAreKept) {
  start_users();
  const auto list = [](const std::string &name, size_t places) {
    return "$avp(" + name + ")" + std::string(places - 1, '|');
  };
  const auto places = [] {
    size_t out = 0;
    for (const standin::block_info &block : standin::live_blocks(pool::pkg, "tarn_memdb"))
      if (block.size == sizeof(pvname_list_t)) out++;
    return out;
  };
  const size_t others = places();
  const auto places_kept = [&] { return places() - others; };
  EXPECT_EQ(select(list("a", 600)), 1);
  EXPECT_EQ(places_kept(), 600u);
  EXPECT_EQ(select(list("b", 424)), 1);
  EXPECT_EQ(places_kept(), 1024u);
  EXPECT_EQ(select(list("c", 1)), 1);
  EXPECT_EQ(places_kept(), 425u) << "the oldest went";
  EXPECT_EQ(select(list("d", 4000)), 1);
  EXPECT_EQ(places_kept(), 4000u) << "one is kept, however long";
  EXPECT_EQ(select(list("c", 1)), 1);
  EXPECT_EQ(places_kept(), 1u);
  EXPECT_EQ(avp_texts("c"), (texts{"alice", "alice"}));
}

TEST_F(KemiParamsTest, AListThatMemoryIsShortForFailsAndLeavesNothing) {
  start_users();
  for (const uint64_t n : {1, 2, 3}) {
    standin::clear_logs();
    standin::fail_at(pool::pkg, n);
    EXPECT_EQ(select("$avp(a)|$avp(b)"), -1);
    standin::stop_failing();
    EXPECT_THAT(messages(), ElementsAre(err(n == 1 ? "No more memory for a list of names\n"
                                                   : "No more memory!\n")));
    EXPECT_EQ(blocks_left(), 0u);
  }
}

// Look-ups for the best match, for which the native script has fix-ups.

TEST_F(KemiParamsTest, ABestMatchOnALargeTableAsksForItsLookUpOnce) {
  texts lines;
  for (int i = 0; i < 100; i++)
    lines.push_back("g|" + std::to_string(i) + "|gw" + std::to_string(i));
  start_filled({"routes", {{"grp"}, {"prefix"}, {"gw"}}, 5000}, lines);
  standin::set_debug_level(INFO_LEVEL);
  for (const char *function : {"select_best_match", "nl_select_best_match"}) {
    const size_t before = module_blocks(pool::shm);
    const std::string group = function[0] == 's' ? "g" : "*";
    for (int turn = 0; turn < 3; turn++) {
      standin::clear_avps();
      EXPECT_EQ(kemi(function, {"routes," + group + "|4711|*", "||$avp(gw)", 1}), 1);
      EXPECT_EQ(avp_texts("gw"), texts{"gw47"});
      EXPECT_GT(module_blocks(pool::shm), before);
      EXPECT_THAT(view().held_locks(), IsEmpty());
    }
    const size_t made = module_blocks(pool::shm);
    EXPECT_EQ(kemi(function, {"routes," + group + "|4711|*", "||$avp(gw)", 1}), 1);
    EXPECT_EQ(module_blocks(pool::shm), made);
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(KemiParamsTest, ABestMatchThatNoLookUpCanAnswerAsksForNone) {
  texts lines;
  for (int i = 0; i < 100; i++)
    lines.push_back("g|" + std::to_string(i) + "|gw" + std::to_string(i));
  start_filled({"routes", {{"grp", 31, true}, {"prefix"}, {"gw"}}, 5000}, lines);
  standin::set_debug_level(INFO_LEVEL);
  const size_t before = module_blocks(pool::shm);
  EXPECT_EQ(kemi("nl_select_best_match_prefix", {"routes,g|4|*", "||$avp(gw)", 1, 1}), 1);
  EXPECT_EQ(kemi("select_best_match", {"routes,g|4711|*", "||$avp(gw)", 0}), -1);
  EXPECT_EQ(kemi("select_best_match", {"routes,g|4711|*", "||$avp(gw)", 3}), -1);
  EXPECT_EQ(kemi("select_best_match", {"routes,g|4711|*", "||$avp(gw)", -1}), -1);
  EXPECT_EQ(kemi("select_best_match", {"routes,g|9911|*,50", "||$avp(gw)", 1}), 1);
  EXPECT_EQ(module_blocks(pool::shm), before);
  EXPECT_EQ(kemi("nl_select_best_match_prefix", {"routes,g|4711|*", "||$avp(gw)", 1, 0}), 1);
  EXPECT_GT(module_blocks(pool::shm), before);
}

}  // namespace
}  // namespace module_test
