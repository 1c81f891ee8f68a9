// tarn_memdb_insert.
#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;

const table USERS = {"users", {{"name", 31, true}, {"age"}, {"city"}}};

class InsertTest : public ModuleTest {};

TEST_F(InsertTest, AddsARowAndGivesOne) {
  start({USERS});
  EXPECT_EQ(run("tarn_memdb_insert", {"users,alice|30|rome"}), 1);
  expect_rows("users", {{"alice", "30", "rome"}});
  EXPECT_THAT(stored("users"), ElementsAre("alice|30|rome"));
}

}  // namespace
}  // namespace module_test
