// Directories give what plain chains would give, in whatever is done to a table.
#include "tests/unit/memdb/engine_differential.h"
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

using DirectoryModelTest = EngineTest;

TEST_F(DirectoryModelTest, RandomOperationsGiveWhatPlainChainsWouldGive) {
  engine_differential::sums = {};
  for (uint32_t seed = 0; seed < 2000; seed++)
    ASSERT_EQ(engine_differential(seed).run(400), "") << "seed " << seed;
  const differential_sums &met = engine_differential::sums;
  EXPECT_GT(met.directories, 1000u);
  EXPECT_GT(met.parts, 100u);
  EXPECT_GT(met.dissolved, 100u);
  EXPECT_GT(met.missing, 100u);
  EXPECT_GT(met.hidden, 100u);
  EXPECT_GT(met.refused, 100u);
}

TEST_F(DirectoryModelTest, EachFaultOfTheModelIsNoticed) {
  for (const planted_fault fault :
       {planted_fault::equal_texts_oldest_first, planted_fault::overwritten_rows_move,
        planted_fault::nothing_is_hidden, planted_fault::other_texts_are_passed,
        planted_fault::no_entry_is_missing}) {
    plain_chains::fault = fault;
    bool noticed = false;
    for (uint32_t seed = 0; seed < 200 && !noticed; seed++)
      noticed = !engine_differential(seed).run(400).empty();
    plain_chains::fault = planted_fault::none;
    EXPECT_TRUE(noticed) << static_cast<int>(fault);
  }
}

}  // namespace
}  // namespace engine_test
