// Readers without a lock beside a writer in another process, which makes the look-up for prefixes
// come, grow, shrink and go. Blocks are used again only after the reader's search has ended.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>

#include "tests/unit/memdb/prefix_fixture.h"

namespace engine_test {
namespace {

constexpr size_t ARENA = size_t{1} << 27;
constexpr auto WORK = std::chrono::milliseconds(500);
constexpr uint32_t PREFIX = 1;
constexpr char KEY[] = "493012345";

struct shared_state {
  std::atomic<uint64_t> searches;  // that the reader has ended
  std::atomic<uint64_t> answered;  // by the look-up
  std::atomic<bool> stop;
};

shared_state *state;
char *arena;
size_t arena_used;
size_t used_again;

struct gone_block {
  void *block;
  uint64_t searches;  // that had ended when it went
};
std::map<size_t, std::deque<gone_block>> gone;  // by size
std::map<void *, size_t> sizes;

void *take_zeroed(size_t count, size_t size) {
  const size_t total = (count * size + 63) / 64 * 64;
  std::deque<gone_block> &same = gone[total];
  void *block = nullptr;
  if (!same.empty() && state->searches.load() > same.front().searches + 1) {
    block = same.front().block;
    same.pop_front();
    used_again++;
  } else if (arena_used + total <= ARENA) {
    block = arena + arena_used;
    arena_used += total;
  }
  if (block == nullptr) return nullptr;
  sizes[block] = total;
  return memset(block, 0, total);
}

void keep(void *block) { gone[sizes[block]].push_back({block, state->searches.load()}); }

class PrefixReadersTest : public PrefixTest {
 protected:
  PrefixReadersTest() {
    arena = static_cast<char *>(mmap(nullptr, ARENA + sizeof(shared_state), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    state = new (arena + ARENA) shared_state{};
    arena_used = used_again = 0;
    memdb_malloc = [](size_t size) { return take_zeroed(1, size); };
    memdb_calloc = take_zeroed;
    memdb_free = [](void *) {};
    memdb_retire = keep;
    memdb_log_err = nullptr;
    table_ =
        memdb_create_tbl(std::array<tbl_dcl, 3>{{{7, PLAIN}, {15, PLAIN}, {15, PLAIN}}}.data(), 3);
    memdb_want_prefixes(table_, PREFIX, 1);
    insert_route("g", "49", "stays");
  }
  ~PrefixReadersTest() override {
    memdb_retire = [](void *block) { memdb_free(block); };
    munmap(arena, ARENA + sizeof(shared_state));
    gone.clear();
    sizes.clear();
  }

  memdb_row *insert_route(const char *group, const std::string &prefix, const char *name) {
    const char *const fields[] = {group, prefix.c_str(), name};
    return memdb_insert(table_, fields);
  }

  // What the reader finds, by the look-up or else by a walk.
  found_rows find() const {
    const char *const given[] = {"g", nullptr, nullptr};
    const memdb_prefix_search search{PREFIX, KEY, given, INT32_MAX};
    const std::optional<found_rows> found = look_up_prefix(table_, search);
    if (found) state->answered.fetch_add(1, std::memory_order_relaxed);
    return found ? *found : walk_for_prefix(table_, search);
  }

  // Runs write again and again while another process searches. True if each search found rows, and
  // is_right said so of them.
  bool hold_together(const std::function<void()> &write,
                     const std::function<bool(const found_rows &)> &is_right) {
    const pid_t reader = fork();
    if (reader == 0) {
      while (!state->stop.load()) {
        const found_rows found = find();
        if (found.empty() || !is_right(found)) _exit(1);
        state->searches.fetch_add(1);
      }
      _exit(0);
    }
    for (const auto end = std::chrono::steady_clock::now() + WORK;
         std::chrono::steady_clock::now() < end;)
      write();
    state->stop.store(true);
    int status = 0;
    waitpid(reader, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  bool has_name(const memdb_row *row, const char *name) const {
    return strcmp(memdb_get_field(table_, row, 2), name) == 0;
  }

  memdb_tbl *table_;
};

TEST_F(PrefixReadersTest, ARowThatStaysIsFoundWhateverComesAndGoes) {
  memdb_prefixes.slots_in_one = 1 << 10;
  size_t next = 0;
  EXPECT_TRUE(hold_together(
      [&] {
        // From one row to some thousands and back, with entries of all lengths, some of the key's.
        const size_t rows = 10 + next % 5 * 800;
        std::deque<memdb_row *> added;
        for (size_t i = 0; i < rows; i++)
          added.push_back(insert_route(
              i % 3 == 0 ? "g" : "h",
              i % 7 == 0 ? std::string(KEY, next++ % 10) : std::to_string(next++ % 100000),
              "goes"));
        for (memdb_row *row : added) memdb_delete_row(table_, row);
      },
      [&](const found_rows &found) {
        // The one that stays, maybe with others of its length, or longer ones of its group.
        bool longer = false;
        bool stays = false;
        for (const memdb_row *row : found) {
          const size_t len = strlen(memdb_get_field(table_, row, PREFIX));
          if (strncmp(memdb_get_field(table_, row, PREFIX), KEY, len) != 0) return false;
          if (strcmp(memdb_get_field(table_, row, 0), "g") != 0) return false;
          longer = longer || len > 2;
          stays = stays || has_name(row, "stays");
        }
        return longer || stays;
      }));
  EXPECT_GT(state->answered.load(), 1000U);
  EXPECT_GT(used_again, 1000U);
}

// Each of its entries begins the key, so it has to be found by the one or the other.
TEST_F(PrefixReadersTest, ARowWhoseEntryIsOverwrittenIsFoundAllTheWhile) {
  memdb_row *const row = insert_route("g", "493", "moves");
  size_t next = 0;
  EXPECT_TRUE(hold_together(
      [&] {
        for (int i = 0; i < 100; i++) {
          memdb_set_field(table_, row, PREFIX, std::string(KEY, 3 + next++ % 6).c_str());
          if (next % 4 == 0) memdb_delete_row(table_, insert_route("g", "7", "goes"));
        }
      },
      [&](const found_rows &found) { return found.size() == 1 && has_name(found[0], "moves"); }));
  EXPECT_GT(state->answered.load(), 1000U);
}

TEST_F(PrefixReadersTest, EqualEntriesAreGivenNewestFirst) {
  // Their names count on; so does each row's place.
  size_t next = 10000;
  std::deque<memdb_row *> rows;
  EXPECT_TRUE(hold_together(
      [&] {
        for (int i = 0; i < 100; i++) {
          rows.push_back(insert_route("g", "493012", std::to_string(next++).c_str()));
          if (rows.size() <= 20) continue;
          memdb_delete_row(table_, rows.front());
          rows.pop_front();
        }
      },
      [&](const found_rows &found) {
        for (size_t i = 1; i < found.size(); i++)
          if (atoi(memdb_get_field(table_, found[i - 1], 2)) <=
              atoi(memdb_get_field(table_, found[i], 2)))
            return false;
        return true;
      }));
  EXPECT_GT(state->answered.load(), 1000U);
}

}  // namespace
}  // namespace engine_test
