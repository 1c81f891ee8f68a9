// Functions that take no lock, stopped among the rows, while another process takes the rows out:
// what they walk on has to stay as it is until they have ended, and not for longer.
#include <cstdarg>

#include "tests/module/fixture.h"
#include "tests/module/processes.h"

namespace module_test {
namespace {

constexpr int ROWS = 4;

// Sixteen columns, as the subnet select wants them: its addresses are in 3 and 4, its flags from 12
// on. Ports in 2 and 3 serve the pair select, prefixes in 6, numbers in 9.
table wide(const std::string &name) {
  table out{name, {{"name", 31, true}}, 100};
  for (int i = 1; i < 16; i++) out.columns.push_back({"c" + std::to_string(i)});
  return out;
}
const table DOMAINS = {"remote_sub_dn_list", {{"dn", 31, true}, {"domain"}}, 100};
const std::string REST = "g|home|10.1.0.0|/16|x|49|x|x|5|x|x|1|0|1|0";
const std::string ANY = "wide,*|*|*|*|*|*|*|*|*|*|*|*|*|*|*|*";
const std::string PREFIX = "wide,*|*|*|*|*|*|4912|*|*|*|*|*|*|*|*|*";

// A function, the message at which it is stopped, and its result.
struct stop_place {
  const char *function;
  std::vector<std::string> texts;
  const char *message;
  int result = 1;
  std::string table = "wide";
  void (*prepare)() = [] {};
};

class ReadSectionsTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ASSERT_TRUE(standin::use_shared_mapping(32U << 20));
    start({wide("wide"), wide("other"), DOMAINS});
    standin::set_var("count", 0);
  }

  void fill() {
    for (int i = 0; i < ROWS; i++) {
      const std::string n = std::to_string(i);
      EXPECT_EQ(run("tarn_memdb_insert", {"wide,n" + n + "|" + REST}), 1);
      EXPECT_EQ(run("tarn_memdb_insert", {"remote_sub_dn_list,user" + n + "|home"}), 1);
    }
  }
  void empty(const std::string &name) {
    EXPECT_EQ(run("tarn_memdb_delete", {name == "wide" ? ANY : name + ",*|*"}), 1);
  }
  void add_and_remove_one() {
    EXPECT_EQ(run("tarn_memdb_insert", {"other,x|" + REST}), 1);
    EXPECT_EQ(run("tarn_memdb_delete", {"other,x" + ANY.substr(6)}), 1);
  }

  std::function<int()> calling(const stop_place &place) {
    auto prepared = std::make_shared<standin::command>(fixup(place.function, place.texts));
    EXPECT_TRUE(prepared->accepted());
    return [this, prepared, &place] {
      place.prepare();
      return module().run(*prepared, msg);
    };
  }
};

const stop_place PLACES[] = {
    {"tarn_memdb_nl_select",
     {ANY, "$avp(a)|$avp(b)"},
     "Could not add avp",
     -1,
     "wide",
     [] { standin::fail_call("add_avp", 4); }},
    {"tarn_memdb_nl_xavp_select", {ANY, "row"}, "params to explode"},
    {"tarn_memdb_nl_select_best_match", {PREFIX, "$avp(a)", "6"}, "processing entry"},
    {"tarn_memdb_nl_select_best_match_prefix", {PREFIX, "$avp(a)", "6", "0"}, "processing entry"},
    {"tarn_memdb_nl_xavp_select_best_match", {PREFIX, "row", "6"}, "params to explode"},
    {"tarn_memdb_nl_select_by_port_type",
     {"internal_port", "wide,*|*|10.1.0.0" + ANY.substr(12), "$avp(a)||$avp(c)"},
     "Could not get avp name"},
    {"tarn_memdb_nl_select_field_out_of_range",
     {ANY, "$avp(a)", "9", "1", "2"},
     "is out of range",
     ROWS},
    {"tarn_memdb_nl_select_field_within_the_range",
     {ANY, "$avp(a)", "9", "1", "9", "$var(count)"},
     "Loop Debug",
     -2},
    {"tarn_memdb_nl_select_subnetmask",
     {ANY, "$avp(a)", "10.1.2.3", "user1", "user2"},
     "Entering memdb_select"},
};

TEST_F(ReadSectionsTest, RowsThatAReaderMayBeOnStayUntilItHasEnded) {
  add_and_remove_one();
  const size_t bare = module_blocks(pool::shm);
  for (const stop_place &place : PLACES) {
    SCOPED_TRACE(place.function);
    fill();
    const size_t filled = module_blocks(pool::shm);
    stopped_process reader(place.message, calling(place));
    empty("wide");
    EXPECT_EQ(module_blocks(pool::shm), filled) << "nothing is given back under the reader";
    add_and_remove_one();
    EXPECT_EQ(module_blocks(pool::shm), filled + 1) << "nor is a row that came later";
    EXPECT_EQ(reader.let_go(), place.result) << "what it was on is there in full";
    add_and_remove_one();
    EXPECT_EQ(module_blocks(pool::shm), filled - ROWS) << "all is given back by the next removal";
    empty("remote_sub_dn_list");
    EXPECT_EQ(module_blocks(pool::shm), bare);
  }
}

TEST_F(ReadSectionsTest, TheLookUpOfADomainIsAReaderToo) {
  fill();
  const size_t filled = module_blocks(pool::shm);
  EXPECT_EQ(run("tarn_memdb_insert", {"other,by-user|g|home||||x|x|x|x|x|x|1|0|1|0"}), 1);
  const stop_place place = {"tarn_memdb_nl_select_subnetmask",
                            {"other" + ANY.substr(4), "$avp(a)", "10.1.2.3", "user1", "user2"},
                            "Found location_domain",
                            1,
                            "remote_sub_dn_list"};
  stopped_process reader(place.message, calling(place));
  empty("remote_sub_dn_list");
  EXPECT_EQ(module_blocks(pool::shm), filled + 1);
  EXPECT_EQ(reader.let_go(), 1);
  add_and_remove_one();
  EXPECT_EQ(module_blocks(pool::shm), filled + 1 - ROWS);
}

TEST_F(ReadSectionsTest, FunctionsWithTheLockKeepNothingFromBeingGivenBack) {
  fill();
  const size_t filled = module_blocks(pool::shm);
  const stop_place place = {"tarn_memdb_xavp_select", {ANY, "row"}, "params to explode"};
  stopped_process reader(place.message, calling(place));
  EXPECT_EQ(run("tarn_memdb_delete", {"remote_sub_dn_list,*|*"}), 1);
  EXPECT_EQ(module_blocks(pool::shm), filled - ROWS);
  EXPECT_EQ(reader.let_go(), 1);
}

TEST_F(ReadSectionsTest, AReaderThatWasKilledKeepsNothingBeyondTheEnd) {
  fill();
  {
    const stop_place place = {"tarn_memdb_nl_xavp_select", {ANY, "row"}, "params to explode"};
    const stopped_process killed(place.message, calling(place));
    empty("wide");
  }
  add_and_remove_one();
  destroy();
  EXPECT_EQ(standin::leak_report(pool::shm), "");
}

// An RPC command in work, with something done between the lines of its reply. The host's operations
// get no context of the test's, so there is one place for it.
struct interrupted {
  rpc_function handler;
  std::function<void()> between_lines;
  const rpc_t *host = nullptr;
};
interrupted *interrupted_command;

int printing_line(void *ctx, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char text[4096];
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const int result = interrupted_command->host->rpl_printf(ctx, "%s", text);
  interrupted_command->between_lines();
  return result;
}

void run_interrupted(rpc_t *host, void *ctx) {
  interrupted_command->host = host;
  rpc_t watched = *host;
  watched.rpl_printf = printing_line;
  interrupted_command->handler(&watched, ctx);
}

TEST_F(ReadSectionsTest, TheRpcSelectWithoutTheLockIsAReader) {
  fill();
  const size_t filled = module_blocks(pool::shm);
  const standin::command emptying = fixup("tarn_memdb_delete", {ANY});
  int lines = 0;
  interrupted command{standin::rpc_find("tarn_memdb.nl_select")->function, [&] {
                        // Behind the heading and the first row.
                        if (++lines != 2) return;
                        EXPECT_EQ(module().run(emptying, msg), 1);
                        EXPECT_EQ(module_blocks(pool::shm), filled);
                      }};
  interrupted_command = &command;
  const standin::rpc_reply reply = standin::rpc_run(run_interrupted, {ANY});
  EXPECT_EQ(reply.lines.size(), 1u + ROWS) << "the rows that went are read to the end";
  add_and_remove_one();
  EXPECT_EQ(module_blocks(pool::shm), filled - ROWS);
}

}  // namespace
}  // namespace module_test
