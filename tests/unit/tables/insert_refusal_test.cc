// What is logged about a row that isn't let in.
#include "tables/rows/row_admission.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "host/log.h"
#include "script/writes/write_texts.h"
#include "tests/standin/standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class InsertRefusalTest : public testing::Test {
 protected:
  void SetUp() override {
    standin::reset();
    strcpy(table_.table_name, "users");
    table_.max_rows = 7;
  }
  void TearDown() override { standin::reset(); }

  // What is logged, and that all of it has the given level.
  std::vector<std::string> told(admission outcome, int full_level, int level) const {
    standin::clear_logs();
    const host_log_scope log;
    log_refusal(outcome, &table_, INSERT_REFUSED, full_level);
    EXPECT_EQ(standin::log_count(level), standin::logs().size());
    return standin::log_texts();
  }

  tarn_tbl table_{};
};

TEST_F(InsertRefusalTest, AFullTableIsToldAtTheCallersLevel) {
  for (const int level : {L_ERR, L_WARN}) {
    EXPECT_THAT(told(admission::full, level, level),
                ElementsAre("MAX number of rows allowed (7) for table 'users' reached. Data will "
                            "not be inserted!\n"));
  }
}

TEST_F(InsertRefusalTest, TheOtherReasonsHaveLevelsOfTheirOwn) {
  for (const int level : {L_ERR, L_WARN}) {
    EXPECT_THAT(told(admission::duplicate, level, L_WARN),
                ElementsAre("Duplicated data will not be inserted into table 'users'!\n"));
    EXPECT_THAT(told(admission::no_index, level, L_ERR),
                ElementsAre("Insertion of index failed!\n"));
    EXPECT_THAT(told(admission::not_inserted, level, L_ERR),
                ElementsAre("Could not insert at table 'users'!\n"));
  }
}

TEST_F(InsertRefusalTest, ARowThatWasAddedIsNoRefusal) {
  EXPECT_THAT(told(admission::added, L_ERR, L_ERR), IsEmpty());
}

}  // namespace
