// When buckets have directories, and how much memory these take.
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

bool memory_is_short;

class DirectoryTest : public EngineTest {
 protected:
  DirectoryTest() {
    memory_is_short = false;
    memdb_may_take = [](size_t) { return !memory_is_short; };
    table_ = make({{31, INDEXED}});
    for (const auto &[block, size] : seen_.live) of_empty_ += size;
  }
  ~DirectoryTest() override { memdb_may_take = nullptr; }

  static std::string key(int i, const char *ending) { return std::to_string(i) + ending; }

  void insert_keys(int from, int to, const char *ending) {
    for (int i = from; i < to; i++) insert(table_, {key(i, ending).c_str()});
  }

  memdb_bucket_kind bucket_of(const char *ending) const {
    const memdb_col &col = table_->cols[0];
    return memdb_bucket_kind(col.idx[memdb_hash1(ending) % col.idx_len]);
  }

  // Bytes in blocks that aren't rows.
  size_t of_index() const {
    size_t all = 0;
    for (const auto &[block, size] : seen_.live) all += size;
    return all - of_empty_ - table_->row_cnt * (sizeof(memdb_row) + table_->row_len);
  }

  memdb_tbl *table_ = nullptr;
  size_t of_empty_ = 0;
};

constexpr char ENDING[] = "@sip.example.org";
constexpr char OTHER_ENDING[] = "@sip.example.net";

TEST_F(DirectoryTest, AChainWithAnOverwrittenTextKeepsNoOtherFromBecomingADirectory) {
  insert_keys(0, 3000, ENDING);
  memdb_set_field(table_, table_->first, 0, "0");
  EXPECT_TRUE(bucket_of(ENDING).is_chain());
  insert_keys(3000, 3001, ENDING);
  EXPECT_TRUE(bucket_of(ENDING).is_chain());
  insert_keys(0, 60, OTHER_ENDING);
  EXPECT_FALSE(bucket_of(OTHER_ENDING).is_chain());
}

TEST_F(DirectoryTest, AChainThatHadNoMemoryForADirectoryHasItSoonWhenThereIsMemoryAgain) {
  memory_is_short = true;
  insert_keys(0, 2000, ENDING);
  EXPECT_TRUE(bucket_of(ENDING).is_chain());
  memory_is_short = false;
  insert_keys(2000, 2060, ENDING);
  EXPECT_FALSE(bucket_of(ENDING).is_chain());
}

TEST_F(DirectoryTest, ATextWhoseSlotIsMarkedGoesInThoughNoSlotIsFreeAndMemoryIsShort) {
  memdb_directories.plain_rows = 10;
  insert_keys(0, 20, ENDING);
  ASSERT_NE(bucket_of(ENDING).table(), nullptr);
  memory_is_short = true;
  for (int i = 20; !memdb_slots_full(bucket_of(ENDING).table()); i++) insert_keys(i, i + 1, ENDING);
  size_t marked = 0;
  for (int i = static_cast<int>(table_->row_cnt); i > 0; i--) {
    const std::string text = memdb_get_field(table_, table_->last, 0);
    memdb_delete_row(table_, table_->last);
    marked += memdb_slots_full(bucket_of(ENDING).table()) ? 1 : 0;
    insert(table_, {text.c_str()});
    ASSERT_FALSE(bucket_of(ENDING).is_chain()) << text;
  }
  EXPECT_GT(marked, 0U);
}

TEST_F(DirectoryTest, TakesFewBytesARowHoweverTheTableGrowsAndShrinks) {
  constexpr uint32_t ROWS = 60000;
  const auto step = [this] { return 1 + table_->row_cnt / 32; };
  for (const char *const ending : {ENDING, ""}) {
    while (table_->row_cnt < ROWS) {
      const auto from = static_cast<int>(table_->row_cnt);
      insert_keys(from, from + static_cast<int>(step()), ending);
      ASSERT_LE(of_index(), 400 + 24 * size_t{table_->row_cnt}) << table_->row_cnt;
    }
    // Each bucket's directory has 32 slots to the last.
    while (table_->row_cnt > 0) {
      for (uint32_t count = step(); count > 0; count--) memdb_delete_row(table_, table_->last);
      ASSERT_LE(of_index(), 512 * 280 + 36 * size_t{table_->row_cnt}) << table_->row_cnt;
    }
    EXPECT_EQ(of_index(), 0U);
  }
}

}  // namespace
}  // namespace engine_test
