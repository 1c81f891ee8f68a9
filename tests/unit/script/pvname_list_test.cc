// AVP name lists, as other callers than the fix-ups may give them.
#include "script/params/pvname_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/imports.h"
#include "host/log.h"
#include "host/memory.h"
#include "tests/standin/standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PvnameListTest : public testing::Test {
 protected:
  void SetUp() override { standin::reset(); }
  void TearDown() override {
    EXPECT_THAT(standin::leak_report(standin::pool::both), IsEmpty());
    EXPECT_THAT(standin::misuses(), IsEmpty());
    standin::reset();
  }

  // The types of the list's specs, 0 for an empty place; nothing for a list that is refused.
  static std::vector<int> types(std::string text, int type) {
    standin::clear_logs();
    const host_log_scope log;
    str source{text.data(), static_cast<int>(text.size())};
    std::vector<int> out;
    for (pvname_list_t *at = parse_tarn_pvname_list(&source, type); at != nullptr;) {
      out.push_back(at->sname.type);
      pvname_list_t *const next = at->next;
      pkg_free(at);
      at = next;
    }
    return out;
  }
};

TEST_F(PvnameListTest, WithoutATextThereIsNoList) {
  str nothing{nullptr, 5};
  for (str *const text : {static_cast<str *>(nullptr), &nothing}) {
    standin::clear_logs();
    const host_log_scope log;
    EXPECT_EQ(parse_tarn_pvname_list(text, PVT_AVP), nullptr);
    EXPECT_THAT(standin::log_texts(L_ERR), ElementsAre("Bad parameters\n"));
    EXPECT_EQ(standin::logs().size(), 1u);
  }
  EXPECT_EQ(standin::calls("pv_parse_spec2"), 0);
}

TEST_F(PvnameListTest, OfAnyTypeEveryVariableIsTaken) {
  EXPECT_THAT(types("$var(a)||$avp(b)|$ru", PVT_ANY), ElementsAre(PVT_SCRIPTVAR, 0, PVT_AVP, 6));
  EXPECT_THAT(standin::logs(), IsEmpty());
  EXPECT_THAT(types("$var(a)|b", PVT_ANY), IsEmpty());
  EXPECT_THAT(standin::log_texts(L_ERR), ElementsAre("Wrong item name list [$var(a)|b]!\n"));
}

TEST_F(PvnameListTest, OfOneTypeNoOtherIsTaken) {
  EXPECT_THAT(types("$var(a)|$var(b)", PVT_SCRIPTVAR), ElementsAre(PVT_SCRIPTVAR, PVT_SCRIPTVAR));
  EXPECT_THAT(types("$var(a)|$avp(b)", PVT_SCRIPTVAR), IsEmpty());
  EXPECT_THAT(standin::log_texts(L_ERR), ElementsAre("Wrong item name list [$var(a)|$avp(b)]!\n"));
}

TEST_F(PvnameListTest, AZeroByteEndsTheList) {
  EXPECT_THAT(types(std::string("$avp(a)|$avp(b)\0|$avp(c)", 24), PVT_AVP),
              ElementsAre(PVT_AVP, PVT_AVP));
}

}  // namespace
