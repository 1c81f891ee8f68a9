// Directories and look-ups where the embedder is against the blocks that they take.
#include "tests/unit/memdb/prefix_fixture.h"

namespace engine_test {
namespace {

using testing::ElementsAre;

size_t most;  // bytes that a block may have
int asked;

bool may_take_small(size_t size) {
  asked++;
  return size <= most;
}

class ExtraBlocksTest : public PrefixTest {
 protected:
  ExtraBlocksTest() {
    memdb_may_take = may_take_small;
    memdb_directories = {.plain_rows = 0, .plain_chain = 4, .slots_in_one = 64};
    most = 0;
    asked = 0;
  }
  ~ExtraBlocksTest() override { memdb_may_take = nullptr; }

  // Keys of a common ending, which share a bucket, and prefixes of their own.
  void insert_rows(memdb_tbl *table, int from, int to) {
    const int before = seen_.allocations;
    for (int i = from; i < to; i++) insert(table, {key(i).c_str(), std::to_string(i).c_str()});
    extra_ = seen_.allocations - before - (to - from);
  }

  static void expect_rows(memdb_tbl *table, int count) {
    for (int i = 0; i < count; i++)
      EXPECT_THAT(found(table, {key(i).c_str(), ANY}),
                  ElementsAre(key(i) + "|" + std::to_string(i)));
  }

  static std::string key(int i) { return std::to_string(i) + "@sip.example.org"; }

  int extra_ = 0;  // allocations beside one per row
};

TEST_F(ExtraBlocksTest, NeitherDirectoryNorLookUpIsMadeAgainstItsWord) {
  memdb_tbl *const table = make({{31, INDEXED}, {7, PLAIN}});
  memdb_want_prefixes(table, 1, 0);
  insert_rows(table, 0, 100);
  EXPECT_GT(asked, 0);
  EXPECT_EQ(extra_, 0);
  expect_rows(table, 100);
}

TEST_F(ExtraBlocksTest, ADirectoryThatMayNotGrowBecomesAChain) {
  most = 1000;
  memdb_tbl *const table = make({{31, INDEXED}, {7, PLAIN}});
  insert_rows(table, 0, 20);
  EXPECT_EQ(extra_, 1);
  memdb_row *const *const bucket = &table->cols[0].idx[memdb_hash1("@sip.example.org") % 512];
  EXPECT_FALSE(memdb_bucket_kind(*bucket).is_chain());
  most = 0;
  insert_rows(table, 20, 100);
  EXPECT_EQ(extra_, 0);
  EXPECT_TRUE(memdb_bucket_kind(*bucket).is_chain());
  expect_rows(table, 100);
}

TEST_F(ExtraBlocksTest, ALookUpThatMayNotGrowIsGivenUp) {
  most = 8000;
  memdb_tbl *const table = make({{31, PLAIN}, {7, PLAIN}});
  memdb_want_prefixes(table, 1, 0);
  insert_rows(table, 0, 100);
  EXPECT_GT(extra_, 0);
  EXPECT_THAT(answer(table, 1, "77", {ANY, ANY}), ElementsAre(key(77) + "|77"));
  most = 0;
  insert_rows(table, 100, 500);
  EXPECT_EQ(extra_, 0);
  EXPECT_FALSE(look_up(table, 1, "77", {ANY, ANY}));
}

}  // namespace
}  // namespace engine_test
