// Whatever fails in a call of a script function, once: every allocation, every call into the host,
// every file operation. After each the table is what it was, the lock is free and nothing leaks.
#include <cerrno>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

const table PLAIN = {"users", {{"name", 31, true}, {"age"}, {"city", 31, true}}, 100, "USR"};

struct scenario {
  const char *what;
  const char *function;
  texts parameters;
  int success;
  const char *last_words;  // what a failed call says at its end
  bool use_index = false;
  standin::host_kind host = standin::host_kind::exported_explode;
};

std::ostream &operator<<(std::ostream &out, const scenario &shown) { return out << shown.what; }

class FailuresTest : public ModuleTest, public testing::WithParamInterface<scenario> {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    begin();
  }

  // A start with three rows in the table, and the call prepared.
  void begin() {
    const scenario &s = GetParam();
    standin::set_host_kind(s.host);
    write_file(main_file("users"), table_text(LINES));
    start({with(PLAIN, 100, "USR", s.use_index, s.use_index)});
    prepared_ = fixup(s.function, s.parameters);
    ASSERT_TRUE(prepared_.accepted());
    blocks_ = module_blocks(pool::shm);
    forget();
  }

  void begin_again() {
    prepared_ = standin::command();
    unload();
    load();
    begin();
  }

  int call_it() { return call(prepared_); }

  // The call failed: it said so, left everything as it was, and works the next time.
  void expect_nothing_done(int result, int expected) {
    EXPECT_EQ(result, expected) << standin::log_dump();
    if (result == -1) {
      ASSERT_FALSE(messages().empty());
      EXPECT_EQ(messages().back(), err(GetParam().last_words));
      EXPECT_GE(messages(ERR_LEVEL).size(), 1u);
    }
    standin::stop_failing();
    standin::stop_failing_calls();
    EXPECT_EQ(module_blocks(pool::shm), blocks_);
    EXPECT_FALSE(store_writes("users"));
    EXPECT_EQ(standin::log_count(NOTICE_LEVEL), 0u);
    expect_rows("users", ROWS);
    EXPECT_GT(call_it(), 0);
  }

  // What the n-th private allocation's failure makes of the call.
  int expected_of_allocation(uint64_t n) const {
    // A select into XAVPs that finds no room for its buffer looks like one that finds no row.
    const bool xavp = std::string(GetParam().function).find("xavp") != std::string::npos;
    return xavp && n == 2 ? -2 : -1;
  }

  static const std::vector<std::string> LINES;
  static const row_list ROWS;

  standin::command prepared_;
  size_t blocks_ = 0;
};

const std::vector<std::string> FailuresTest::LINES = {"1|30|rome", "2|31|oslo", "3|30|rome"};
const row_list FailuresTest::ROWS = {{"1", "30", "rome"}, {"2", "31", "oslo"}, {"3", "30", "rome"}};

const scenario SCENARIOS[] = {
    {"insert", "tarn_memdb_insert", {"users,4|32|bergen"}, 1, "INSERT failed!\n"},
    {"named insert", "tarn_memdb_insert", {"users,name=4;age=32;city=b,"}, 1, "INSERT failed!\n"},
    {"numbered insert", "tarn_memdb_insert", {"users,x|32|bergen"}, 4, "INSERT failed!\n", true},
    {"delete", "tarn_memdb_delete", {"users,*|30|*"}, 1, "DELETE failed!\n"},
    {"delete by index", "tarn_memdb_delete", {"users,*|*|rome,1"}, 1, "DELETE failed!\n"},
    {"update", "tarn_memdb_update", {"users,*|30|*", "*|30|oslo"}, 1, "UPDATE failed!\n"},
    {"named update",
     "tarn_memdb_update",
     {"users,age=30,", "city=x;age=30"},
     1,
     "UPDATE failed!\n"},
    {"row count", "tarn_memdb_row_count", {"users", "$avp(n)"}, 1, "Get row count failed!\n"},
    {"clear", "tarn_memdb_clear_tbl", {"users"}, 1, "Clear table failed!\n"},
    {"select", "tarn_memdb_select", {"users,*|30|*", "$avp(a)||$avp(c)"}, 1, "SELECT failed!\n"},
    {"select without lock",
     "tarn_memdb_nl_select",
     {"users,*|*|rome", "$avp(a)"},
     1,
     "SELECT failed!\n"},
    {"xavp select", "tarn_memdb_xavp_select", {"users,*|30|*", "row_$fU"}, 1, "SELECT failed!\n"},
    {"xavp select by the ninth operation",
     "tarn_memdb_xavp_select",
     {"users,*|30|*", "row"},
     1,
     "SELECT failed!\n",
     false,
     standin::host_kind::ninth_operation},
    {"xavp select without lock",
     "tarn_memdb_nl_xavp_select",
     {"users,*|30|*", "row"},
     1,
     "SELECT failed!\n"},
};

INSTANTIATE_TEST_SUITE_P(Functions, FailuresTest, testing::ValuesIn(SCENARIOS));

TEST_P(FailuresTest, WithoutAFailureTheCallSucceeds) { EXPECT_EQ(call_it(), GetParam().success); }

TEST_P(FailuresTest, EachPrivateAllocationFailsOnce) {
  for (uint64_t n = 1;; n++) {
    SCOPED_TRACE("private allocation " + std::to_string(n));
    standin::fail_at(pool::pkg, n);
    const uint64_t failed = standin::failed_allocations();
    const int result = call_it();
    if (standin::failed_allocations() == failed) {
      EXPECT_EQ(result, GetParam().success);
      break;
    }
    expect_nothing_done(result, expected_of_allocation(n));
    begin_again();
  }
}

TEST_P(FailuresTest, EachSharedAllocationFailsOnce) {
  for (uint64_t n = 1;; n++) {
    SCOPED_TRACE("shared allocation " + std::to_string(n));
    standin::fail_at(pool::shm, n);
    const int result = call_it();
    if (standin::failed_allocations() == 0) {
      EXPECT_EQ(result, GetParam().success);
      break;
    }
    expect_nothing_done(result, -1);
    begin_again();
  }
}

TEST_P(FailuresTest, WithoutAnyMemoryTheCallFailsOrNeedsNone) {
  standin::fail_from(pool::both, 1);
  const int result = call_it();
  if (standin::failed_allocations() == 0)
    EXPECT_EQ(result, GetParam().success);
  else
    expect_nothing_done(result, -1);
}

TEST_P(FailuresTest, EachCallIntoTheHostFailsOnce) {
  const bool into_avps = std::string(GetParam().what).rfind("select", 0) == 0;
  int failures = 0;
  for (const std::string name :
       {"pv_printf", "pv_printf.length", "pv_get_avp_name", "add_avp", "get_str_fparam",
        "get_str_fparam.text", "explode_params", "parse_params", "pv_get_spec_value", "find_export",
        "register_timer"}) {
    for (int n = 1;; n++) {
      SCOPED_TRACE(name + " " + std::to_string(n));
      standin::fail_call(name, n);
      const int result = call_it();
      if (standin::calls(name) < n) {
        EXPECT_EQ(result, GetParam().success);
        begin_again();
        break;
      }
      failures++;
      // A select leaves out a column whose name can't be resolved.
      expect_nothing_done(result, name == "pv_get_avp_name" && into_avps ? 1 : -1);
      begin_again();
    }
  }
  EXPECT_GE(failures, 1);
}

// A clear stores at once. Whatever fails then, the table is empty, and the next pass of the timer
// makes up for it.
class ClearFailuresTest : public ModuleTest {};

TEST_F(ClearFailuresTest, EachFileOperationFailsOnce) {
  for (const std::string op : {"fopen", "write", "rename", "fflush", "fclose"}) {
    for (int n = 1;; n++) {
      SCOPED_TRACE(op + " " + std::to_string(n));
      write_file(main_file("users"), table_text({"alice|30|rome"}));
      start({PLAIN});
      const standin::command clear = fixup("tarn_memdb_clear_tbl", {"users"});
      const int before = standin::file_ops(op);
      standin::fail_file_op(op, n, ENOSPC);
      EXPECT_EQ(call(clear), 1);
      const bool reached = standin::file_ops(op) - before >= n;
      standin::stop_failing_files();
      expect_rows("users", {});
      const bool told = standin::log_contains(ERR_LEVEL, "Could not store table 'users'");
      // What shows only when the file is closed isn't looked at, and a missing backup is normal.
      EXPECT_EQ(told, reached && (op == "fopen" || op == "write"));
      EXPECT_EQ(store_writes("users"), told);
      if (!reached || told) {
        EXPECT_EQ(read_file(main_file("users")), table_text({}));
      }
      unload();
      load();
      if (!reached) break;
    }
  }
}

}  // namespace
}  // namespace module_test
