// XAVPs and reply containers on the three kinds of host.
#include "host/pv_module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/standin/standin.h"

namespace {

using standin::host_kind;
using standin::xavp_items;
using testing::ElementsAre;
using testing::IsEmpty;

class PvModuleTest : public testing::Test {
 protected:
  void SetUp() override {
    standin::reset();
    pv_api = {};
  }
  void TearDown() override {
    EXPECT_THAT(standin::misuses(), IsEmpty());
    EXPECT_EQ(standin::leak_report(standin::pool::both), "");
    EXPECT_THAT(standin::memory_errors(), IsEmpty());
    standin::reset();
  }

  static bool import(host_kind kind) {
    standin::set_host_kind(kind);
    return host_import_pv();
  }

  // Both texts without a terminator, as a caller's slices are.
  int explode(const std::string &params, const std::string &name) {
    std::vector<char> first(params.begin(), params.end());
    std::vector<char> second(name.begin(), name.end());
    return host_explode_xavp(&msg, {first.data(), static_cast<int>(first.size())},
                             {second.data(), static_cast<int>(second.size())});
  }

  sip_msg msg;
};

TEST_F(PvModuleTest, NinthOperationIsUsedWhereTheHostHasOne) {
  ASSERT_TRUE(import(host_kind::ninth_operation));
  EXPECT_NE(pv_api.explode_params, nullptr);
  EXPECT_GE(explode("a='1';b='two'", "row"), 0);
  ASSERT_EQ(standin::explode_calls().size(), 1u);
  EXPECT_TRUE(standin::explode_calls()[0].ninth_operation);
  EXPECT_EQ(standin::explode_calls()[0].params, "a='1';b='two'");
  EXPECT_EQ(standin::explode_calls()[0].xavp, "row");
  EXPECT_EQ(standin::xavp_item("row", 0, "a"), standin::value("1"));
  EXPECT_EQ(standin::xavp_item("row", 0, "b"), standin::value("two"));
}

TEST_F(PvModuleTest, ScriptFunctionIsUsedWhereTheNinthPlaceStaysEmpty) {
  ASSERT_TRUE(import(host_kind::exported_explode));
  EXPECT_EQ(pv_api.explode_params, nullptr);
  EXPECT_GE(explode("a='1';b='two'", "row"), 0);
  ASSERT_EQ(standin::explode_calls().size(), 1u);
  EXPECT_FALSE(standin::explode_calls()[0].ninth_operation);
  EXPECT_EQ(standin::explode_calls()[0].params, "a='1';b='two'");
  EXPECT_EQ(standin::explode_calls()[0].xavp, "row");
  EXPECT_EQ(standin::xavp_item("row", 0, "b"), standin::value("two"));
}

TEST_F(PvModuleTest, HostWithNeitherFailsCleanly) {
  ASSERT_TRUE(import(host_kind::without_explode));
  EXPECT_LT(explode("a='1'", "row"), 0);
  EXPECT_THAT(standin::explode_calls(), IsEmpty());
  EXPECT_THAT(standin::xavps("row"), IsEmpty());
}

TEST_F(PvModuleTest, EveryCallMakesOneXavpAndTheLastStandsFirst) {
  for (const host_kind kind : {host_kind::ninth_operation, host_kind::exported_explode}) {
    standin::reset();
    ASSERT_TRUE(import(kind));
    EXPECT_GE(explode("a='1'", "row"), 0);
    EXPECT_GE(explode("a='2'", "row"), 0);
    EXPECT_GE(explode("a='3'", "other"), 0);
    EXPECT_EQ(standin::xavps("row").size(), 2u);
    EXPECT_EQ(standin::xavp_item("row", 0, "a"), standin::value("2"));
    EXPECT_EQ(standin::xavp_item("row", 1, "a"), standin::value("1"));
    EXPECT_EQ(standin::xavps("other").size(), 1u);
  }
}

TEST_F(PvModuleTest, FailureOfTheHostIsNegativeOnBothRoads) {
  for (const host_kind kind : {host_kind::ninth_operation, host_kind::exported_explode}) {
    standin::reset();
    ASSERT_TRUE(import(kind));
    standin::fail_call("explode_params", 1);
    EXPECT_LT(explode("a='1'", "row"), 0);
    EXPECT_LT(explode("a='open", "row"), 0);
    EXPECT_LT(explode("", "row"), 0);
    EXPECT_LT(explode("a='1'", ""), 0);
    EXPECT_THAT(standin::xavps("row"), IsEmpty());
    EXPECT_GE(explode("a='1'", "row"), 0);
    EXPECT_EQ(standin::xavps("row").size(), 1u);
  }
}

TEST_F(PvModuleTest, LongRowsGoThroughOnBothRoads) {
  const std::string longest(20000, 'v');
  for (const host_kind kind : {host_kind::ninth_operation, host_kind::exported_explode}) {
    standin::reset();
    ASSERT_TRUE(import(kind));
    EXPECT_GE(explode("a='" + longest + "'", "row"), 0);
    EXPECT_EQ(standin::xavp_item("row", 0, "a"), standin::value(longest));
  }
}

TEST_F(PvModuleTest, WithoutThePvModuleTheImportFails) {
  standin::set_pv_module_loaded(false);
  EXPECT_FALSE(host_import_pv());
  standin::set_pv_module_loaded(true);
  standin::fail_call("find_export", 1);
  EXPECT_FALSE(host_import_pv());
}

TEST_F(PvModuleTest, RegistrationThatFillsNothingLeavesTheScriptFunction) {
  standin::fail_call("pv_register_api", 1);
  ASSERT_TRUE(import(host_kind::exported_explode));
  EXPECT_GE(explode("a='1'", "row"), 0);
  EXPECT_EQ(standin::xavps("row").size(), 1u);
}

TEST_F(PvModuleTest, ScriptFunctionThatIsNotFoundLeavesNoRoad) {
  standin::fail_call("find_export", 2);
  ASSERT_TRUE(import(host_kind::exported_explode));
  EXPECT_LT(explode("a='1'", "row"), 0);
}

TEST_F(PvModuleTest, ImportForgetsTheHostBefore) {
  ASSERT_TRUE(import(host_kind::ninth_operation));
  ASSERT_TRUE(import(host_kind::without_explode));
  EXPECT_EQ(pv_api.explode_params, nullptr);
  EXPECT_LT(explode("a='1'", "row"), 0);
  ASSERT_TRUE(import(host_kind::exported_explode));
  EXPECT_GE(explode("a='1'", "row"), 0);
  ASSERT_TRUE(import(host_kind::without_explode));
  EXPECT_LT(explode("a='1'", "row"), 0);
  ASSERT_TRUE(import(host_kind::ninth_operation));
  EXPECT_GE(explode("a='1'", "row"), 0);
}

TEST_F(PvModuleTest, RoadIsLookedForAtTheImportAloneAndOnlyWhereItIsNeeded) {
  ASSERT_TRUE(import(host_kind::ninth_operation));
  EXPECT_EQ(standin::calls("find_export"), 1);
  standin::reset_calls();
  ASSERT_TRUE(import(host_kind::exported_explode));
  EXPECT_EQ(standin::calls("find_export"), 2);
  explode("a='1'", "row");
  explode("a='1'", "row");
  EXPECT_EQ(standin::calls("find_export"), 2);
}

TEST_F(PvModuleTest, ReplyContainerFollowsTheNinthOperation) {
  ASSERT_TRUE(import(host_kind::ninth_operation));
  EXPECT_STREQ(host_rpc_container(), "(");
  ASSERT_TRUE(import(host_kind::exported_explode));
  EXPECT_STREQ(host_rpc_container(), "[");
  ASSERT_TRUE(import(host_kind::without_explode));
  EXPECT_STREQ(host_rpc_container(), "[");
}

}  // namespace
