// The string hash and how keys go to buckets.
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

using HashTest = EngineTest;

uint32_t only_text_length(const char *key) { return static_cast<uint32_t>(strlen(key)); }

TEST_F(HashTest, KnownTextsHaveKnownValuesAndBuckets) {
  EXPECT_EQ(memdb_hash1(""), 0x9D1C81C5u);
  EXPECT_EQ(memdb_hash1("") % 512, 453u);
  EXPECT_EQ(memdb_hash1("a"), 0xC879E66Bu);
  EXPECT_EQ(memdb_hash1("a") % 512, 107u);
  EXPECT_EQ(memdb_hash1("abc"), 0x8F4F61D3u);
  EXPECT_EQ(memdb_hash1("abc") % 512, 467u);
}

TEST_F(HashTest, BytesFrom0x80OnCountAsNegative) {
  EXPECT_EQ(memdb_hash1("\xFF"), 0xC879E609u);
  EXPECT_EQ(memdb_hash1("\xFF") % 512, 9u);
  EXPECT_EQ(memdb_hash1("\x80"), memdb_hash1("\x01") - 129);
}

TEST_F(HashTest, EveryByteIsMultipliedIn130Steps) {
  uint32_t expected = 2635891141u;
  std::string text;
  for (int c = 1; c < 256; c++) {
    text += static_cast<char>(c);
    expected = expected * 130 + static_cast<uint32_t>(c < 128 ? c : c - 256);
  }
  EXPECT_EQ(memdb_hash1(text.c_str()), expected);
}

TEST_F(HashTest, ARowGoesToTheBucketOfItsText) {
  memdb_tbl *const table = make({{7, INDEXED}});
  memdb_row *const empty = insert(table, {""});
  memdb_row *const a = insert(table, {"a"});
  memdb_row *const abc = insert(table, {"abc"});
  memdb_row *const high = insert(table, {"\xFF"});
  EXPECT_EQ(table->cols[0].idx[453], empty);
  EXPECT_EQ(table->cols[0].idx[107], a);
  EXPECT_EQ(table->cols[0].idx[467], abc);
  EXPECT_EQ(table->cols[0].idx[9], high);
}

TEST_F(HashTest, TheHookChoosesTheBucketModuloTheIndexLength) {
  memdb_hash_str = only_text_length;
  memdb_idx_len = 4;
  memdb_tbl *const table = make({{7, INDEXED}});
  memdb_row *const three = insert(table, {"xyz"});
  memdb_row *const seven = insert(table, {"1234567"});
  EXPECT_EQ(chain(table->cols[0], 3), (std::vector<memdb_row *>{seven, three}));
  EXPECT_EQ(found(table, {"xyz"}), texts{"xyz"});
  memdb_delete_row(table, three);
  EXPECT_EQ(chain(table->cols[0], 3), std::vector<memdb_row *>{seven});
}

TEST_F(HashTest, TheHookIsReadAtEveryUse) {
  memdb_hash_str = only_text_length;
  memdb_tbl *const table = make({{7, INDEXED}});
  memdb_row *const row = insert(table, {"ab"});
  memdb_hash_str = memdb_hash1;
  EXPECT_EQ(found(table, {"ab"}), texts{});
  memdb_hash_str = only_text_length;
  EXPECT_EQ(found(table, {"ab"}), texts{"ab"});
  EXPECT_EQ(table->cols[0].idx[2], row);
}

TEST_F(HashTest, IndexingHashesTheTruncatedText) {
  memdb_tbl *const table = make({{1, INDEXED}});
  memdb_row *const row = insert(table, {"abc"});
  EXPECT_EQ(table->cols[0].idx[107], row);
  EXPECT_EQ(found(table, {"a"}), texts{"a"});
  EXPECT_EQ(found(table, {"abc"}), texts{});
}

}  // namespace
}  // namespace engine_test
