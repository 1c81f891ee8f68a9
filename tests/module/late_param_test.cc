// Parameters that are fixed up after the start, as the host does for expressions and for calls from
// other script languages: nothing crashes, is lost or is evaluated, whatever their texts are.
#include <cstring>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

using standin::xavp_items;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using language = standin::loaded_module::language;

constexpr char REFUSAL[] =
    "The query of an XAVP select can't be an expression or come by KSR.x.modf: write it as one "
    "text with pseudo-variables in it, as in \"users,$hdr(X-Q)\"\n";
constexpr char UNPRINTABLE_SELECT[] = "could not print the formatted pv input\n";
constexpr char LATE_NAME[] = "row";

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};

// Ranks by which the host calls a module before and after it forks.
constexpr int MAIN_BEFORE_THE_FORK = -127;

const std::vector<std::string> QUERIES = {"",
                                          "users",
                                          "users,",
                                          "users,*|*|rome",
                                          "users,name=alice,",
                                          "users,name=alice;age=,1",
                                          "users,$fU|*|*",
                                          "$fU,*|*|*",
                                          "$fU",
                                          "$nothing",
                                          "nowhere,*",
                                          "users,*|*|*,0",
                                          std::string(5000, 'x'),
                                          std::string(5000, '$')};

// What a caller may put behind a text that the script has written.
const std::vector<std::string> TAILS = {"", "$fU", "$hdr(X-Q)", "$nothing", "$"};

class LateTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    write_file(main_file("users"), table_text({"alice|30|rome", "bob|31|oslo"}));
    start({USERS});
    standin::set_value(msg, "$fU", "users,alice|*|*");
  }

  void end_start() {
    EXPECT_EQ(module().child_init(MAIN_BEFORE_THE_FORK), 0);
    forget();
  }

  // A call whose empty places are expressions.
  standin::command prepared(const std::string &function,
                            const std::vector<std::optional<std::string>> &parameters) {
    standin::command out = module().fixup_with_expressions(function, parameters);
    EXPECT_TRUE(out.accepted()) << standin::log_dump();
    return out;
  }

  int call_with(const standin::command &call, const std::vector<std::string> &expressions) {
    const uint64_t before = standin::last_serial();
    const int result = module().run_expressions(call, expressions, msg);
    EXPECT_EQ(standin::leak_report(pool::pkg, before), "") << "left by " << call.row()->name;
    return result;
  }

  int modf(language from, const std::string &function, const texts &parameters) {
    const uint64_t before = standin::last_serial();
    const int result = module().run_modf(from, function, parameters, msg);
    EXPECT_EQ(standin::leak_report(pool::pkg, before), "") << "left by " << function;
    return result;
  }

  // The call that was just made has been refused, and nobody has looked at its texts.
  void expect_refusal(int result) {
    EXPECT_EQ(result, -1);
    EXPECT_THAT(messages(),
                ElementsAre(err(REFUSAL), err(UNPRINTABLE_SELECT), err("SELECT failed!\n")));
    for (const char *const looks : {"pv_parse_format", "pv_parse_spec2", "pv_printf",
                                    "parse_params", "fixup_spve_spve", "get_str_fparam"})
      EXPECT_EQ(standin::calls(looks), 0) << looks;
    EXPECT_THAT(standin::misuses(), IsEmpty());
    EXPECT_THAT(standin::memory_errors(), IsEmpty());
    EXPECT_THAT(standin::explode_calls(), IsEmpty());
    forget();
  }
};

struct select_function {
  const char *name;
  bool best_match;
};

std::ostream &operator<<(std::ostream &out, const select_function &shown) {
  return out << shown.name;
}

class LateParamTest : public LateTest, public testing::WithParamInterface<select_function> {
 protected:
  static texts with_column(texts parameters) {
    if (GetParam().best_match) parameters.emplace_back("2");
    return parameters;
  }

  standin::command prepared(const std::optional<std::string> &query,
                            const std::optional<std::string> &name) {
    std::vector<std::optional<std::string>> parameters = {query, name};
    if (GetParam().best_match) parameters.emplace_back("2");
    return LateTest::prepared(GetParam().name, parameters);
  }

  int modf_from(language from, const std::string &query, const std::string &name) {
    return modf(from, GetParam().name, with_column({query, name}));
  }
};

INSTANTIATE_TEST_SUITE_P(AllFour, LateParamTest,
                         testing::Values(select_function{"tarn_memdb_xavp_select", false},
                                         select_function{"tarn_memdb_nl_xavp_select", false},
                                         select_function{"tarn_memdb_xavp_select_best_match", true},
                                         select_function{"tarn_memdb_nl_xavp_select_best_match",
                                                         true}));

TEST_P(LateParamTest, AQueryByAnExpressionIsRefused) {
  const standin::command call_of_it = prepared(std::nullopt, LATE_NAME);
  end_start();
  for (const std::string &query : QUERIES) {
    SCOPED_TRACE(query);
    expect_refusal(call_with(call_of_it, {query}));
  }
}

TEST_P(LateParamTest, AQueryAndANameByExpressionsAreRefused) {
  const standin::command call_of_it = prepared(std::nullopt, std::nullopt);
  end_start();
  for (const std::string name : {"row", "$fU", ""})
    expect_refusal(call_with(call_of_it, {"users,*|*|rome", name}));
}

TEST_P(LateParamTest, AQueryFromAnotherScriptLanguageIsRefused) {
  end_start();
  for (const std::string &query : QUERIES) {
    SCOPED_TRACE(query);
    expect_refusal(modf_from(language::lua, query, "$fU"));
    if (!GetParam().best_match) expect_refusal(modf_from(language::python, query, "$fU"));
  }
}

// The host reads a slot's record as one of its own. A query's length, or what it evaluates to, must
// never stand where it looks for a type.
TEST_P(LateParamTest, AQueryOfAnyLengthIsRefused) {
  const quiet silence;
  const standin::command call_of_it = prepared(std::nullopt, LATE_NAME);
  end_start();
  for (size_t length = 1; length <= 300; length++) {
    for (const std::string &tail : TAILS) {
      for (const std::string head : {"", "users,", "users,name="}) {
        const std::string query = head + std::string(length, 'x') + tail;
        EXPECT_EQ(call_with(call_of_it, {query}), -1);
        EXPECT_EQ(modf_from(language::lua, query, LATE_NAME), -1);
      }
    }
  }
  EXPECT_THAT(standin::misuses(), IsEmpty());
  EXPECT_THAT(standin::memory_errors(), IsEmpty());
  EXPECT_EQ(standin::calls("pv_printf"), 0);
}

TEST_P(LateParamTest, TheNameByAnExpressionIsTakenAsItStands) {
  const std::string query = GetParam().best_match ? "users,*|*|romeo" : "users,*|*|rome";
  const standin::command call_of_it = prepared(query, std::nullopt);
  end_start();
  const std::vector<xavp_items> rome = {{{"name", "alice"}, {"age", "30"}, {"city", "rome"}}};
  for (const std::string name : {"row", "$fU", "$nothing", "x$fU", "$"}) {
    standin::clear_xavps();
    EXPECT_EQ(call_with(call_of_it, {name}), 1) << standin::log_dump();
    EXPECT_EQ(standin::xavps(name), rome);
    EXPECT_TRUE(standin::logged(DBG_LEVEL, "Select xavp: [" + name + "]\n"));
  }
  EXPECT_EQ(standin::calls("fixup_spve_spve"), 0);
  EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
}

TEST_P(LateParamTest, AnEmptyNameByAnExpressionIsTheHostsToRefuse) {
  const standin::command call_of_it =
      prepared(GetParam().best_match ? "users,*|*|romeo" : "users,*|*|rome", std::nullopt);
  end_start();
  EXPECT_EQ(call_with(call_of_it, {""}), -1);
  EXPECT_THAT(standin::xavps(""), IsEmpty());
}

TEST_P(LateParamTest, ACallOfTheScriptWorksInEveryProcess) {
  const standin::command call_of_it =
      prepared(GetParam().best_match ? "users,*|*|$ct" : "users,$fU|*|*", "row_$fU");
  standin::set_value(msg, "$fU", "alice");
  standin::set_value(msg, "$ct", "romeo");
  for (const int rank : {MAIN_BEFORE_THE_FORK, 0, 1, -2}) {
    EXPECT_EQ(module().child_init(rank), 0);
    standin::clear_xavps();
    EXPECT_EQ(call(call_of_it), 1) << standin::log_dump();
    EXPECT_EQ(standin::xavp_item("row_alice", 0, "city"), value("rome"));
  }
}

// Whichever allocation fails, ours or the host's own: the host loses the text of the fix-up that
// failed, and nothing else is lost.
TEST_P(LateParamTest, ALackOfMemoryFailsTheCall) {
  const standin::command call_of_it = prepared(std::nullopt, std::nullopt);
  end_start();
  const std::string query = "users,$fU|*|*";
  for (uint64_t n = 1;; n++) {
    const uint64_t before = standin::last_serial();
    const uint64_t failed = standin::failed_allocations();
    standin::fail_at(pool::pkg, n);
    EXPECT_EQ(module().run_expressions(call_of_it, {query, LATE_NAME}, msg), -1);
    standin::stop_failing();
    std::vector<size_t> lost;
    for (const standin::block_info &block : standin::live_blocks(pool::pkg))
      if (block.serial > before) lost.push_back(block.size);
    if (standin::failed_allocations() == failed) {
      EXPECT_EQ(n, 5u);  // two texts, two records
      EXPECT_THAT(lost, IsEmpty());
      break;
    }
    if (n == 2)
      EXPECT_THAT(lost, ElementsAre(query.size() + 1));
    else if (n == 4)
      EXPECT_THAT(lost, ElementsAre(strlen(LATE_NAME) + 1));
    else
      EXPECT_THAT(lost, IsEmpty());
  }
}

// Slots, one by one.

class LateFixupTest : public LateTest {
 protected:
  static constexpr char SELECT[] = "tarn_memdb_xavp_select";
  static constexpr char BEST_MATCH[] = "tarn_memdb_xavp_select_best_match";

  int fix(standin::parameter_slot *slot, int number) {
    return module().find(BEST_MATCH, 3)->fixup(slot->address(), number);
  }

  static const fparam_t *record_of(const standin::parameter_slot &slot) {
    return reinterpret_cast<const fparam_t *>(slot.get());
  }

  void expect_released(standin::parameter_slot *slot, int number, size_t blocks) {
    EXPECT_EQ(module_blocks(pool::pkg), blocks + 1);
    EXPECT_EQ(fixup_free_spve_spve(slot->address(), number), 0);
    EXPECT_TRUE(slot->untouched());
    EXPECT_EQ(module_blocks(pool::pkg), blocks);
  }
};

TEST_F(LateFixupTest, ARefusedQueryHasARecordThatOwnsNothing) {
  end_start();
  for (const std::string &query : QUERIES) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::parameter_slot slot(query);
    char *const text = slot.get();
    EXPECT_EQ(fix(&slot, 1), 0);
    EXPECT_EQ(record_of(slot)->orig, text);
    EXPECT_EQ(text, query);
    EXPECT_EQ(record_of(slot)->type, FPARAM_STR);
    EXPECT_EQ(record_of(slot)->v.text.len, 0);
    EXPECT_THAT(messages(), ElementsAre(err(REFUSAL)));
    expect_released(&slot, 1, blocks);
    forget();
  }
}

TEST_F(LateFixupTest, ANameHasARecordWithItsText) {
  end_start();
  for (const std::string name : {"row", "$fU", ""}) {
    const size_t blocks = module_blocks(pool::pkg);
    standin::parameter_slot slot(name);
    char *const text = slot.get();
    EXPECT_EQ(fix(&slot, 2), 0);
    EXPECT_EQ(record_of(slot)->orig, text);
    EXPECT_EQ(record_of(slot)->type, FPARAM_STR);
    EXPECT_EQ(record_of(slot)->v.text.s, text);
    EXPECT_EQ(record_of(slot)->v.text.len, static_cast<int>(name.size()));
    EXPECT_EQ(record_of(slot)->fixed, &record_of(slot)->v);
    expect_released(&slot, 2, blocks);
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(LateFixupTest, AColumnIsLeftAsItIs) {
  end_start();
  for (const std::string column : {"0", "2", "-1", "abc", "", "$fU"}) {
    standin::parameter_slot slot(column);
    EXPECT_EQ(fix(&slot, 3), 0);
    EXPECT_TRUE(slot.untouched());
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(LateFixupTest, NoMemoryForTheRecordLeavesTheText) {
  end_start();
  for (const int number : {1, 2}) {
    standin::parameter_slot slot("users,$fU|*|*");
    standin::fail_at(pool::pkg, 1);
    EXPECT_EQ(fix(&slot, number), -1);
    EXPECT_TRUE(slot.untouched());
    EXPECT_EQ(messages().back(), err("No more memory!\n"));
  }
}

TEST_F(LateFixupTest, ASlotWithoutATextIsNoTrouble) {
  end_start();
  standin::parameter_slot slot(standin::borrowed_text{nullptr});
  EXPECT_EQ(fix(&slot, 3), -1);
  EXPECT_EQ(messages().back(), err("null format in P3\n"));
  const cmd_export_t *const row = module().find(SELECT, 2);
  EXPECT_EQ(fix(&slot, 1), 0);
  standin::parameter_slot name(standin::borrowed_text{nullptr});
  EXPECT_EQ(fix(&name, 2), 0);
  forget();
  EXPECT_EQ(row->function.two(&msg, slot.get(), name.get()), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT), err("SELECT failed!\n")));
  EXPECT_EQ(fixup_free_spve_spve(slot.address(), 1), 0);
  EXPECT_EQ(fixup_free_spve_spve(name.address(), 2), 0);
  EXPECT_TRUE(slot.untouched());
  EXPECT_TRUE(name.untouched());
}

TEST_F(LateFixupTest, ANameWithoutATextCantBeRead) {
  const standin::command call_of_it = fixup(SELECT, {"users,*|*|rome", "row"});
  end_start();
  standin::parameter_slot name(standin::borrowed_text{nullptr});
  EXPECT_EQ(fix(&name, 2), 0);
  EXPECT_EQ(call_of_it.row()->function.two(&msg, call_of_it.slot(1).get(), name.get()), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("cannot get the xavp name\n"), err("SELECT failed!\n")));
  EXPECT_EQ(fixup_free_spve_spve(name.address(), 2), 0);
}

TEST_F(LateFixupTest, TheFirstCallOfAnyProcessEndsTheStart) {
  for (const int rank : {MAIN_BEFORE_THE_FORK, 0, 1, 7, -2}) {
    restart();
    standin::parameter_slot early("users,*|*|rome");
    EXPECT_EQ(fix(&early, 1), 0);
    EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
    EXPECT_EQ(module().child_init(rank), 0);
    standin::parameter_slot late("users,*|*|rome");
    EXPECT_EQ(fix(&late, 1), 0);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(REFUSAL)));
  }
}

// A call in an expression of another call, as scripts may have it.
TEST_F(LateFixupTest, TwoRefusedQueriesAtATimeAreTwo) {
  const standin::command good = fixup(SELECT, {"users,*|*|rome", "row"});
  end_start();
  standin::parameter_slot outer("users,a|b|c"), inner("users,d|e|f");
  EXPECT_EQ(fix(&outer, 1), 0);
  EXPECT_EQ(fix(&inner, 1), 0);
  const auto select = [&](const standin::parameter_slot &query) {
    return good.row()->function.two(&msg, query.get(), good.slot(2).get());
  };
  EXPECT_EQ(select(inner), -1);
  EXPECT_EQ(fixup_free_spve_spve(inner.address(), 1), 0);
  EXPECT_EQ(select(outer), -1);
  EXPECT_EQ(select(good.slot(1)), 1);
  EXPECT_EQ(fixup_free_spve_spve(outer.address(), 1), 0);
}

// Columns by expressions: what a start would have refused fails the call.

class LateColumnTest : public LateTest {};

TEST_F(LateColumnTest, AColumnByAnExpressionIsRead) {
  const standin::command call_of_it =
      prepared("tarn_memdb_xavp_select_best_match", {"users,*|*|romeo", LATE_NAME, std::nullopt});
  end_start();
  EXPECT_EQ(call_with(call_of_it, {"2"}), 1) << standin::log_dump();
  EXPECT_EQ(standin::xavp_item(LATE_NAME, 0, "name"), value("alice"));
}

TEST_F(LateColumnTest, AColumnThatIsNoneFailsTheCall) {
  const standin::command call_of_it = prepared("tarn_memdb_nl_xavp_select_best_match",
                                               {"users,x|*|romeo", LATE_NAME, std::nullopt});
  end_start();
  const auto beyond = [](int column) {
    return err("memdb_select_best_match: main column (" + std::to_string(column) +
               ") is greater than total coumns (3)\n");
  };
  const std::vector<std::pair<std::string, message>> cases = {
      {"-1", beyond(-1)},
      {" -3x", beyond(-3)},
      {"3", beyond(3)},
      {"$fU",
       err("memdb_select_best_match: main column (0) is an index column, ignoring this row\n")},
      {"",
       err("memdb_select_best_match: main column (0) is an index column, ignoring this row\n")}};
  for (const auto &[column, said] : cases) {
    standin::clear_logs();
    EXPECT_EQ(call_with(call_of_it, {column}), -1);
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(said));
  }
}

}  // namespace
}  // namespace module_test
