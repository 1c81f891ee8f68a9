#include "tests/standin/memory.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "tests/standin/standin.h"

namespace standin {
namespace {

void *pkg(size_t size, const char *func = "f", unsigned int line = 1) {
  return _pkg_root.xmalloc(_pkg_root.mem_block, size, "file.c", func, line, "mod");
}
void *shm(size_t size, const char *func = "f", unsigned int line = 1) {
  return _shm_root.xmalloc(_shm_root.mem_block, size, "file.c", func, line, "mod");
}
void free_pkg(void *block) { _pkg_root.xfree(_pkg_root.mem_block, block, "file.c", "g", 2, "mod"); }
void free_shm(void *block) { _shm_root.xfree(_shm_root.mem_block, block, "file.c", "g", 2, "mod"); }

class MemoryTest : public testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
};

TEST_F(MemoryTest, CountsLiveBlocksAndBytesPerPool) {
  void *a = pkg(10);
  void *b = shm(20);
  void *c = shm(0);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(live_count(pool::pkg), 1u);
  EXPECT_EQ(live_count(pool::shm), 2u);
  EXPECT_EQ(live_bytes(pool::both), 30u);
  free_pkg(a);
  free_shm(b);
  free_shm(c);
  EXPECT_EQ(live_count(pool::both), 0u);
  EXPECT_TRUE(memory_errors().empty());
}

TEST_F(MemoryTest, TellsWhereALiveBlockWasMade) {
  pkg(10, "early", 5);
  const uint64_t mark = last_serial();
  shm(32, "late", 9);
  const std::vector<block_info> blocks = live_blocks(pool::both);
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[0].func, "early");
  EXPECT_EQ(blocks[1].size, 32u);
  EXPECT_EQ(blocks[1].line, 9u);
  EXPECT_EQ(blocks[1].owner, "mod");
  EXPECT_EQ(leak_report(pool::both, mark), "32 bytes by mod at file.c:9 late\n");
  EXPECT_EQ(live_blocks(pool::both, "core").size(), 0u);
}

TEST_F(MemoryTest, FreshBlocksAreNotZeroButZeroedOnesAre) {
  const auto *fresh = static_cast<unsigned char *>(pkg(4));
  EXPECT_NE(fresh[0] | fresh[3], 0);
  const auto *zeroed = static_cast<unsigned char *>(
      _shm_root.xmallocxz(_shm_root.mem_block, 4, "file.c", "f", 1, "mod"));
  EXPECT_EQ(zeroed[0] | zeroed[1] | zeroed[2] | zeroed[3], 0);
}

TEST_F(MemoryTest, ReallocKeepsContentsAndMovesTheBlock) {
  char *block = static_cast<char *>(pkg(4));
  memcpy(block, "abc", 4);
  char *moved = static_cast<char *>(
      _pkg_root.xrealloc(_pkg_root.mem_block, block, 100, "file.c", "f", 1, "mod"));
  EXPECT_STREQ(moved, "abc");
  EXPECT_NE(moved, block);
  EXPECT_EQ(live_bytes(pool::pkg), 100u);
  EXPECT_EQ(_pkg_root.xrealloc(_pkg_root.mem_block, moved, 0, "file.c", "f", 1, "mod"), nullptr);
  EXPECT_EQ(live_count(pool::pkg), 0u);
}

TEST_F(MemoryTest, FailedReallocLeavesTheOldBlock) {
  char *block = static_cast<char *>(shm(4));
  memcpy(block, "abc", 4);
  fail_at(pool::shm, 1);
  EXPECT_EQ(_shm_root.xrealloc(_shm_root.mem_block, block, 100, "file.c", "f", 1, "mod"), nullptr);
  EXPECT_STREQ(block, "abc");
  EXPECT_EQ(live_count(pool::shm), 1u);
}

TEST_F(MemoryTest, RecordsDoubleFreesForeignAndWrongPoolPointers) {
  void *a = pkg(8);
  void *b = shm(8);
  int local = 0;
  free_pkg(a);
  free_pkg(a);
  free_pkg(b);
  free_shm(&local);
  free_shm(nullptr);
  const std::vector<std::string> errors = memory_errors();
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_EQ(errors[0], "pkg: block freed twice at file.c:2 g");
  EXPECT_EQ(errors[1], "pkg: free of a block of the other pool at file.c:2 g");
  EXPECT_EQ(errors[2], "shm: free of an unknown pointer at file.c:2 g");
  EXPECT_EQ(errors[3], "shm: free of null at file.c:2 g");
  EXPECT_EQ(live_count(pool::shm), 1u);
}

TEST_F(MemoryTest, RecordsCallsWithTheOtherPoolsBlockArgument) {
  void *a = _pkg_root.xmalloc(_shm_root.mem_block, 8, "file.c", "f", 3, "mod");
  EXPECT_NE(a, nullptr);
  ASSERT_EQ(memory_errors().size(), 1u);
}

TEST_F(MemoryTest, BytesWrittenBehindABlockAreFound) {
  volatile char *a = static_cast<char *>(pkg(8, "maker", 4));
  if (guards_blocks()) {
    a[8] = 'x';
    check_blocks();
    ASSERT_EQ(memory_errors().size(), 1u);
    EXPECT_NE(memory_errors()[0].find("maker"), std::string::npos);
  } else {
    EXPECT_DEATH(a[8] = 'x', "heap-buffer-overflow");
  }
}

TEST_F(MemoryTest, FailsTheNthAllocationOfOnePoolOnce) {
  fail_at(pool::pkg, 2);
  EXPECT_NE(shm(1), nullptr);
  EXPECT_NE(pkg(1), nullptr);
  EXPECT_EQ(pkg(1), nullptr);
  EXPECT_NE(pkg(1), nullptr);
  EXPECT_EQ(failed_allocations(), 1u);
}

TEST_F(MemoryTest, FailsTheNthAllocationOverBothPools) {
  fail_at(pool::both, 2);
  EXPECT_NE(shm(1), nullptr);
  EXPECT_EQ(pkg(1), nullptr);
  EXPECT_NE(shm(1), nullptr);
}

TEST_F(MemoryTest, FailsAllAllocationsFromTheNthOnUntilStopped) {
  fail_from(pool::shm, 2);
  EXPECT_NE(shm(1), nullptr);
  EXPECT_EQ(shm(1), nullptr);
  EXPECT_EQ(shm(1), nullptr);
  EXPECT_NE(pkg(1), nullptr);
  stop_failing();
  EXPECT_NE(shm(1), nullptr);
}

TEST_F(MemoryTest, CountsAllocationsSinceTheLastReset) {
  pkg(1);
  reset_allocation_count();
  pkg(1);
  shm(1);
  free_shm(shm(1));
  EXPECT_EQ(allocation_count(pool::pkg), 1u);
  EXPECT_EQ(allocation_count(pool::shm), 2u);
  EXPECT_EQ(allocation_count(pool::both), 3u);
}

TEST_F(MemoryTest, AMappingIsSharedWithForkedProcesses) {
  ASSERT_TRUE(use_shared_mapping(1 << 20));
  int *shared = static_cast<int *>(shm(sizeof(int)));
  *shared = 1;
  void *parents = shm(64, "parent", 1);
  const pid_t child = fork();
  if (child == 0) {
    *shared = 42;
    free_shm(parents);
    shm(128, "child", 8);
    free_shm(parents);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(*shared, 42);
  EXPECT_EQ(live_count(pool::shm), 2u);
  const std::vector<block_info> blocks = live_blocks(pool::shm);
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[1].func, "child");
  ASSERT_EQ(memory_errors().size(), 1u);
  EXPECT_EQ(memory_errors()[0], "shm: block freed twice at file.c:2 g");
}

TEST_F(MemoryTest, FourProcessesAllocateAndFreeInOneMappingAtOnce) {
  ASSERT_TRUE(use_shared_mapping(8 << 20));
  pid_t children[4];
  for (pid_t &child : children) {
    child = fork();
    if (child != 0) continue;
    std::vector<char *> held;
    for (int round = 0; round < 3000; ++round) {
      const size_t size = static_cast<size_t>(round * 37 % 300);
      char *block = static_cast<char *>(shm(size));
      if (block == nullptr) _exit(1);
      memset(block, static_cast<int>(getpid() & 0x7f), size);
      held.push_back(block);
      if (held.size() < 20) continue;
      free_shm(held.front());
      held.erase(held.begin());
    }
    for (char *block : held) free_shm(block);
    _exit(0);
  }
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(live_count(pool::shm), 0u);
  EXPECT_TRUE(memory_errors().empty());
}

TEST_F(MemoryTest, AMappingReusesFreedBlocksAndFailsWhenFull) {
  ASSERT_TRUE(use_shared_mapping(64 << 10));
  int made = 0;
  void *last = nullptr;
  for (void *block = shm(1000); block != nullptr; block = shm(1000)) {
    ++made;
    last = block;
  }
  EXPECT_GT(made, 20);
  EXPECT_GT(failed_allocations(), 0u);
  free_shm(last);
  EXPECT_EQ(shm(1000), last);
  EXPECT_EQ(shm(1000), nullptr);
}

TEST_F(MemoryTest, AMappingFindsBytesWrittenBehindABlock) {
  ASSERT_TRUE(use_shared_mapping(1 << 20));
  char *block = static_cast<char *>(shm(10));
  block[10] = 'x';
  check_blocks();
  EXPECT_EQ(memory_errors().size(), 1u);
  clear_memory_errors();
  free_shm(block);
  EXPECT_EQ(memory_errors().size(), 1u);
}

TEST_F(MemoryTest, AMappingNeedsAnEmptySharedPool) {
  shm(1);
  EXPECT_FALSE(use_shared_mapping(1 << 20));
}

TEST_F(MemoryTest, ResetFreesBlocksAndForgetsErrorsAndFailures) {
  pkg(1);
  free_pkg(nullptr);
  fail_from(pool::both, 1);
  reset();
  EXPECT_EQ(live_count(pool::both), 0u);
  EXPECT_TRUE(memory_errors().empty());
  EXPECT_NE(pkg(1), nullptr);
}

}  // namespace
}  // namespace standin
