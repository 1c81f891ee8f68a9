#include "tests/standin/host.h"

#include <gtest/gtest.h>

#include "tests/standin/pv.h"
#include "tests/standin/standin.h"

namespace standin {
namespace {

using pv_register_api_function = int (*)(pv_api_t *);

class HostTest : public testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static int fill(pv_api_t *api) {
    const cmd_function found = find_export("pv_register_api", -1, 0);
    return reinterpret_cast<pv_register_api_function>(reinterpret_cast<void (*)()>(found))(api);
  }
};

TEST_F(HostTest, TheNinthPlaceIsFilledOnlyOnThatKindOfHost) {
  set_host_kind(host_kind::ninth_operation);
  pv_api_t api{};
  EXPECT_EQ(fill(&api), 1);
  EXPECT_EQ(api.explode_params, explode_ninth);
  set_host_kind(host_kind::exported_explode);
  api.explode_params = nullptr;
  fill(&api);
  EXPECT_EQ(api.explode_params, nullptr);
  EXPECT_NE(api.unused[7], nullptr);
}

TEST_F(HostTest, AShorterRecordLeavesTheNinthPlaceAsItWas) {
  pv_api_t api{};
  api.explode_params = explode_ninth;
  fill(&api);
  EXPECT_EQ(api.explode_params, explode_ninth);
}

TEST_F(HostTest, TheExportedFunctionIsFoundUnlessTheHostHasNone) {
  EXPECT_NE(find_export("xavp_params_explode", 2, 0), nullptr);
  EXPECT_EQ(find_export("xavp_params_explode", 1, 0), nullptr);
  set_host_kind(host_kind::ninth_operation);
  EXPECT_NE(find_export("xavp_params_explode", 2, 0), nullptr);
  set_host_kind(host_kind::without_explode);
  EXPECT_EQ(find_export("xavp_params_explode", 2, 0), nullptr);
  EXPECT_NE(find_export("pv_register_api", -1, 0), nullptr);
}

TEST_F(HostTest, WithoutThePvModuleNothingOfItIsFound) {
  set_pv_module_loaded(false);
  EXPECT_EQ(find_export("pv_register_api", -1, 0), nullptr);
  EXPECT_EQ(find_export("xavp_params_explode", 2, 0), nullptr);
}

TEST_F(HostTest, FindingNeedsTheRightNumberOfParameters) {
  EXPECT_EQ(find_export("pv_register_api", 0, 0), nullptr);
  EXPECT_EQ(find_export("other", -1, 0), nullptr);
  fail_call("find_export", 1);
  EXPECT_EQ(find_export("pv_register_api", -1, 0), nullptr);
}

TEST_F(HostTest, TimersAreKeptAndRunOnRequest) {
  static unsigned int seen;
  seen = 0;
  int param = 0;
  EXPECT_GE(register_timer(
                [](unsigned int ticks, void *p) {
                  seen += ticks;
                  ++*static_cast<int *>(p);
                },
                &param, 15),
            0);
  ASSERT_EQ(timers().size(), 1u);
  EXPECT_EQ(timers()[0].interval, 15u);
  EXPECT_EQ(timers()[0].param, &param);
  tick(3);
  tick();
  EXPECT_EQ(seen, 4u);
  EXPECT_EQ(param, 2);
  fail_call("register_timer", 1);
  EXPECT_LT(register_timer(nullptr, nullptr, 1), 0);
  EXPECT_EQ(timers().size(), 1u);
}

}  // namespace
}  // namespace standin
