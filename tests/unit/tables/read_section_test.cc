// Rows that are taken out under readers without a lock: when they are given back, and when not.
#include "tables/shared/read_section.h"

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include "memdb/index/directory.h"
#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

namespace tables_test {
namespace {

class ReadSectionTest : public TablesTest {
 protected:
  ReadSectionTest() { start(table_spec{}); }

  memdb_row *add_row() { return add(table(), {"1", "2", "3"}); }
  void remove_row(memdb_row *row) { memdb_delete_row(table()->tbl, row); }
  void add_and_remove() { remove_row(add_row()); }

  static bool is_live(const memdb_row *row) {
    for (const standin::block_info &block : standin::live_blocks(pool::shm))
      if (block.address == row) return true;
    return false;
  }

  static read_sections &sections() { return tarn_tbl_mngt->sections; }
  static bool nothing_waits() {
    return sections().retired == nullptr && sections().passed_none == nullptr &&
           sections().passed_one == nullptr && sections().moving == 0;
  }
};

TEST_F(ReadSectionTest, WithoutAReaderARowIsGivenBackAtOnce) {
  memdb_row *const row = add_row();
  remove_row(row);
  EXPECT_FALSE(is_live(row));
  EXPECT_TRUE(nothing_waits());
}

TEST_F(ReadSectionTest, ARowThatAReaderMayBeOnStaysAsItIs) {
  memdb_row *const older = add_row();
  memdb_row *const row = add_row();
  {
    const read_section section;
    remove_row(row);
    remove_row(older);
    ASSERT_TRUE(is_live(row));
    EXPECT_EQ(row->next, older) << "a reader goes on from it";
    EXPECT_STREQ(memdb_get_field(table()->tbl, row, 1), "2");
    EXPECT_TRUE(is_live(older));
  }
  EXPECT_TRUE(is_live(row)) << "a reader has nothing to do at its end";
  add_and_remove();
  EXPECT_FALSE(is_live(row));
  EXPECT_FALSE(is_live(older));
  EXPECT_TRUE(nothing_waits());
}

TEST_F(ReadSectionTest, AllRowsThatGoAtOnceAreKept) {
  std::vector<memdb_row *> rows(50);
  for (memdb_row *&row : rows) row = add_row();
  {
    const read_section section;
    memdb_delete_all(table()->tbl);
    for (memdb_row *const row : rows) EXPECT_TRUE(is_live(row));
  }
  add_and_remove();
  for (memdb_row *const row : rows) EXPECT_FALSE(is_live(row));
}

TEST_F(ReadSectionTest, ReadersThatTakeTurnsWithoutAGapKeepNoMoreThanAFewRows) {
  const size_t before = standin::live_count(pool::shm);
  std::optional<read_section> one, other;
  one.emplace();
  for (int round = 0; round < 1000; round++) {
    add_and_remove();
    std::optional<read_section> &next = round % 2 == 0 ? other : one;
    next.emplace();
    (round % 2 == 0 ? one : other).reset();
    EXPECT_LE(standin::live_count(pool::shm), before + 4) << round;
  }
  one.reset();
  other.reset();
  add_and_remove();
  EXPECT_EQ(standin::live_count(pool::shm), before);
}

TEST_F(ReadSectionTest, AWorkerIsNotKeptByTheRowsOfAWholeTable) {
  constexpr size_t MOST = 64;
  constexpr size_t ROWS = 10 * MOST;
  const size_t before = standin::live_count(pool::shm);
  for (size_t i = 0; i < ROWS; i++) add_row();
  {
    const read_section section;
    memdb_delete_all(table()->tbl);
  }
  for (size_t left = ROWS; left > 0;) {
    add_and_remove();
    const size_t now = standin::live_count(pool::shm) - before;
    EXPECT_GE(now + 3 * MOST, left);
    ASSERT_LT(now, left);
    left = now;
  }
}

TEST_F(ReadSectionTest, TheStoreTimerGivesBackWhatIsLeft) {
  const size_t before = standin::live_count(pool::shm);
  for (int i = 0; i < 1000; i++) add_row();
  {
    const read_section section;
    memdb_delete_all(table()->tbl);
    store_table_mngt(0, nullptr);
    EXPECT_EQ(standin::live_count(pool::shm), before + 1000) << "not under the reader";
  }
  store_table_mngt(0, nullptr);
  EXPECT_EQ(standin::live_count(pool::shm), before);
  EXPECT_TRUE(nothing_waits());
}

TEST_F(ReadSectionTest, ASectionOfANewRegistryIsCounted) {
  std::ignore = read_section();
  sections() = {};
  use_read_sections(&sections());
  memdb_row *const row = add_row();
  const read_section section;
  remove_row(row);
  EXPECT_TRUE(is_live(row));
}

TEST_F(ReadSectionTest, WhileAnotherProcessMovesRowsOnTheyWait) {
  memdb_row *const row = add_row();
  {
    const read_section section;
    remove_row(row);
  }
  sections().moving = 1;
  add_and_remove();
  EXPECT_TRUE(is_live(row));
  sections().moving = 0;
  add_and_remove();
  EXPECT_FALSE(is_live(row));
}

TEST_F(ReadSectionTest, AReaderCountsWhicheverTurnItIsCountedUnder) {
  // It may have read the turn, and be counted under it only after it has changed.
  for (const uint32_t turn : {0u, 1u, 0u, 1u}) {
    memdb_row *const row = add_row();
    sections().readers = 1;
    sections().counts[0].inside[turn]++;
    remove_row(row);
    for (int removals = 0; removals < 10; removals++) add_and_remove();
    EXPECT_TRUE(is_live(row));
    sections().counts[0].inside[turn]--;
    add_and_remove();
    EXPECT_FALSE(is_live(row));
  }
}

TEST_F(ReadSectionTest, AtTheEndAllIsGivenBackWhoeverStillCounts) {
  add_row();
  const read_section section;
  add_and_remove();
  memdb_row *const row = add_row();
  remove_row(row);
  sections().moving = 1;  // as a process that was killed leaves it
  destroy_tables();
  EXPECT_FALSE(is_live(row));
  EXPECT_TRUE(sections().retired == nullptr && sections().passed_none == nullptr &&
              sections().passed_one == nullptr);
}

TEST_F(ReadSectionTest, WithoutARegistryRowsGoAtOnceAndReadersAreNotCounted) {
  const tbl_dcl columns[] = {{3, 0}};
  use_read_sections(nullptr);
  memdb_tbl *const lone = memdb_create_tbl(columns, 1);
  const char *const fields[] = {"abc"};
  memdb_row *const row = memdb_insert(lone, fields);
  {
    const read_section section;
    memdb_delete_row(lone, row);
    EXPECT_FALSE(is_live(row));
  }
  memdb_destroy_tbl(lone);
  free_retired_rows();
  use_read_sections(&sections());
}

// Sections open and end, and rows come and go, in random order. A row that went while a section
// was open stays until that section has ended.
TEST_F(ReadSectionTest, NoRowGoesUnderASectionThatWasOpenWhenItWasTakenOut) {
  std::mt19937 random(7);
  const size_t before = standin::live_count(pool::shm);
  std::map<int, std::unique_ptr<read_section>> open;
  std::map<memdb_row *, std::set<int>> kept;  // by the sections that may be on them
  for (int step = 0; step < 4000; step++) {
    const unsigned choice = random() % 4;
    if (choice == 0 && open.size() < 5) {
      open[step] = std::make_unique<read_section>();
    } else if (choice == 1 && !open.empty()) {
      const auto ended = std::next(open.begin(), static_cast<long>(random() % open.size()));
      for (auto &[row, readers] : kept) readers.erase(ended->first);
      open.erase(ended);
    } else {
      memdb_row *const row = add_row();
      std::erase_if(kept, [](const auto &each) { return each.second.empty(); });
      ASSERT_FALSE(kept.contains(row)) << "a block is used again under a reader";
      for (const auto &[number, section] : open) kept[row].insert(number);
      remove_row(row);
    }
    for (const auto &[row, readers] : kept)
      ASSERT_TRUE(readers.empty() || is_live(row)) << "step " << step;
  }
  open.clear();
  add_and_remove();
  EXPECT_EQ(standin::live_count(pool::shm), before);
}

TEST_F(ReadSectionTest, RowsThatManyTakeOutAtOnceAreAllKept) {
  constexpr size_t WORKERS = 4;
  constexpr size_t ROWS = 5000;
  const size_t before = standin::live_count(pool::shm);
  std::vector<memdb_row *> rows(WORKERS * ROWS);
  memdb_directories.plain_rows = UINT32_MAX;  // so that the buckets need but be emptied
  for (memdb_row *&row : rows) row = add_row();
  memdb_directories = {};
  {
    const read_section section;
    table()->tbl->first = table()->tbl->last = nullptr;
    for (uint32_t i = 0; i < 512; i++)
      table()->tbl->cols[0].idx[i] = table()->tbl->cols[2].idx[i] = nullptr;
    std::vector<std::thread> workers;
    for (size_t worker = 0; worker < WORKERS; worker++)
      workers.emplace_back([&, worker] {
        for (size_t i = 0; i < ROWS; i++) retire_row(rows[worker * ROWS + i]);
      });
    for (std::thread &worker : workers) worker.join();
    EXPECT_EQ(standin::live_count(pool::shm), before + WORKERS * ROWS);
  }
  settle_retired_rows();
  EXPECT_EQ(standin::live_count(pool::shm), before) << "none is lost where two meet";
}

// In shared memory, between processes.

class ReadSectionProcessesTest : public TablesTest {
 protected:
  ReadSectionProcessesTest() {
    EXPECT_TRUE(standin::use_shared_mapping(8 << 20));
    start(table_spec{});
  }
};

TEST_F(ReadSectionProcessesTest, MoreReadersThanCountsShareThem) {
  constexpr int READERS = 2 * READER_COUNTS + 5;
  auto *const go = new (tarn_shm_calloc(1, sizeof(std::atomic<int>))) std::atomic<int>(0);
  auto *const inside = new (tarn_shm_calloc(1, sizeof(std::atomic<int>))) std::atomic<int>(0);
  const size_t before = standin::live_count(pool::shm);
  memdb_row *const row = add(table(), {"1", "2", "3"});
  std::vector<std::unique_ptr<process>> readers;
  for (int i = 0; i < READERS; i++)
    readers.push_back(std::make_unique<process>([&, i] {
      const read_section section;
      ++*inside;
      return eventually([&] { return *go > i; }) ? 0 : 1;
    }));
  ASSERT_TRUE(eventually([&] { return *inside == READERS; }));
  memdb_delete_row(table()->tbl, row);
  for (int ended = 1; ended <= READERS; ended++) {
    memdb_delete_row(table()->tbl, add(table(), {"4", "5", "6"}));
    EXPECT_GT(standin::live_count(pool::shm), before) << READERS - ended << " have ended";
    *go = ended;
    EXPECT_EQ(readers[static_cast<size_t>(ended - 1)]->exit_code(), 0);
  }
  settle_retired_rows();
  EXPECT_EQ(standin::live_count(pool::shm), before);
  tarn_shm_free(inside);
  tarn_shm_free(go);
}

// The process ends where it would give back its n-th block, as one that is killed there.
int frees_until_death;
decltype(_shm_root.xfree) real_free;
void free_or_die(void *pool_block, void *block, const char *file, const char *func,
                 unsigned int line, const char *owner) {
  if (--frees_until_death == 0) _exit(0);
  real_free(pool_block, block, file, func, line, owner);
}

TEST_F(ReadSectionProcessesTest, AProcessThatIsKilledAmongRetiredRowsLeavesNoneToBeFreedTwice) {
  for (int deadly = 1; deadly <= 9; deadly++) {
    SCOPED_TRACE(deadly);
    start(table_spec{});
    process killed([&] {
      {
        const read_section section;
        for (int i = 0; i < 4; i++) memdb_delete_row(table()->tbl, add(table(), {"1", "2", "3"}));
      }
      real_free = std::exchange(_shm_root.xfree, free_or_die);
      frees_until_death = deadly;
      {
        const read_section section;
        for (int i = 0; i < 4; i++) memdb_delete_row(table()->tbl, add(table(), {"4", "5", "6"}));
      }
      settle_retired_rows();
      return 0;
    });
    EXPECT_EQ(killed.exit_code(), 0);
    free_retired_rows();
    EXPECT_THAT(standin::memory_errors(), testing::IsEmpty()) << "a block given back twice";
  }
  // What the killed ones had in hand is lost, and the test's end is not to complain of it.
  for (const standin::block_info &block : standin::live_blocks(pool::shm))
    if (block.func == "memdb_insert" || block.size == sizeof(memdb_row) + table()->tbl->row_len)
      tarn_shm_free(const_cast<void *>(block.address));
}

TEST_F(ReadSectionProcessesTest, ReadersBesideWritersMeetOnlyTextsThatWereWritten) {
  constexpr int ROUNDS = 20000;
  auto *const done = new (tarn_shm_calloc(1, sizeof(std::atomic<int>))) std::atomic<int>(0);
  const size_t before = standin::live_count(pool::shm);
  std::vector<std::unique_ptr<process>> workers;
  for (int writer = 0; writer < 2; writer++)
    workers.push_back(std::make_unique<process>([&, writer] {
      const std::string key = "key" + std::to_string(writer);
      const char *const fields[] = {key.c_str(), "text", key.c_str()};
      const char *const wanted[] = {key.c_str(), nullptr, nullptr};
      for (int round = 0; round < ROUNDS; round++) {
        const lock_scope lock(table()->lock);
        memdb_insert(table()->tbl, fields);
        if (round % 3 != 0) continue;
        memdb_cursor cursor;
        memdb_row *row = memdb_select(table()->tbl, wanted, &cursor);
        while (row != nullptr) {
          memdb_row *const next = memdb_select_next(&cursor);
          memdb_delete_row(table()->tbl, row);
          row = next;
        }
      }
      ++*done;
      return 0;
    }));
  for (int reader = 0; reader < 2; reader++)
    workers.push_back(std::make_unique<process>([&, reader] {
      const char *const by_key[] = {nullptr, nullptr, reader == 0 ? "key0" : "key1"};
      const char *const by_scan[] = {nullptr, "text", nullptr};
      const std::set<std::string> written = {"", "key0", "key1", "text"};
      while (*done < 2) {
        const read_section section;
        memdb_cursor cursor;
        for (const char *const *wanted : {by_key, by_scan})
          for (const memdb_row *row = memdb_select(table()->tbl, wanted, &cursor); row != nullptr;
               row = memdb_select_next(&cursor))
            for (uint32_t i = 0; i < 3; i++)
              if (!written.contains(memdb_get_field(table()->tbl, row, i))) return 1;
      }
      return 0;
    }));
  for (const std::unique_ptr<process> &worker : workers) EXPECT_EQ(worker->exit_code(), 0);
  memdb_delete_all(table()->tbl);
  settle_retired_rows();
  EXPECT_EQ(standin::live_count(pool::shm), before);
  tarn_shm_free(done);
}

}  // namespace
}  // namespace tables_test
