// Tests of what the module offers to the host's other script languages.
#pragma once

#include "tests/module/all_in_one_table.h"
#include "tests/module/kept_blocks.h"
#include "tests/module/shared_view.h"
#include "tests/standin/kemi.h"

namespace module_test {

using standin::kemi_result;
using standin::kemi_value;
using standin::no_text;
using values = std::vector<kemi_value>;

class KemiTest : public SharedViewTest {
 protected:
  void SetUp() override {
    standin::forget_kemi();
    SharedViewTest::SetUp();
  }

  // Calls the function, which has to leave no block of private memory behind but what is kept.
  kemi_result kemi_full(const std::string &function, const values &given) {
    const sr_kemi_t *const found = standin::kemi_find(function);
    if (found == nullptr) throw std::logic_error("no function " + function);
    const uint64_t before = standin::last_serial();
    kemi_result result = standin::kemi_call(*found, given, &msg);
    for (const standin::block_info &block : standin::live_blocks(pool::pkg, "tarn_memdb"))
      if (block.serial > before) {
        EXPECT_TRUE(is_kept_for_languages(block))
            << block.func << " leaves a block in " << function;
      }
    EXPECT_EQ(standin::open_streams(), 0) << "left by " << function;
    return result;
  }

  int kemi(const std::string &function, const values &given) {
    const kemi_result result = kemi_full(function, given);
    EXPECT_EQ(result.kind, SR_KEMIP_INT) << function;
    return result.number;
  }

  // A text, or "<null>".
  std::string kemi_text(const std::string &function, const values &given) {
    const kemi_result result = kemi_full(function, given);
    if (result.kind == SR_KEMIP_NULL) return "<null>";
    EXPECT_EQ(result.kind, SR_KEMIP_STR) << function;
    return result.text;
  }
};

}  // namespace module_test
