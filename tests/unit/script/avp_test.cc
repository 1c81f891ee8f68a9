// AVPs as targets: slots that name none.
#include "script/params/avp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/special_slot.h"
#include "tests/standin/standin.h"

namespace {

class AvpTest : public testing::Test {
 protected:
  void SetUp() override { standin::reset(); }
  void TearDown() override { standin::reset(); }

  // The text isn't added anywhere, which is told, and the host isn't asked.
  bool is_refused(const char *slot) {
    const host_log_scope log;
    standin::clear_logs();
    return !add_text_to_param(&msg_, slot, "7") &&
           standin::log_texts() == std::vector<std::string>{"Could not get avp name\n"} &&
           standin::calls("pv_get_avp_name") == 0 && standin::avp_count() == 0;
  }

  sip_msg msg_;
};

TEST_F(AvpTest, AFormatWithoutAVariableNamesNone) {
  standin::parameter_slot slot("text");
  str text{slot.get(), 4};
  pv_elem_t *format = nullptr;
  ASSERT_EQ(pv_parse_format(&text, &format), 0);
  EXPECT_TRUE(is_refused(reinterpret_cast<const char *>(format)));
}

TEST_F(AvpTest, ATextThatWasKeptForAFormatNamesNone) {
  // Kept texts are remembered for the life of the process, so this takes one of its own. Taken for
  // a format, the text would have the variable's address read from behind its end.
  static const char text[] = "$nothing";
  const auto in_a_process = [this] {
    if (!remember_raw_text(text)) exit(2);
    exit(is_refused(text) ? 0 : 1);
  };
  EXPECT_EXIT(in_a_process(), testing::ExitedWithCode(0), "");
}

}  // namespace
