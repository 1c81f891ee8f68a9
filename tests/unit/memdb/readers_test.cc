// A reader without a lock beside a writer, in two processes: what it meets at any moment is a text
// that ends and a link that leads somewhere. Blocks are never anything but rows here; what becomes
// of those that are taken out is the caller's business.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

constexpr size_t ARENA = 1 << 24;
constexpr size_t BLOCK = 128;  // two cache lines, so that each row lies in the same places of them
constexpr size_t REUSED_AFTER = 1000;
constexpr auto WORK = std::chrono::milliseconds(300);

// Memory for tables and rows that processes share. The writer's rows are given out again only after
// many others.
char *arena;
size_t arena_used;
std::array<void *, 2 * REUSED_AFTER> gone;
size_t gone_count;
size_t reused_count;

void *shared_calloc(size_t count, size_t size) {
  const size_t total = count * size;
  void *block = nullptr;
  if (total <= BLOCK && gone_count - reused_count > REUSED_AFTER)
    block = gone[reused_count++ % gone.size()];
  else if (arena_used + total + BLOCK <= ARENA) {
    block = arena + arena_used;
    arena_used += (total + BLOCK - 1) / BLOCK * BLOCK;
  }
  if (block != nullptr) memset(block, 0, total);
  return block;
}
void *shared_malloc(size_t size) { return shared_calloc(1, size); }
void shared_free(void *) {}
void say_nothing(memdb_log_level, const memdb_log_site &, const char *, ...) {}
void keep_block(void *block) { gone[gone_count++ % gone.size()] = block; }

class ReadersTest : public EngineTest {
 protected:
  ReadersTest() {
    arena = static_cast<char *>(
        mmap(nullptr, ARENA, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    arena_used = gone_count = reused_count = 0;
    memdb_malloc = shared_malloc;
    memdb_calloc = shared_calloc;
    memdb_free = shared_free;
    memdb_retire = keep_block;
    memdb_log_err = nullptr;
    memdb_log_sink = say_nothing;
  }
  ~ReadersTest() override {
    memdb_retire = [](void *block) { memdb_free(block); };
    munmap(arena, ARENA);
  }

  // Runs read again and again in another process while this one does the same with write. True if
  // every read came to its end and gave true.
  static bool hold_together(const std::function<void()> &write, const std::function<bool()> &read) {
    const auto end = std::chrono::steady_clock::now() + WORK;
    const pid_t reader = fork();
    if (reader == 0) {
      while (std::chrono::steady_clock::now() < end)
        for (int i = 0; i < 1000; i++)
          if (!read()) _exit(1);
      _exit(0);
    }
    while (std::chrono::steady_clock::now() < end)
      for (int i = 0; i < 1000; i++) write();
    int status = 0;
    waitpid(reader, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
};

TEST_F(ReadersTest, AFieldEndsAtAnyMomentWhateverIsWrittenToIt) {
  memdb_tbl *const table =
      memdb_create_tbl(std::array<tbl_dcl, 2>{{{7, PLAIN}, {7, PLAIN}}}.data(), 2);
  const char *const fields[] = {"short", "neighbour"};
  memdb_row *const row = memdb_insert(table, fields);
  bool longer = false;
  EXPECT_TRUE(hold_together(
      [&] {
        memdb_set_field(table, row, 0, longer ? "much too long a text" : "x");
        longer = !longer;
      },
      [&] { return strlen(memdb_get_field(table, row, 0)) <= 7; }));
}

// The key's link lies behind a column of that length, in the row's block behind its two pointers.
TEST_F(ReadersTest, AChainLeadsFromRowToRowWhereverItsLinksLie) {
  memdb_idx_len = 1;
  for (const uint32_t lead : {39u, 40u, 43u, 44u, 46u}) {
    SCOPED_TRACE("link at byte " + std::to_string(16 + lead + 1) + " of the row");
    arena_used = gone_count = reused_count = 0;
    const tbl_dcl columns[] = {{lead, PLAIN}, {15, INDEXED}};
    memdb_tbl *const table = memdb_create_tbl(columns, 2);
    std::array<memdb_row *, 40> rows{};
    const auto key = [](size_t i) { return "k" + std::to_string(i % 40); };
    size_t next = 0;
    EXPECT_TRUE(hold_together(
        [&] {
          const size_t i = next++ * 7 % rows.size();
          if (rows[i] != nullptr) {
            memdb_delete_row(table, rows[i]);
            rows[i] = nullptr;
            return;
          }
          const std::string text = key(i);
          const char *const fields[] = {"lead", text.c_str()};
          rows[i] = memdb_insert(table, fields);
        },
        [&] {
          const std::string wanted = key(next++);
          const char *const fields[] = {nullptr, wanted.c_str()};
          memdb_cursor cursor;
          const memdb_row *row = memdb_select(table, fields, &cursor);
          const auto *const place = reinterpret_cast<const char *>(row);
          return row == nullptr ||
                 (place > arena && place < arena + ARENA && (place - arena) % BLOCK == 0);
        }));
    EXPECT_EQ(table->cols[1].changes % 2, 0u);
  }
}

// A table of three rows in one chain, a, b, c, with links that lie unaligned.
class StoppedWriterTest : public ReadersTest {
 protected:
  StoppedWriterTest() {
    memdb_idx_len = 1;
    const tbl_dcl columns[] = {{6, PLAIN}, {7, INDEXED}};
    table_ = memdb_create_tbl(columns, 2);
    for (const char *key : {"a", "b", "c"}) insert_key(key);
  }

  memdb_row *insert_key(const char *key) {
    const char *const fields[] = {"x", key};
    return memdb_insert(table_, fields);
  }
  memdb_col &column() { return table_->cols[1]; }
  char *link_of(memdb_row *row) { return memdb_data(row) + column().offset - sizeof(memdb_row *); }
  memdb_row *find(const char *key) { return memdb_idx_find(&column(), key); }

  memdb_tbl *table_;
};

TEST_F(StoppedWriterTest, ALinkThatIsHalfWrittenIsTakenAsItWillBe) {
  memdb_row *const a = find("a");
  memdb_row *const b = find("b");
  memdb_row *const c = find("c");
  // As between the two stores of a writer that takes b out.
  column().changing = link_of(a);
  column().changing_to = c;
  column().changes |= 1;
  memset(link_of(a), 0xA5, 4);
  EXPECT_EQ(find("c"), c);
  EXPECT_EQ(find("b"), nullptr);
  EXPECT_EQ(memdb_idx_next_res(a, &column(), "c"), c);
  // A link that isn't the one in work is as it is.
  EXPECT_EQ(memdb_idx_next_res(b, &column(), "c"), c);
}

TEST_F(StoppedWriterTest, TheNextChangeAfterAKilledWritersIsCountedAsAnyOther) {
  column().changing = link_of(find("a"));
  column().changing_to = find("b");
  column().changes |= 1;
  const uint32_t killed = column().changes;
  memdb_row *const last = insert_key("d");
  EXPECT_EQ(column().changes, killed + 3)
      << "the killed one's end, then a change's beginning and end";
  EXPECT_EQ(find("d"), last);
}

TEST_F(StoppedWriterTest, ASearchLooksAgainWhereAChangeHasEndedMeanwhile) {
  const std::atomic_ref changes(column().changes);
  const memdb_row *const last = find("c");
  std::atomic<bool> ends = false;
  std::thread writer([&] {
    while (!ends) changes.fetch_add(2);
  });
  for (int i = 0; i < 20000; i++) ASSERT_EQ(find("c"), last);
  ends = true;
  writer.join();
}

// The writer is stopped wherever it is, again and again, and each time a reader goes through the
// whole chain.
TEST_F(StoppedWriterTest, AWriterThatIsStoppedAnywhereStopsNoReader) {
  const pid_t writer = fork();
  if (writer == 0)
    for (;;) memdb_delete_row(table_, insert_key("bb"));
  int in_a_change = 0;
  for (int i = 0; i < 1500; i++) {
    usleep(50);
    kill(writer, SIGSTOP);
    int status = 0;
    waitpid(writer, &status, WUNTRACED);
    in_a_change += static_cast<int>(column().changes % 2);
    for (const char *key : {"a", "b", "c"}) ASSERT_NE(find(key), nullptr);
    kill(writer, SIGCONT);
  }
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  EXPECT_GT(in_a_change, 0) << "no stop met a change";
}

TEST_F(ReadersTest, OnlyLinksThatLieUnalignedAreCountedWhenTheyChange) {
  memdb_idx_len = 1;
  const tbl_dcl columns[] = {{7, INDEXED}, {6, PLAIN}, {7, INDEXED}};
  memdb_tbl *const table = memdb_create_tbl(columns, 3);
  for (const char *key : {"a", "b", "c"}) {
    const char *const fields[] = {key, "x", key};
    memdb_insert(table, fields);
  }
  EXPECT_EQ(table->cols[0].changes, 0u) << "at the row's beginning";
  EXPECT_EQ(table->cols[2].changes, 4u) << "the bucket's word is aligned, two rows' links are not";
}

}  // namespace
}  // namespace engine_test
