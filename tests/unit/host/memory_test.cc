// The wrappers of the host's allocators: what the host is told, and who owns what.
#include "host/memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/standin/standin.h"

namespace {

using standin::pool;
using testing::IsEmpty;

class MemoryTest : public testing::Test {
 protected:
  void SetUp() override { standin::reset(); }
  void TearDown() override {
    EXPECT_EQ(standin::leak_report(pool::both), "");
    standin::check_blocks();
    EXPECT_THAT(standin::memory_errors(), IsEmpty());
    standin::reset();
  }

  // The only live block has to be this one, told to the host as coming from this line.
  static void expect_block(pool which, const void *block, size_t size, unsigned int line,
                           const char *function) {
    const auto blocks = standin::live_blocks(which);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].address, block);
    EXPECT_EQ(blocks[0].size, size);
    EXPECT_EQ(blocks[0].file, __FILE__);
    EXPECT_EQ(blocks[0].line, line);
    EXPECT_EQ(blocks[0].func, function);
    EXPECT_EQ(blocks[0].owner, "tarn_memdb");
  }
};

TEST_F(MemoryTest, PrivateBlockIsToldWithThePlaceOfTheCall) {
  void *const block = pkg_malloc(24);
  expect_block(pool::pkg, block, 24, __LINE__ - 1, __func__);
  EXPECT_EQ(standin::live_count(pool::shm), 0u);
  pkg_free(block);
}

TEST_F(MemoryTest, SharedBlockIsToldWithThePlaceOfTheCall) {
  void *const block = shm_malloc(24);
  expect_block(pool::shm, block, 24, __LINE__ - 1, __func__);
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);
  shm_free(block);
}

TEST_F(MemoryTest, ArrayIsToldWithThePlaceOfTheCall) {
  int64_t *const block = pkg_array<int64_t>(3);
  expect_block(pool::pkg, block, 24, __LINE__ - 1, __func__);
  pkg_free(block);
}

TEST_F(MemoryTest, ResizedBlocksKeepTheirContent) {
  char *a = static_cast<char *>(pkg_malloc(4));
  char *b = static_cast<char *>(shm_malloc(4));
  memcpy(a, "abc", 4);
  memcpy(b, "xyz", 4);
  a = static_cast<char *>(pkg_realloc(a, 4000));
  expect_block(pool::pkg, a, 4000, __LINE__ - 1, __func__);
  b = static_cast<char *>(shm_realloc(b, 4000));
  expect_block(pool::shm, b, 4000, __LINE__ - 1, __func__);
  EXPECT_STREQ(a, "abc");
  EXPECT_STREQ(b, "xyz");
  pkg_free(a);
  shm_free(b);
}

TEST_F(MemoryTest, ResizeOfNullIsANewBlock) {
  void *const a = pkg_realloc(nullptr, 8);
  void *const b = shm_realloc(nullptr, 8);
  EXPECT_EQ(standin::live_bytes(pool::both), 16u);
  pkg_free(a);
  shm_free(b);
}

TEST_F(MemoryTest, FailedAllocationsGiveNull) {
  standin::fail_from(pool::both, 1);
  EXPECT_EQ(pkg_malloc(8), nullptr);
  EXPECT_EQ(shm_malloc(8), nullptr);
  EXPECT_EQ(pkg_array<int>(2), nullptr);
  EXPECT_EQ(pkg_realloc(nullptr, 8), nullptr);
  EXPECT_EQ(shm_realloc(nullptr, 8), nullptr);
  EXPECT_EQ(standin::failed_allocations(), 5u);
}

TEST_F(MemoryTest, FailedResizeKeepsTheOldBlock) {
  char *const a = static_cast<char *>(pkg_malloc(4));
  char *const b = static_cast<char *>(shm_malloc(4));
  memcpy(a, "abc", 4);
  memcpy(b, "xyz", 4);
  standin::fail_from(pool::both, 1);
  EXPECT_EQ(pkg_realloc(a, 4000), nullptr);
  EXPECT_EQ(shm_realloc(b, 4000), nullptr);
  EXPECT_STREQ(a, "abc");
  EXPECT_STREQ(b, "xyz");
  pkg_free(a);
  shm_free(b);
}

TEST_F(MemoryTest, TheHostTellsWhatIsFreeOfItsSharedMemory) {
  standin::tell_available(4711);
  EXPECT_EQ(shm_available(), 4711u);
}

TEST_F(MemoryTest, FreeOfNullNeverReachesTheHost) {
  pkg_free(nullptr);
  shm_free(nullptr);
  EXPECT_THAT(standin::memory_errors(), IsEmpty());
}

TEST_F(MemoryTest, ArrayPastTheAddressSpaceIsRefusedWithoutAskingTheHost) {
  standin::reset_allocation_count();
  EXPECT_EQ(pkg_array<int64_t>(SIZE_MAX / 8 + 1), nullptr);
  EXPECT_EQ(pkg_array<int64_t>(SIZE_MAX), nullptr);
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
}

TEST_F(MemoryTest, ArrayOfNoRecordsIsAValidBlock) {
  int *const block = pkg_array<int>(0);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(standin::live_count(pool::pkg), 1u);
  pkg_free(block);
}

TEST_F(MemoryTest, OwnerGivesItsBlockBackAtItsEnd) {
  {
    const pkg_owner<int> owner(pkg_array<int>(4));
    ASSERT_TRUE(owner);
    owner[3] = 7;
    EXPECT_EQ(owner.get()[3], 7);
    EXPECT_EQ(standin::live_count(pool::pkg), 1u);
  }
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);
}

TEST_F(MemoryTest, OwnerOfNothingIsFalseAndGivesNothingBack) {
  const pkg_owner<int> owner;
  EXPECT_FALSE(owner);
  EXPECT_EQ(owner.get(), nullptr);
}

TEST_F(MemoryTest, OwnerThatIsResetGivesTheOldBlockBack) {
  pkg_owner<int> owner(pkg_array<int>(4));
  int *const next = pkg_array<int>(5);
  owner.reset(next);
  EXPECT_EQ(owner.get(), next);
  EXPECT_EQ(standin::live_count(pool::pkg), 1u);
  owner.reset(nullptr);
  EXPECT_EQ(standin::live_count(pool::pkg), 0u);
}

TEST_F(MemoryTest, ReleasedBlockIsTheCallers) {
  int *block;
  {
    pkg_owner<int> owner(pkg_array<int>(4));
    block = owner.release();
    EXPECT_FALSE(owner);
  }
  EXPECT_EQ(standin::live_count(pool::pkg), 1u);
  pkg_free(block);
}

}  // namespace
