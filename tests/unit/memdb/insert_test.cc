// Inserting rows: order, truncation, memory that runs short, rollback of a row with a null.
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

using InsertTest = EngineTest;

constexpr char MISSED[] = "Could not find the index entry to remove\n";

TEST_F(InsertTest, TheNewestRowStandsFirst) {
  memdb_tbl *const table = make({{5, PLAIN}});
  memdb_row *const a = insert(table, {"a"});
  EXPECT_EQ(table->first, a);
  EXPECT_EQ(table->last, a);
  memdb_row *const b = insert(table, {"b"});
  memdb_row *const c = insert(table, {"c"});
  EXPECT_EQ(listed(table), (texts{"c", "b", "a"}));
  EXPECT_EQ(table->first, c);
  EXPECT_EQ(table->last, a);
  EXPECT_EQ(c->next, b);
  EXPECT_EQ(a->prev, b);
}

TEST_F(InsertTest, ARowIsOneAllocationWhateverItsIndexes) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}, {5, INDEXED}, {9, PLAIN}});
  seen_.allocations = 0;
  memdb_row *const row = insert(table, {"a", "b", "c", "d"});
  EXPECT_EQ(seen_.allocations, 1);
  EXPECT_EQ(seen_.live[row], table->row_len + 16);
}

TEST_F(InsertTest, AValueAsLongAsDeclaredFitsWithoutAWord) {
  memdb_tbl *const table = make({{7, PLAIN}});
  memdb_row *const row = insert(table, {"1234567"});
  EXPECT_EQ(text(table, row, 0), "1234567");
  EXPECT_TRUE(seen_.warnings.empty());
}

TEST_F(InsertTest, ALongerValueIsCutWithAWarningThatTellsTheLength) {
  memdb_tbl *const table = make({{7, PLAIN}});
  memdb_row *const row = insert(table, {"12345678"});
  EXPECT_EQ(text(table, row, 0), "1234567");
  EXPECT_EQ(seen_.warnings,
            texts{"Value '12345678' too long. It will be truncated to fit field size (7 bytes)\n"});
  EXPECT_TRUE(seen_.errors.empty());
}

TEST_F(InsertTest, EachTooLongValueWarnsAndNeighboursStayWhole) {
  memdb_tbl *const table = make({{1, INDEXED}, {2, PLAIN}, {0, INDEXED}, {3, PLAIN}});
  memdb_row *const row = insert(table, {"abc", "defg", "h", "ijk"});
  EXPECT_EQ(image(table, row), "a|de||ijk");
  EXPECT_EQ(seen_.warnings,
            (texts{"Value 'abc' too long. It will be truncated to fit field size (1 bytes)\n",
                   "Value 'defg' too long. It will be truncated to fit field size (2 bytes)\n",
                   "Value 'h' too long. It will be truncated to fit field size (0 bytes)\n"}));
}

TEST_F(InsertTest, EmptyTextsAreValuesLikeOthers) {
  memdb_tbl *const table = make({{7, INDEXED}, {7, PLAIN}});
  insert(table, {"", ""});
  insert(table, {"a", ""});
  EXPECT_EQ(found(table, {"", ANY}), texts{"|"});
  EXPECT_EQ(found(table, {ANY, ""}), (texts{"a|", "|"}));
}

TEST_F(InsertTest, RestOfAFieldIsZero) {
  memdb_tbl *const table = make({{7, PLAIN}, {3, PLAIN}});
  memdb_row *const row = insert(table, {"ab", ""});
  EXPECT_EQ(memcmp(memdb_data(row), "ab\0\0\0\0\0\0\0\0\0\0", 12), 0);
}

TEST_F(InsertTest, WithoutMemoryTheTableIsUntouched) {
  memdb_tbl *const table = make({{5, INDEXED}});
  insert(table, {"a"});
  seen_.allocations = 0;
  seen_.fail_at = 1;
  EXPECT_EQ(insert(table, {"b"}), nullptr);
  EXPECT_EQ(seen_.errors, texts{"Fail to allocate memory to the row\n"});
  EXPECT_EQ(listed(table), texts{"a"});
  EXPECT_EQ(chained(table->cols[0]), 1u);
  EXPECT_TRUE(seen_.reports.empty());
}

// The hash is taken ahead of each link, so that its hook sees the table between two steps.
TEST_F(InsertTest, ARowIsWholeBeforeItIsOnTheListOrInAnyChain) {
  static memdb_tbl *watched;
  static texts met;
  watched = nullptr;
  met.clear();
  memdb_hash_str = [](const char *key) {
    if (watched != nullptr) {
      for (const std::string &each : listed(watched)) met.push_back(each);
      for (const memdb_col &col : memdb_cols(watched))
        for (uint32_t bucket = 0; bucket < col.idx_len; bucket++)
          for (const memdb_row *row : chain(col, bucket)) met.push_back(image(watched, row));
    }
    return memdb_hash1(key);
  };
  memdb_idx_len = 1;
  watched = make({{5, INDEXED}, {5, PLAIN}, {5, INDEXED}, {5, PLAIN}});
  insert(watched, {"a", "b", "c", "d"});
  EXPECT_EQ(met, (texts{"a|b|c|d", "a|b|c|d", "a|b|c|d"}));
  memdb_hash_str = memdb_hash1;
}

TEST_F(InsertTest, ARefusedRowIsNeverMet) {
  static int hashed;
  hashed = 0;
  memdb_hash_str = [](const char *key) {
    hashed++;
    return memdb_hash1(key);
  };
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  EXPECT_EQ(insert(table, {"a", ANY}), nullptr);
  EXPECT_EQ(hashed, 0);
  memdb_hash_str = memdb_hash1;
}

TEST_F(InsertTest, NullInTheSecondOfThreeIndexedColumnsRollsBackAndReportsTwice) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}, {5, INDEXED}});
  insert(table, {"a", "b", "c"});
  insert(table, {"", "", ""});
  EXPECT_EQ(insert(table, {"a", ANY, "c"}), nullptr);
  EXPECT_EQ(seen_.reports, (texts{MISSED, MISSED}));
  EXPECT_TRUE(seen_.errors.empty());
  EXPECT_TRUE(seen_.warnings.empty());
  EXPECT_EQ(listed(table), (texts{"||", "a|b|c"}));
  for (const memdb_col &col : memdb_cols(table)) EXPECT_EQ(chained(col), 2u);
  EXPECT_EQ(seen_.live.size(), 5u + 2u);
}

TEST_F(InsertTest, RollbackReportsEveryIndexedColumnFromTheNullOn) {
  const std::vector<size_t> expected = {3, 2, 2, 1};
  for (size_t null_col = 0; null_col < 4; null_col++) {
    memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}, {5, INDEXED}, {5, INDEXED}});
    values row = {"a", "b", "c", "d"};
    row[null_col] = nullptr;
    seen_.reports.clear();
    EXPECT_EQ(insert(table, row), nullptr);
    EXPECT_EQ(seen_.reports.size(), expected[null_col]) << "null in column " << null_col;
    EXPECT_EQ(table->first, nullptr);
    EXPECT_EQ(table->last, nullptr);
    for (const memdb_col &col : memdb_cols(table)) EXPECT_EQ(chained(col), 0u);
  }
}

TEST_F(InsertTest, RollbackWithoutAReportHookIsSilent) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  memdb_log_err = nullptr;
  EXPECT_EQ(insert(table, {ANY, "b"}), nullptr);
  EXPECT_EQ(insert(table, {"a", ANY}), nullptr);
  EXPECT_TRUE(seen_.errors.empty());
  EXPECT_EQ(listed(table), texts{});
}

TEST_F(InsertTest, ValuesBeforeANullAreStillCheckedForLength) {
  memdb_tbl *const table = make({{1, PLAIN}, {1, PLAIN}});
  EXPECT_EQ(insert(table, {"too long", ANY}), nullptr);
  EXPECT_EQ(seen_.warnings.size(), 1u);
}

TEST_F(InsertTest, ChainsAreSortedAndEqualKeysStandNewestFirst) {
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}, {2, PLAIN}});
  const values keys = {"m", "c", "", "z", "c", "m", "c", "ca", "\xC3"};
  for (size_t i = 0; i < keys.size(); i++)
    insert(table, {keys[i], std::string(1, static_cast<char>('0' + i)).c_str()});
  texts order;
  for (const memdb_row *row : chain(table->cols[0], 0)) order.push_back(image(table, row));
  EXPECT_EQ(order, (texts{"|2", "c|6", "c|4", "c|1", "ca|7", "m|5", "m|0", "z|3", "\xC3|8"}));
}

TEST_F(InsertTest, LinksAtEveryByteOffsetHold) {
  for (uint32_t shift = 0; shift < 8; shift++) {
    memdb_tbl *const table = make({{shift, PLAIN}, {2, INDEXED}, {4, INDEXED}, {0, INDEXED}});
    for (const char *key : {"b", "a", "c", "a"}) insert(table, {"", key, key, ""});
    EXPECT_EQ(found(table, {ANY, "a", ANY, ANY}), (texts{"|a|a|", "|a|a|"}));
    EXPECT_EQ(found(table, {ANY, ANY, "c", ANY}), texts{"|c|c|"});
    EXPECT_EQ(found(table, {ANY, ANY, ANY, ""}).size(), 4u);
    memdb_delete_row(table, table->first->next);
    EXPECT_EQ(found(table, {ANY, "c", ANY, ANY}), texts{});
    EXPECT_EQ(chained(table->cols[3]), 3u);
  }
  EXPECT_TRUE(seen_.reports.empty());
}

TEST_F(InsertTest, LinkingByHandPutsTheRowAheadOfItsEquals) {
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const a = insert(table, {"k"});
  memdb_row *const b = insert(table, {"k"});
  memdb_col *const col = &table->cols[0];
  memdb_delete_idx_entry(a, col);
  EXPECT_EQ(memdb_idx_find(col, "k"), b);
  EXPECT_EQ(memdb_idx_next_res(b, col, "k"), nullptr);
  memdb_update_col_idx(a, col);
  EXPECT_EQ(memdb_idx_find(col, "k"), a);
  EXPECT_EQ(memdb_idx_next_res(a, col, "k"), b);
}

}  // namespace
}  // namespace engine_test
