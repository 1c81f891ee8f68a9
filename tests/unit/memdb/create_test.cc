// Making and destroying tables: layout, hooks, memory that runs short, declarations that don't fit.
#include <limits>

#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

using CreateTest = EngineTest;

// As they stand before any test sets a hook.
const struct {
  decltype(memdb_malloc) malloc_hook = memdb_malloc;
  decltype(memdb_calloc) calloc_hook = memdb_calloc;
  decltype(memdb_free) free_hook = memdb_free;
  decltype(memdb_hash_str) hash_hook = memdb_hash_str;
  decltype(memdb_log_err) report_hook = memdb_log_err;
  uint32_t idx_len = memdb_idx_len;
} defaults;

TEST_F(CreateTest, TheHooksAreThePlainAllocatorsAtFirst) {
  EXPECT_EQ(defaults.malloc_hook, &malloc);
  EXPECT_EQ(defaults.calloc_hook, &calloc);
  EXPECT_EQ(defaults.free_hook, &free);
  EXPECT_EQ(defaults.hash_hook, &memdb_hash1);
  EXPECT_EQ(defaults.report_hook, nullptr);
  EXPECT_EQ(defaults.idx_len, 512u);
}

TEST_F(CreateTest, ATableWorksWithTheDefaultHooks) {
  memdb_malloc = defaults.malloc_hook;
  memdb_calloc = defaults.calloc_hook;
  memdb_free = defaults.free_hook;
  memdb_log_err = defaults.report_hook;
  const tbl_dcl columns[] = {{7, INDEXED}, {3, PLAIN}};
  memdb_tbl *const table = memdb_create_tbl(columns, 2);
  ASSERT_NE(table, nullptr);
  insert(table, {"a", "b"});
  memdb_row *const row = insert(table, {"c", "d"});
  // With no report hook, a row that its chain doesn't hold goes without a word.
  memdb_set_field(table, row, 0, "e");
  memdb_delete_row(table, row);
  EXPECT_EQ(found(table, {"a", ANY}), texts{"a|b"});
  memdb_destroy_tbl(table);
}

TEST_F(CreateTest, PlainThenIndexedColumnLieAsDrawn) {
  memdb_tbl *const table = make({{31, PLAIN}, {7, INDEXED}});
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->cols[0].size, 32u);
  EXPECT_EQ(table->cols[0].offset, 0u);
  EXPECT_EQ(table->cols[1].size, 8u);
  EXPECT_EQ(table->cols[1].offset, 40u);
  EXPECT_EQ(table->row_len, 48u);
  memdb_row *const older = insert(table, {"x", "k"});
  memdb_row *const newer = insert(table, {"y", "k"});
  memdb_row *linked;
  memcpy(&linked, memdb_data(newer) + 32, sizeof(linked));
  EXPECT_EQ(linked, older);
}

TEST_F(CreateTest, NothingIsAlignedBetweenColumns) {
  memdb_tbl *const table = make({{0, INDEXED}, {2, INDEXED}, {4, PLAIN}, {0, INDEXED}});
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->cols[0].offset, 8u);
  EXPECT_EQ(table->cols[1].offset, 17u);
  EXPECT_EQ(table->cols[2].offset, 20u);
  EXPECT_EQ(table->cols[3].offset, 33u);
  EXPECT_EQ(table->row_len, 34u);
}

TEST_F(CreateTest, ANewTableIsEmptyAndKnowsItsColumns) {
  memdb_tbl *const table = make({{5, INDEXED}, {6, PLAIN}});
  EXPECT_EQ(table->first, nullptr);
  EXPECT_EQ(table->last, nullptr);
  EXPECT_EQ(table->col_cnt, 2u);
  EXPECT_EQ(table->cols[0].idx_len, 512u);
  EXPECT_NE(table->cols[0].idx, nullptr);
  EXPECT_EQ(table->cols[1].idx_len, 0u);
  EXPECT_EQ(table->cols[1].idx, nullptr);
  EXPECT_EQ(chained(table->cols[0]), 0u);
}

TEST_F(CreateTest, FlagBitsBeyondTheFirstAreKeptAndMeanNothing) {
  memdb_tbl *const table = make({{5, 0xFFFFFFFEu}, {5, 0x80000001u}});
  EXPECT_EQ(table->cols[0].flags, 0xFFFFFFFEu);
  EXPECT_EQ(table->cols[0].idx, nullptr);
  EXPECT_EQ(table->cols[0].offset, 0u);
  EXPECT_EQ(table->cols[1].flags, 0x80000001u);
  EXPECT_NE(table->cols[1].idx, nullptr);
}

TEST_F(CreateTest, TheDeclarationsAreNotKept) {
  tbl_dcl columns[] = {{5, INDEXED}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  columns[0] = {0, 0};
  insert(table, {"12345"});
  EXPECT_EQ(found(table, {"12345"}), texts{"12345"});
  EXPECT_TRUE(seen_.warnings.empty());
  memdb_destroy_tbl(table);
}

TEST_F(CreateTest, TheIndexLengthIsReadWhenATableIsMade) {
  memdb_idx_len = 3;
  memdb_tbl *const small = make({{5, INDEXED}});
  memdb_idx_len = 100;
  memdb_tbl *const large = make({{5, INDEXED}});
  EXPECT_EQ(small->cols[0].idx_len, 3u);
  EXPECT_EQ(large->cols[0].idx_len, 100u);
  for (const char *key : {"a", "b", "c", "d"}) insert(small, {key});
  EXPECT_EQ(chained(small->cols[0]), 4u);
  EXPECT_EQ(found(small, {"c"}), texts{"c"});
}

TEST_F(CreateTest, MemoryIsOneTableOneColumnArrayAndTheBuckets) {
  make({{5, INDEXED}, {5, PLAIN}, {5, INDEXED}});
  EXPECT_EQ(seen_.allocations, 4);
  size_t bytes = 0;
  for (const auto &[block, size] : seen_.live) bytes += size;
  EXPECT_EQ(bytes, sizeof(memdb_tbl) + 3 * sizeof(memdb_col) + 2 * 512 * sizeof(memdb_row *));
}

TEST_F(CreateTest, WithoutMemoryForTheTableThereIsNone) {
  seen_.fail_at = 1;
  EXPECT_EQ(make({{5, INDEXED}}), nullptr);
  EXPECT_EQ(seen_.errors, texts{"Fail to allocate memory to the table\n"});
  EXPECT_TRUE(seen_.live.empty());
}

TEST_F(CreateTest, WithoutMemoryForTheColumnsTheTableGoesToo) {
  seen_.fail_at = 2;
  EXPECT_EQ(make({{5, INDEXED}}), nullptr);
  EXPECT_EQ(seen_.errors, texts{"Fail to allocate memory to the columns\n"});
  EXPECT_TRUE(seen_.live.empty());
}

TEST_F(CreateTest, WithoutMemoryForAnyBucketsAllGoes) {
  for (int failing = 3; failing <= 5; failing++) {
    seen_ = {};
    seen_.fail_at = failing;
    EXPECT_EQ(make({{5, INDEXED}, {5, PLAIN}, {5, INDEXED}, {5, INDEXED}}), nullptr);
    EXPECT_EQ(seen_.errors, texts{"Fail to allocate memory to the hash table buckets\n"});
    EXPECT_TRUE(seen_.live.empty());
    EXPECT_EQ(seen_.bad_frees, 0);
  }
}

TEST_F(CreateTest, ATableWithoutColumnsHoldsRowsWithoutFields) {
  memdb_tbl *const table = memdb_create_tbl(nullptr, 0);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->row_len, 0u);
  EXPECT_NE(memdb_insert(table, nullptr), nullptr);
  memdb_cursor cursor;
  EXPECT_EQ(memdb_select(table, nullptr, &cursor), table->first);
  EXPECT_EQ(memdb_select_next(&cursor), nullptr);
  memdb_destroy_tbl(table);
}

TEST_F(CreateTest, ALengthWhoseCapacityWrapsToZeroMakesNoTable) {
  EXPECT_EQ(make({{std::numeric_limits<uint32_t>::max(), PLAIN}}), nullptr);
  EXPECT_EQ(make({{5, PLAIN}, {std::numeric_limits<uint32_t>::max(), INDEXED}}), nullptr);
  EXPECT_EQ(seen_.allocations, 0);
}

TEST_F(CreateTest, ARowThatWouldPass32BitsMakesNoTable) {
  constexpr uint32_t widest = std::numeric_limits<uint32_t>::max() - 16 - 1;
  EXPECT_EQ(make({{widest + 1, PLAIN}}), nullptr);
  EXPECT_EQ(make({{widest - 7, INDEXED}}), nullptr);
  EXPECT_EQ(make({{0x80000000u, PLAIN}, {0x80000000u, PLAIN}}), nullptr);
  EXPECT_EQ(make({{0xFFFFFFF0u, PLAIN}, {0x10u, PLAIN}}), nullptr);
  // A sum that wraps twice and would look small.
  EXPECT_EQ(make({{0xFFFFFFF0u, PLAIN}, {0xFFFFFFF0u, PLAIN}, {0x40u, PLAIN}}), nullptr);
  EXPECT_EQ(seen_.allocations, 0);
}

TEST_F(CreateTest, TheWidestRowsThatFitMakeTables) {
  constexpr uint32_t widest = std::numeric_limits<uint32_t>::max() - 16 - 1;
  memdb_tbl *const plain = make({{widest, PLAIN}});
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(plain->row_len, std::numeric_limits<uint32_t>::max() - 16);
  EXPECT_EQ(plain->cols[0].size, widest + 1);
  memdb_tbl *const indexed = make({{widest - 8, INDEXED}});
  ASSERT_NE(indexed, nullptr);
  EXPECT_EQ(indexed->row_len, std::numeric_limits<uint32_t>::max() - 16);
}

TEST_F(CreateTest, DestroyingFreesRowsAndIndexesAndIgnoresNull) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  for (const char *key : {"a", "b", "a"}) insert(table, {key, key});
  destroy(table);
  EXPECT_TRUE(seen_.live.empty());
  memdb_destroy_tbl(nullptr);
  EXPECT_EQ(seen_.bad_frees, 0);
}

TEST_F(CreateTest, TablesAreIndependent) {
  memdb_tbl *const one = make({{5, INDEXED}});
  memdb_tbl *const two = make({{5, INDEXED}});
  insert(one, {"a"});
  EXPECT_EQ(found(two, {"a"}), texts{});
  insert(two, {"b"});
  destroy(one);
  EXPECT_EQ(found(two, {"b"}), texts{"b"});
}

using DefaultSinkTest = testing::Test;

TEST_F(DefaultSinkTest, MessagesGoToStderrWithLevelAndPlace) {
  const tbl_dcl columns[] = {{1, PLAIN}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const char *const row[] = {"abc"};
  testing::internal::CaptureStderr();
  memdb_insert(table, row);
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_THAT(written, testing::StartsWith("WARNING: memdb ["));
  EXPECT_THAT(written,
              testing::EndsWith("Value 'abc' too long. It will be truncated to fit field size "
                                "(1 bytes)\n"));
  memdb_destroy_tbl(table);

  memdb_malloc = [](size_t) -> void * { return nullptr; };
  testing::internal::CaptureStderr();
  EXPECT_EQ(memdb_create_tbl(columns, 1), nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::AllOf(testing::StartsWith("ERROR: memdb ["),
                             testing::EndsWith("Fail to allocate memory to the table\n")));
  memdb_malloc = malloc;
}

}  // namespace
}  // namespace engine_test
