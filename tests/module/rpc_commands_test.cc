// The table of RPC commands, and the command that lists it.
#include <dlfcn.h>

#include <set>

#include "tests/module/rpc_command_rows.h"
#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t COUNT = sizeof(RPC_COMMANDS) / sizeof(RPC_COMMANDS[0]);

class RpcCommandsTest : public RpcTest {
 protected:
  void SetUp() override {
    RpcTest::SetUp();
    open({});
    ASSERT_EQ(standin::rpc_tables().size(), 1u);
    rows = standin::rpc_tables()[0];
  }

  const rpc_export_t *rows = nullptr;
};

// The file that holds an address of a loaded object.
std::string file_of(const void *address) {
  Dl_info found = {};
  return dladdr(address, &found) != 0 ? found.dli_fname : "";
}

TEST_F(RpcCommandsTest, TheTableIsTheBuiltModulesOwnAndEndsInAnEmptyRow) {
  EXPECT_EQ(file_of(rows), TARN_MODULE_FILE);
  EXPECT_EQ(rows[COUNT].name, nullptr);
  EXPECT_EQ(rows[COUNT].function, nullptr);
  EXPECT_EQ(rows[COUNT].doc_str, nullptr);
  EXPECT_EQ(rows[COUNT].flags, 0u);
}

TEST_F(RpcCommandsTest, FifteenRowsStandInOrderWithNamesDocumentationAndNoFlags) {
  ASSERT_EQ(COUNT, 15u);
  for (size_t i = 0; i < COUNT; i++) {
    ASSERT_NE(rows[i].name, nullptr) << i;
    EXPECT_STREQ(rows[i].name, RPC_COMMANDS[i].name);
    ASSERT_NE(rows[i].doc_str, nullptr) << rows[i].name;
    EXPECT_STREQ(rows[i].doc_str[0], RPC_COMMANDS[i].documentation);
    EXPECT_EQ(rows[i].doc_str[1], nullptr) << rows[i].name;
    EXPECT_EQ(rows[i].flags, 0u) << rows[i].name;
  }
}

TEST_F(RpcCommandsTest, EachRowHasAHandlerOfItsOwnInTheModule) {
  std::set<rpc_function> handlers;
  for (size_t i = 0; i < COUNT; i++) {
    ASSERT_NE(rows[i].function, nullptr) << rows[i].name;
    EXPECT_TRUE(handlers.insert(rows[i].function).second) << rows[i].name;
    EXPECT_EQ(file_of(reinterpret_cast<const void *>(rows[i].function)), TARN_MODULE_FILE);
  }
}

TEST_F(RpcCommandsTest, ShowCmdsListsEveryNameInTableOrderWithoutALock) {
  steps expected = {"line Available CLI commands:"};
  for (const rpc_command_row &command : RPC_COMMANDS)
    expected.push_back(std::string("line ") + command.name);
  EXPECT_EQ(trace("tarn_memdb.show_cmds", {}, DBG_LEVEL), expected);
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_EQ(reply.lines.size(), 16u);
}

TEST_F(RpcCommandsTest, ShowCmdsEndsQuietlyAtTheLineThatCannotBeSent) {
  for (int failing = 1; failing <= 16; failing++) {
    standin::fail_call("rpc.rpl_printf", failing);
    const steps seen = trace("tarn_memdb.show_cmds", {}, DBG_LEVEL);
    EXPECT_EQ(seen.size(), static_cast<size_t>(failing));
    EXPECT_EQ(reply.lines.size(), static_cast<size_t>(failing - 1));
    EXPECT_THAT(reply.faults, IsEmpty());
  }
  EXPECT_EQ(lines("tarn_memdb.show_cmds").size(), 16u);
}

TEST_F(RpcCommandsTest, ShowCmdsTakesNoArgumentAndLooksAtNone) {
  trace("tarn_memdb.show_cmds", {"anything"});
  EXPECT_EQ(reply.lines.size(), 16u);
  EXPECT_THAT(reply.scans, IsEmpty());
}

}  // namespace
}  // namespace module_test
