// Every size, offset, constant and function type of the host's interface, as the module declares it
// and as the host's headers do.
#include <gtest/gtest.h>

#include <string>

#include "host/version.h"
#include "tests/abi/layout.h"

namespace {

TEST(AbiLayout, EveryNumberIsTheHosts) {
  int compared = 0;
  const layout_fact *host = host_layout;
  for (const layout_fact *own = own_layout; own->name != nullptr; ++own, ++host, ++compared) {
    ASSERT_NE(host->name, nullptr);
    ASSERT_STREQ(own->name, host->name);
    EXPECT_EQ(own->number, host->number) << own->name;
    // A type that neither side has differs all the same: each side has its own number for that.
  }
  EXPECT_EQ(host->name, nullptr);
  EXPECT_GT(compared, 200);
}

TEST(AbiLayout, BuildFlagsAreThoseOfTheLoadersComparison) {
  EXPECT_STREQ(host_build_flags, TARN_HOST_FLAGS);
}

}  // namespace
