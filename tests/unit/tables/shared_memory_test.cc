// Shared memory for the engine, and the engine's messages in the host's log.
#include <climits>
#include <cstdint>

#include "tests/unit/tables/fixture.h"

namespace tables_test {
namespace {

using SharedMemoryTest = TablesTest;

TEST_F(SharedMemoryTest, BlocksComeFromTheSharedPool) {
  void *const block = tarn_shm_malloc(10);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(standin::live_bytes(pool::shm), 10u);
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);
  tarn_shm_free(block);
  EXPECT_EQ(standin::live_count(pool::shm), 0u);
}

TEST_F(SharedMemoryTest, CallocIsZeroAndAsLargeAsTheProduct) {
  auto *const block = static_cast<unsigned char *>(tarn_shm_calloc(7, 9));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(standin::live_bytes(pool::shm), 63u);
  for (int i = 0; i < 63; i++) EXPECT_EQ(block[i], 0);
  tarn_shm_free(block);
}

TEST_F(SharedMemoryTest, ASizeOfZeroGivesAValidBlock) {
  void *const blocks[] = {tarn_shm_malloc(0), tarn_shm_calloc(0, 8), tarn_shm_calloc(8, 0)};
  for (void *block : blocks) {
    EXPECT_NE(block, nullptr);
    tarn_shm_free(block);
  }
}

TEST_F(SharedMemoryTest, AProductThatOverflowsGivesNull) {
  standin::reset_allocation_count();
  EXPECT_EQ(tarn_shm_calloc(SIZE_MAX, 2), nullptr);
  EXPECT_EQ(tarn_shm_calloc(SIZE_MAX / 8 + 1, 8), nullptr);
  EXPECT_EQ(tarn_shm_calloc(size_t{1} << 32, size_t{1} << 32), nullptr);
  EXPECT_EQ(tarn_shm_calloc(static_cast<size_t>(-1), 400), nullptr);
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
}

TEST_F(SharedMemoryTest, ASizeThatRoundingCouldWrapGivesNull) {
  EXPECT_EQ(tarn_shm_malloc(SIZE_MAX), nullptr);
  EXPECT_EQ(tarn_shm_malloc(SIZE_MAX - 7), nullptr);
  EXPECT_EQ(tarn_shm_malloc(static_cast<size_t>(PTRDIFF_MAX) + 1), nullptr);
}

TEST_F(SharedMemoryTest, WithoutMemoryTheResultIsNull) {
  standin::fail_from(pool::shm, 1);
  EXPECT_EQ(tarn_shm_malloc(8), nullptr);
  EXPECT_EQ(tarn_shm_calloc(1, 8), nullptr);
}

TEST_F(SharedMemoryTest, FreeingNullIsIgnored) {
  tarn_shm_free(nullptr);
  EXPECT_TRUE(standin::memory_errors().empty());
}

TEST_F(SharedMemoryTest, TheEngineWorksInSharedMemory) {
  EXPECT_EQ(memdb_malloc, &tarn_shm_malloc);
  EXPECT_EQ(memdb_calloc, &tarn_shm_calloc);
  EXPECT_EQ(memdb_free, &tarn_shm_free);
  EXPECT_EQ(memdb_log_err, nullptr);
  const tbl_dcl columns[] = {{3, MEMDB_COL_INDEXED}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const char *const row[] = {"abc"};
  memdb_insert(table, row);
  EXPECT_EQ(standin::live_count(pool::shm), 4u);
  EXPECT_EQ(standin::live_bytes(pool::shm),
            sizeof(memdb_tbl) + sizeof(memdb_col) + 512 * 8 + (16 + 8 + 4));
  memdb_destroy_tbl(table);
}

TEST_F(SharedMemoryTest, BlocksToDoWithoutAreTakenIfAsMuchIsLeftAgain) {
  standin::reset_allocation_count();
  standin::tell_available(199);
  EXPECT_EQ(memdb_malloc_extra(100), nullptr);
  EXPECT_EQ(memdb_calloc_extra(100), nullptr);
  EXPECT_EQ(standin::allocation_count(pool::shm), 0u);
  standin::tell_available(200);
  void *const blocks[] = {memdb_malloc_extra(100), memdb_calloc_extra(100)};
  EXPECT_EQ(standin::live_bytes(pool::shm), 200u);
  for (void *block : blocks) memdb_free(block);
}

TEST_F(SharedMemoryTest, EngineMessagesGoToTheHostsLogAtTheirLevel) {
  const tbl_dcl columns[] = {{3, 0}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const char *const row[] = {"abcd"};
  memdb_insert(table, row);
  standin::fail_at(pool::shm, 1);
  memdb_insert(table, row);
  ASSERT_EQ(standin::logs().size(), 2u);
  EXPECT_EQ(standin::logs()[0].level, L_WARN);
  EXPECT_EQ(standin::logs()[0].text,
            "Value 'abcd' too long. It will be truncated to fit field size (3 bytes)\n");
  EXPECT_EQ(standin::logs()[0].module, "tarn_memdb");
  EXPECT_THAT(standin::logs()[0].file, testing::HasSubstr("memdb"));
  EXPECT_GT(standin::logs()[0].line, 0);
  EXPECT_EQ(standin::logs()[1].level, L_ERR);
  EXPECT_EQ(standin::logs()[1].text, "Fail to allocate memory to the row\n");
  EXPECT_EQ(standin::logs()[1].function, "memdb_insert");
  memdb_destroy_tbl(table);
}

TEST_F(SharedMemoryTest, PercentSignsInAValueAreText) {
  const tbl_dcl columns[] = {{3, 0}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const char *const row[] = {"%s%n%d"};
  memdb_insert(table, row);
  EXPECT_TRUE(logged(
      L_WARN, "Value '%s%n%d' too long. It will be truncated to fit field size (3 bytes)\n"));
  memdb_destroy_tbl(table);
}

TEST_F(SharedMemoryTest, EngineMessagesAreLeftOutAboveTheHostsLevel) {
  const tbl_dcl columns[] = {{3, 0}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const char *const row[] = {"abcd"};
  standin::set_debug_level(L_ERR);
  memdb_insert(table, row);
  EXPECT_TRUE(standin::logs().empty());
  standin::set_debug_level(L_WARN);
  memdb_insert(table, row);
  EXPECT_EQ(standin::logs().size(), 1u);
  memdb_destroy_tbl(table);
}

TEST_F(SharedMemoryTest, TheWarningOfAValueOfScriptLengthIsWhole) {
  const tbl_dcl columns[] = {{3, 0}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const std::string longest(4095, 'x');
  const char *const row[] = {longest.c_str()};
  memdb_insert(table, row);
  EXPECT_EQ(
      log_texts(L_WARN),
      texts{message("Value '%s' too long. It will be truncated to fit field size (%d bytes)\n",
                    longest.c_str(), 3)});
  memdb_destroy_tbl(table);
}

TEST_F(SharedMemoryTest, TheWarningOfAValueOfAnyLengthIsWholeWhereThereIsMemoryForIt) {
  const tbl_dcl columns[] = {{3, 0}};
  memdb_tbl *const table = memdb_create_tbl(columns, 1);
  const std::string value(100000, 'x');
  const char *const row[] = {value.c_str()};
  memdb_insert(table, row);
  const std::string whole = message(
      "Value '%s' too long. It will be truncated to fit field size (%d bytes)\n", value.c_str(), 3);
  EXPECT_EQ(log_texts(L_WARN), texts{whole});
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);

  standin::clear_logs();
  standin::fail_at(pool::pkg, 1);
  memdb_insert(table, row);
  EXPECT_EQ(log_texts(L_WARN), texts{whole.substr(0, 4096 + 127)});
  memdb_destroy_tbl(table);
}

}  // namespace
}  // namespace tables_test
