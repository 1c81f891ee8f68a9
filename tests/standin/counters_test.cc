#include "tests/standin/counters.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/standin/standin.h"

namespace standin {
namespace {

TEST(CountersTest, CountersAreKeptByNameAndReadByTheirCallbacks) {
  reset();
  forget_counters();
  long value = 7;
  const auto add = [&](const char *group, const char *name) {
    return counter_register(
        nullptr, group, name, CNT_F_NO_RESET,
        [](counter_handle_t, void *param) { return *static_cast<long *>(param); }, &value, "doc",
        0);
  };
  EXPECT_EQ(add("g", "a"), 0);
  EXPECT_EQ(add("h", "a"), 0);
  EXPECT_EQ(add("g", "a"), COUNTER_NAME_TAKEN);
  ASSERT_EQ(counters().size(), 2u);
  EXPECT_EQ(counters()[1].group + counters()[1].name + counters()[1].doc, "hadoc");
  EXPECT_EQ(counter_value("g", "a"), 7);
  EXPECT_THROW(counter_value("g", "b"), std::out_of_range);
  fail_call("counter_register", 1);
  EXPECT_EQ(add("g", "b"), -1);
  EXPECT_EQ(counters().size(), 2u);
  forget_counters();
  EXPECT_TRUE(counters().empty());
  reset();
}

}  // namespace
}  // namespace standin
