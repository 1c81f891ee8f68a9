#include "tests/standin/rpc.h"

#include <gtest/gtest.h>

#include "tests/standin/standin.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

struct scanned {
  int result;
  std::string first, second;
};
scanned last;

void two_strings(rpc_t *rpc, void *ctx) {
  str a = {}, b = {};
  last.result = rpc->scan(ctx, "SS", &a, &b);
  last.first = view_of(a);
  last.second = view_of(b);
}

void one_text(rpc_t *rpc, void *ctx) {
  char *text = nullptr;
  last.result = rpc->scan(ctx, "s", &text);
  last.first = text != nullptr ? text : "(null)";
}

void converted(rpc_t *rpc, void *ctx) {
  char *text = nullptr;
  last.result = rpc->scan(ctx, ".s", &text);
  last.first = text != nullptr ? text : "(null)";
}

void lines(rpc_t *rpc, void *ctx) {
  last.result = rpc->rpl_printf(ctx, "%s=%d", "a", 1);
  last.result = rpc->rpl_printf(ctx, "%s=%d", "b", 2);
}

void two_faults(rpc_t *rpc, void *ctx) {
  rpc->fault(ctx, 500, "first %d", 1);
  rpc->fault(ctx, 404, "second");
}

void containers(rpc_t *rpc, void *ctx) {
  void *list = nullptr;
  last.result = rpc->add(ctx, "[", &list);
  if (last.result < 0) return;
  rpc->array_add(list, "s", "one");
  str two = str_of("two");
  rpc->array_add(list, "Sd", &two, 3);
}

void parenthesis(rpc_t *rpc, void *ctx) {
  void *list = nullptr;
  last.result = rpc->add(ctx, "(", &list);
  last.first = list != nullptr ? "opened" : "not opened";
}

rpc_export_t table[] = {{"t.two", two_strings, nullptr, 0},
                        {"t.lines", lines, nullptr, 0},
                        {nullptr, nullptr, nullptr, 0}};

class RpcTest : public testing::Test {
 protected:
  void SetUp() override {
    reset();
    last = {};
  }
  void TearDown() override { reset(); }
};

TEST_F(RpcTest, CommandsRunByTheirNamesInTheRegisteredTables) {
  EXPECT_FALSE(rpc_call("t.two").found);
  ASSERT_EQ(rpc_register_array(table), 0);
  EXPECT_EQ(rpc_names(), (std::vector<std::string>{"t.two", "t.lines"}));
  EXPECT_EQ(rpc_find("t.lines"), &table[1]);
  EXPECT_FALSE(rpc_call("t.none").found);
  const rpc_reply reply = rpc_call("t.lines");
  EXPECT_TRUE(reply.found);
  EXPECT_EQ(reply.lines, (std::vector<std::string>{"a=1", "b=2"}));
  EXPECT_FALSE(reply.fault.has_value());
}

TEST_F(RpcTest, ScanGivesTheNumberOfItemsRead) {
  rpc_run(two_strings, {"a", "b c"});
  EXPECT_EQ(last.result, 2);
  EXPECT_EQ(last.first, "a");
  EXPECT_EQ(last.second, "b c");
  rpc_run(one_text, {"x"});
  EXPECT_EQ(last.result, 1);
  EXPECT_EQ(last.first, "x");
}

TEST_F(RpcTest, AScanThatEndsEarlyGivesTheNegatedNumberRead) {
  for (const rpc_transport transport : {rpc_transport::ctl, rpc_transport::jsonrpcs}) {
    set_rpc_transport(transport);
    rpc_run(two_strings, {"a"});
    EXPECT_EQ(last.result, -1);
    EXPECT_EQ(last.first, "a");
    rpc_run(two_strings, {});
    EXPECT_EQ(last.result, 0);
  }
}

TEST_F(RpcTest, AMissingItemLeavesWarningTextOverCtlAndNothingOverJson) {
  rpc_run(one_text, {});
  EXPECT_NE(last.first, "(null)");
  set_rpc_transport(rpc_transport::jsonrpcs);
  rpc_run(one_text, {});
  EXPECT_EQ(last.first, "(null)");
}

TEST_F(RpcTest, OverCtlAFailedScanWithoutAReplyBecomesAFault) {
  EXPECT_EQ(rpc_run(one_text, {}).fault->code, 400);
  set_rpc_transport(rpc_transport::jsonrpcs);
  EXPECT_FALSE(rpc_run(one_text, {}).fault.has_value());
}

TEST_F(RpcTest, ANumberIsATextOnlyBehindADot) {
  rpc_run(one_text, {5});
  EXPECT_EQ(last.result, 0);
  rpc_run(converted, {5});
  EXPECT_EQ(last.result, 1);
  EXPECT_EQ(last.first, "5");
}

TEST_F(RpcTest, OfSeveralFaultsTheFirstCountsOverCtlAndTheLastOverJson) {
  rpc_reply reply = rpc_run(two_faults);
  ASSERT_EQ(reply.faults.size(), 2u);
  EXPECT_EQ(reply.faults[0].text, "first 1");
  EXPECT_EQ(reply.fault->code, 500);
  set_rpc_transport(rpc_transport::jsonrpcs);
  EXPECT_EQ(rpc_run(two_faults).fault->code, 404);
}

TEST_F(RpcTest, ContainersKeepTheirFormatAndTheTextsAdded) {
  const rpc_reply reply = rpc_run(containers);
  ASSERT_EQ(reply.containers.size(), 1u);
  EXPECT_EQ(reply.containers[0].format, "[");
  EXPECT_EQ(reply.containers[0].texts, (std::vector<std::string>{"one", "two", "3"}));
}

TEST_F(RpcTest, OnlyAHostWithTheNinthOperationKnowsTheParenthesis) {
  set_host_kind(host_kind::ninth_operation);
  EXPECT_EQ(rpc_run(parenthesis).containers.size(), 1u);
  EXPECT_EQ(last.result, 0);
  for (const host_kind kind : {host_kind::exported_explode, host_kind::without_explode}) {
    set_host_kind(kind);
    const rpc_reply reply = rpc_run(parenthesis);
    EXPECT_LT(last.result, 0);
    EXPECT_EQ(last.first, "not opened");
    ASSERT_TRUE(reply.fault.has_value());
    EXPECT_EQ(reply.fault->code, 500);
  }
  set_rpc_transport(rpc_transport::jsonrpcs);
  EXPECT_FALSE(rpc_run(parenthesis).fault.has_value());
  EXPECT_LT(last.result, 0);
}

TEST_F(RpcTest, EachOperationFailsAtTheChosenCall) {
  fail_call("rpc.rpl_printf", 2);
  EXPECT_EQ(rpc_run(lines).lines, std::vector<std::string>{"a=1"});
  EXPECT_LT(last.result, 0);
  fail_call("rpc.scan", 1);
  rpc_run(one_text, {"x"});
  EXPECT_EQ(last.result, 0);
  fail_call("rpc.add", 1);
  EXPECT_TRUE(rpc_run(containers).containers.empty());
  EXPECT_LT(last.result, 0);
  fail_call("rpc.array_add", 2);
  EXPECT_EQ(rpc_run(containers).containers[0].texts, std::vector<std::string>{"one"});
  EXPECT_EQ(calls("rpc.add"), 2);
}

TEST_F(RpcTest, AScanCanBeMadeToReadAnItemWithoutAText) {
  fail_call("rpc.scan.text", 1);
  rpc_run(one_text, {"x"});
  EXPECT_EQ(last.result, 1);
  EXPECT_EQ(last.first, "(null)");
  fail_call("rpc.scan.text", 2);
  rpc_run(two_strings, {"x", "y"});
  EXPECT_EQ(last.result, 2);
  EXPECT_EQ(last.first, "x");
  EXPECT_EQ(last.second, "");
}

TEST_F(RpcTest, AnAddCanBeMadeToSucceedWithoutAContainer) {
  set_host_kind(host_kind::ninth_operation);
  fail_call("rpc.add.container", 1);
  const rpc_reply reply = rpc_run(parenthesis);
  EXPECT_EQ(last.result, 0);
  EXPECT_EQ(last.first, "not opened");
  EXPECT_TRUE(reply.containers.empty());
  EXPECT_TRUE(reply.faults.empty());
}

TEST_F(RpcTest, AddingToSomethingElseThanAContainerIsAMisuse) {
  rpc_run([](rpc_t *rpc, void *) {
    int loose = 0;
    last.result = rpc->array_add(&loose, "s", "x");
  });
  EXPECT_LT(last.result, 0);
  EXPECT_EQ(misuses().size(), 1u);
}

TEST_F(RpcTest, RegistrationFailsAtTheChosenCallAndKeepsNothing) {
  fail_call("rpc_register_array", 1);
  EXPECT_NE(rpc_register_array(table), 0);
  EXPECT_TRUE(rpc_tables().empty());
}

}  // namespace
}  // namespace standin
