// Every RPC command while each thing that it needs fails in turn: whatever fails, no lock stays
// held, nothing is left behind, and all commands work afterwards.
#include <cerrno>
#include <functional>
#include <map>

#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};

table numbered_media() {
  table media = claiming_table("media", "dynamic", "MEDIA");
  media.use_index = true;
  return media;
}

struct example {
  const char *command;
  std::vector<value> arguments;
};

// Each command as it succeeds, working on rows that are there.
const std::vector<example> EXAMPLES = {
    {"tarn_memdb.insert", {"media,|c9|a|b|21009|WAN||0|0"}},
    {"tarn_memdb.delete", {"media,*|c1|*|*|*|*|*|*|*"}},
    {"tarn_memdb.select", {"users,*|*|*"}},
    {"tarn_memdb.nl_select", {"users,*|*|*"}},
    {"tarn_memdb.show", {"users"}},
    {"tarn_memdb.show_p", {"users"}},
    {"tarn_memdb.clear_all", {}},
    {"tarn_memdb.clear_tbl", {"media"}},
    {"tarn_memdb.update", {"media,*|*|*|*|21001|*|*|*|*", "*|*|*|*|21005|*|*|*|*"}},
    {"tarn_memdb.show_tbl_info", {"media"}},
    {"tarn_memdb.show_tbls_lst", {}},
    {"tarn_memdb.show_cmds", {}},
    {"tarn_memdb.show_pm_info", {}},
    {"tarn_memdb.reload_table", {"media"}},
    {"tarn_memdb.sync", {"users"}},
};

// Arguments that some command could take for something.
const std::vector<std::string> HOSTILE = {
    "",
    " ",
    "\n",
    "users",
    "users,",
    "users,|",
    "users,*|*|*,",
    "users,*|*|*,99999999999999999999",
    "users,*|*|*,\\",
    "users,\\|*|*|*",
    "users,a|b|c\\",
    "\\",
    ",",
    ",,,,",
    "media,*|*|*|*|*|*|*|*|*,1",
    "%s%s%s%n",
    std::string(31, 'u') + ",a",
    std::string(32, 'u') + ",a",
    std::string(100000, 'u'),
    "users," + std::string(100000, '|'),
    "users," + std::string(100000, '\\'),
    "users," + std::string(100000, '*') + "|*|*",
    "users,\x01\xff\x80|\xc3\x28|\x7f",
};

class RpcFailuresTest : public RpcTest {
 protected:
  void SetUp() override {
    RpcTest::SetUp();
    write_file(ranges_file(), "INT 21006 21007\n");
    open({USERS, numbered_media()});
    ASSERT_EQ(standin::rpc_names().size(), EXAMPLES.size());
  }

  // The tables with their rows, users changed since their last store, media stored.
  void refill() {
    standin::stop_failing();
    standin::stop_failing_calls();
    standin::stop_failing_files();
    const quiet silence;
    standin::rpc_call("tarn_memdb.clear_all");
    insert("media,|c1|a|b|21001|WAN||0|0");
    insert("media,|c2|a|b|21002|WAN||0|0");
    standin::tick();
    for (int i = 0; i < 3; i++) insert("users,user" + std::to_string(i) + "|30|rome");
  }

  // What the module holds and would tell of it.
  steps state() {
    steps out;
    for (const example &each : EXAMPLES) {
      const std::string name = each.command;
      if (name.find("show") == std::string::npos) continue;
      trace(name, each.arguments);
      EXPECT_THAT(reply.faults, IsEmpty());
      out.insert(out.end(), reply.lines.begin(), reply.lines.end());
      for (const standin::rpc_container &container : reply.containers)
        out.insert(out.end(), container.texts.begin(), container.texts.end());
    }
    return out;
  }

  // Runs the command with each of its uses of something failing in turn; arm makes the n-th use
  // fail. Gives back the number of uses.
  int fail_each(const example &each, const std::function<void(int)> &arm,
                const std::function<int()> &uses_so_far) {
    refill();
    const size_t blocks = module_blocks(pool::both);
    const steps filled = state();
    const int before = uses_so_far();
    trace(each.command, each.arguments, ERR_LEVEL);
    EXPECT_THAT(reply.faults, IsEmpty()) << each.command;
    const int uses = uses_so_far() - before;
    for (int n = 1; n <= uses; n++) {
      SCOPED_TRACE(each.command + (" " + std::to_string(n)));
      refill();
      arm(n);
      trace(each.command, each.arguments, ERR_LEVEL);
      // Everything else goes on, from the same state to the same state.
      refill();
      EXPECT_EQ(module_blocks(pool::both), blocks);
      EXPECT_EQ(state(), filled);
    }
    return uses;
  }
};

TEST_F(RpcFailuresTest, EachAllocation) {
  std::map<std::string, int> uses;
  for (const example &each : EXAMPLES) {
    uses[each.command] = fail_each(
        each, [](int n) { standin::fail_at(pool::both, static_cast<uint64_t>(n)); },
        [] { return static_cast<int>(standin::allocation_count(pool::both)); });
  }
  EXPECT_EQ(uses["tarn_memdb.insert"], 4);
  EXPECT_EQ(uses["tarn_memdb.update"], 2);
  EXPECT_EQ(uses["tarn_memdb.reload_table"], 4);
  EXPECT_EQ(uses["tarn_memdb.clear_all"], 0);
}

TEST_F(RpcFailuresTest, EachOperationOfTheTransport) {
  std::map<std::string, int> uses;
  for (const std::string operation : {"rpc.scan", "rpc.rpl_printf", "rpc.add", "rpc.array_add"}) {
    for (const example &each : EXAMPLES) {
      uses[operation] += fail_each(
          each, [&](int n) { standin::fail_call(operation, n); },
          [&] { return standin::calls(operation); });
    }
  }
  EXPECT_EQ(uses["rpc.scan"], 11);
  EXPECT_EQ(uses["rpc.add"], 6);
  EXPECT_EQ(uses["rpc.array_add"], 6);
  EXPECT_EQ(uses["rpc.rpl_printf"], 4 + 4 + 3 + 2 + 13 + 3 + 16 + 7 + 2);
}

TEST_F(RpcFailuresTest, AnArgumentThatIsThereWithoutATextIsAMissingOne) {
  size_t tried = 0;
  for (const example &each : EXAMPLES) {
    for (size_t n = 1; n <= each.arguments.size(); n++) {
      SCOPED_TRACE(each.command + (" " + std::to_string(n)));
      refill();
      const steps filled = state();
      const steps without_arguments = trace(each.command);
      standin::fail_call("rpc.scan.text", static_cast<int>(n));
      EXPECT_EQ(trace(each.command, each.arguments), without_arguments);
      EXPECT_THAT(reply.faults, SizeIs(1));
      EXPECT_EQ(state(), filled);
      tried++;
    }
  }
  EXPECT_EQ(tried, 12u);
}

TEST_F(RpcFailuresTest, EachFileOperation) {
  int uses = 0;
  for (const example &each : EXAMPLES) {
    uses += fail_each(
        each, [](int n) { standin::fail_file_op("any", n, EIO); },
        [] { return static_cast<int>(standin::file_history().size()); });
  }
  EXPECT_GE(uses, 20);
}

TEST_F(RpcFailuresTest, EverythingFailingAtOnce) {
  for (const example &each : EXAMPLES) {
    refill();
    for (const std::string operation : {"rpc.rpl_printf", "rpc.add", "rpc.array_add"})
      standin::fail_calls_from(operation, 1);
    standin::fail_from(pool::both, 1);
    standin::fail_file_ops_from("any", 1, EIO);
    trace(each.command, each.arguments);
    EXPECT_THAT(reply.lines, IsEmpty()) << each.command;
  }
  refill();
  EXPECT_EQ(row_count("users"), 3);
}

TEST_F(RpcFailuresTest, HostileArguments) {
  for (const standin::rpc_transport transport :
       {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    for (const example &each : EXAMPLES) {
      refill();
      standin::set_rpc_transport(transport);
      for (const std::string &first : HOSTILE) {
        trace(each.command, {first});
        trace(each.command, {first, first});
        trace(each.command, {first, 3, "x"});
      }
    }
  }
  refill();
  EXPECT_EQ(row_count("users"), 3);
}

TEST_F(RpcFailuresTest, AMessageIsLostAndTheCommandGoesOnWhileAnotherIsBeingWritten) {
  refill();
  dprint_crit = 1;
  EXPECT_THAT(trace("tarn_memdb.delete", {"users,*|*|*"}, DBG_LEVEL), SizeIs(1));
  dprint_crit = 0;
  EXPECT_EQ(row_count("users"), 0);
}

TEST_F(RpcFailuresTest, AQuietLogLevelIsAskedForOncePerCommand) {
  refill();
  standin::set_debug_level(WARN_LEVEL);
  for (const example &each : EXAMPLES) {
    standin::reset_calls();
    trace(each.command, each.arguments);
    EXPECT_LE(standin::debug_level_queries(), 1) << each.command;
  }
  standin::set_debug_level(DBG_LEVEL);
}

}  // namespace
}  // namespace module_test
