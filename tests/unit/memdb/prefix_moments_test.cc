// A writer may be killed at any instruction. At each of them the look-up for prefixes gives readers
// without a lock what they may find, and whoever changes the table next finds it in order or puts
// it so.
#include <sys/wait.h>
#include <unistd.h>

#include "memdb/prefix/slots.h"
#include "tests/unit/memdb/prefix_fixture.h"
#include "tests/unit/memdb/single_steps.h"

extern "C" void __asan_init() __attribute__((weak));

namespace engine_test {
namespace {

// Where the sanitizers are linked in, another process takes as long to make as hundreds do else.
size_t between_processes(size_t moments_between) {
  return &__asan_init == nullptr ? moments_between : 100;
}

constexpr size_t ARENA = 1 << 21;
constexpr size_t PART_OF_A_CALL = 1 << 16;
constexpr uint32_t PREFIX = 1;
constexpr char KEY[] = "4930";

// Memory that is only ever taken, so that it can be taken amid a call that takes some as well.
alignas(64) char arena[ARENA];
size_t arena_used;

void *take_zeroed(size_t count, size_t size) {
  const size_t total = (count * size + 63) / 64 * 64;
  if (arena_used + total > ARENA) return nullptr;
  void *const block = arena + arena_used;
  arena_used += total;
  memset(block, 0, total);
  return block;
}

memdb_tbl *table;
memdb_row *subject;
// One of these characters is in the name of each row that readers may find.
const char *may_be_found;
size_t moments;
size_t known;
size_t taken_over;
const char *deviation;

void insert_route(const char *group, const char *prefix, const char *name) {
  const char *const fields[] = {group, prefix, name};
  subject = memdb_insert(table, fields);
}

memdb_prefix_search search_for(const char *key) {
  static const char *const given[] = {"g", nullptr, nullptr};
  return {PREFIX, key, given, INT32_MAX};
}

bool is_found(const memdb_row *row) {
  return strpbrk(memdb_get_field(table, row, 2), may_be_found) != nullptr;
}

void look_beside_writer() {
  const memdb_row *found[MEMDB_PREFIX_MOST_EQUAL];
  const int32_t count = memdb_longest_prefix(table, search_for(KEY), found);
  if (count == MEMDB_PREFIX_UNKNOWN) return;
  known++;
  if (count == 0) deviation = "a row that was there all the while isn't found";
  for (int32_t i = 0; i < count; i++)
    if (!is_found(found[i])) deviation = "a row is found that hasn't the longest entry";
}

// Another process goes on with the table as it is now. 0 if every look-up that it makes is a
// walk's.
int go_on() {
  arena_used += PART_OF_A_CALL;  // whatever the call was about to take
  const auto agrees = [] {
    for (const char *key : {"4930", "49", "5", "493012", "1"}) {
      const memdb_prefix_search search = search_for(key);
      const std::optional<found_rows> found = look_up_prefix(table, search);
      if (found && *found != walk_for_prefix(table, search)) return false;
    }
    return true;
  };
  memdb_mend_list(table);
  // Asked for by the one that was killed, or now.
  memdb_want_prefixes(table, PREFIX, 1);
  for (int i = 0; i < 3; i++) {
    insert_route("g", "493", "later");
    if (!agrees()) return 1;
    memdb_set_field(table, subject, PREFIX, "4930");
    if (!agrees()) return 2;
  }
  while (table->first != nullptr) {
    memdb_delete_row(table, table->last);
    if (!agrees()) return 3;
  }
  insert_route("g", "49", "last");
  const memdb_prefix_search search = search_for("49");
  const std::optional<found_rows> found = look_up_prefix(table, search);
  // A count that is one too high keeps a table from counting as empty.
  if (!found) return table->row_cnt == 1 ? 4 : 0;
  return found->size() == 1 ? 0 : 5;
}

void let_another_go_on() {
  const pid_t other = fork();
  if (other == 0) _exit(go_on());
  int status = 0;
  waitpid(other, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
    taken_over++;
  else
    deviation = "another writer can't go on";
}

void look() {
  moments++;
  if (deviation != nullptr) return;
  look_beside_writer();
  // Few instructions are the first of their kind; every fifth meets each store's surroundings.
  if (moments % between_processes(5) == 0) let_another_go_on();
}

class PrefixMomentsTest : public PrefixTest {
 protected:
  PrefixMomentsTest() {
    arena_used = 0;
    memdb_malloc = [](size_t size) { return take_zeroed(1, size); };
    memdb_calloc = take_zeroed;
    memdb_free = [](void *) {};
    memdb_log_err = nullptr;
    table =
        memdb_create_tbl(std::array<tbl_dcl, 3>{{{7, PLAIN}, {15, PLAIN}, {15, PLAIN}}}.data(), 3);
    memdb_want_prefixes(table, PREFIX, 1);
    insert_route("g", "49", "stays");
    for (const char *prefix : {"", "5", "6"}) insert_route("g", prefix, "other");
    moments = known = taken_over = 0;
    deviation = nullptr;
    may_be_found = "s";
  }

  static void expect_right_at_each_moment(void (*work)()) {
    single_steps::run(look, work);
    EXPECT_EQ(deviation, nullptr) << deviation;
    EXPECT_GT(moments, 100u);
    EXPECT_GT(known, 0u);
    EXPECT_GE(taken_over, moments / between_processes(5));
  }

  static std::string found_name(const char *key) {
    const std::optional<found_rows> found = look_up_prefix(table, search_for(key));
    return !found || found->empty() ? "" : memdb_get_field(table, found->front(), 2);
  }
};

TEST_F(PrefixMomentsTest, ARowThatIsInsertedIsFoundOrNot) {
  may_be_found = "sn";
  expect_right_at_each_moment([] { insert_route("g", "493", "new"); });
  EXPECT_EQ(found_name(KEY), "new");
}

TEST_F(PrefixMomentsTest, ARowThatIsDeletedIsFoundOrNot) {
  insert_route("g", "493", "new");
  may_be_found = "sn";
  expect_right_at_each_moment([] { memdb_delete_row(table, subject); });
  EXPECT_EQ(found_name(KEY), "stays");
}

// Between its two entries a row might be missed at both.
TEST_F(PrefixMomentsTest, ARowWhoseEntryIsOverwrittenIsFoundByOneOfThem) {
  insert_route("g", "493", "new");
  may_be_found = "n";
  expect_right_at_each_moment([] { memdb_set_field(table, subject, PREFIX, "4930"); });
  EXPECT_EQ(found_name(KEY), "new");
  moments = known = taken_over = 0;
  expect_right_at_each_moment([] { memdb_set_field(table, subject, PREFIX, "493"); });
  EXPECT_EQ(found_name(KEY), "new");
}

TEST_F(PrefixMomentsTest, ARowThatComesIntoTheGroupIsFoundOrNot) {
  insert_route("h", "493", "new");
  may_be_found = "sn";
  expect_right_at_each_moment([] { memdb_set_field(table, subject, 0, "g"); });
  EXPECT_EQ(found_name(KEY), "new");
}

TEST_F(PrefixMomentsTest, ALookUpThatIsAskedForAnswersOnceItHasAllRows) {
  memdb_unwant_prefixes(table);
  expect_right_at_each_moment([] { memdb_want_prefixes(table, PREFIX, 1); });
  EXPECT_EQ(found_name(KEY), "stays");
}

TEST_F(PrefixMomentsTest, SlotsGrowAndAreMadeWithNoRowMissing) {
  for (int i = 0; i < 43; i++) insert_route("g", "7", "filler");
  const auto part = [] { return memdb_prefix_places(table->prefixes[0].slots)[0].part; };
  const uint64_t before = part();
  expect_right_at_each_moment([] {
    insert_route("g", "7", "filler");
    insert_route("g", "7", "filler");
  });
  EXPECT_NE(part(), before);
  EXPECT_EQ(found_name(KEY), "stays");
}

TEST_F(PrefixMomentsTest, SlotsAreMadeInPartsAndInOneWithNoRowMissing) {
  memdb_prefixes.slots_in_one = 64;
  memdb_prefixes.part_bits = 1;
  const auto parts = [] { return memdb_prefix_places(table->prefixes[0].slots).size(); };
  for (int i = 0; i < 44; i++) insert_route("g", "7", "filler");
  EXPECT_EQ(parts(), 1U);
  expect_right_at_each_moment([] { insert_route("g", "7", "filler"); });
  EXPECT_GT(parts(), 1U);
  while (table->row_cnt > 16) memdb_delete_row(table, table->first);
  EXPECT_GT(parts(), 1U);
  expect_right_at_each_moment([] { memdb_delete_row(table, table->first); });
  EXPECT_EQ(parts(), 1U);
  EXPECT_EQ(found_name(KEY), "stays");
}

TEST_F(PrefixMomentsTest, ATableThatIsEmptiedIsFoundAsItWasOrEmpty) {
  single_steps::run(
      [] {
        moments++;
        const memdb_row *found[MEMDB_PREFIX_MOST_EQUAL];
        const int32_t count = memdb_longest_prefix(table, search_for(KEY), found);
        if (count != MEMDB_PREFIX_UNKNOWN && (count != 1 || !is_found(found[0])))
          deviation = "something else is found";
      },
      [] { memdb_delete_all(table); });
  EXPECT_EQ(deviation, nullptr) << deviation;
  EXPECT_GT(moments, 50u);
  insert_route("g", "4", "again");
  EXPECT_EQ(found_name(KEY), "again");
}

// The other way round: a writer's whole work between two instructions of a search, at each place,
// each time in a process of its own, which ends the search.
class PrefixSearchMomentsTest : public PrefixMomentsTest {
 protected:
  // Three rows of the longest entry, named 1, 2 and 3 by age, one of a shorter one, and others.
  PrefixSearchMomentsTest() {
    memdb_delete_all(table);
    insert_route("g", "49", "0");
    rows_[0] = subject;
    for (const char *name : {"1", "2", "3"}) {
      insert_route("g", "493", name);
      rows_[static_cast<size_t>(*name - '0')] = subject;
    }
    for (int i = 0; i < 40; i++) insert_route("h", "493", "other group");
  }

  // A search is right wherever the work is done amid it.
  static void expect_right_wherever(void (*work)(), bool (*is_right)(const texts &names)) {
    work_ = work;
    amid_work_ = false;
    const memdb_row *found[MEMDB_PREFIX_MOST_EQUAL];
    static int32_t count;
    static std::span<const memdb_row *> room;
    room = found;
    single_steps::run(do_work_in_another,
                      [] { count = memdb_longest_prefix(table, search_for(KEY), room); });
    if (amid_work_) {
      texts names;
      for (int32_t i = 0; i < count; i++)
        names.push_back(memdb_get_field(table, found[static_cast<size_t>(i)], 2));
      _exit(count == MEMDB_PREFIX_UNKNOWN || is_right(names) ? 0 : 1);
    }
    EXPECT_EQ(count, 3);
    EXPECT_GT(moments, 200u);
    EXPECT_EQ(deviation, nullptr) << deviation;
  }

  static bool has(const texts &names, const char *name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  }
  static bool is_newest_first(const texts &names) {
    return std::is_sorted(names.rbegin(), names.rend());
  }

  static inline std::array<memdb_row *, 4> rows_;  // by name

 private:
  static void do_work_in_another() {
    if (++moments % between_processes(1) != 0) return;
    const pid_t other = fork();
    if (other == 0) {
      single_steps::end();
      amid_work_ = true;
      work_();
      return;
    }
    int status = 0;
    waitpid(other, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) deviation = "a search goes wrong";
  }

  static inline void (*work_)();
  static inline bool amid_work_;
};

TEST_F(PrefixSearchMomentsTest, ASlotThatIsUsedAgainIsReadAsOneRow) {
  expect_right_wherever(
      [] {
        memdb_delete_row(table, rows_[1]);
        insert_route("g", "493", "4");
      },
      [](const texts &names) {
        return is_newest_first(names) && has(names, "2") && has(names, "3");
      });
}

TEST_F(PrefixSearchMomentsTest, ARowWithAnotherEntryIsFoundByOneOfThem) {
  expect_right_wherever(
      [] {
        for (size_t name = 1; name <= 3; name++)
          memdb_set_field(table, rows_[name], PREFIX, name == 2 ? "49" : "4");
      },
      [](const texts &names) {
        const texts both{"3", "2", "1"}, one{"2", "0"};
        return names == both || names == one;
      });
}

TEST_F(PrefixSearchMomentsTest, SlotsThatAreReplacedStillAnswer) {
  expect_right_wherever(
      [] {
        for (int i = 0; i < 30; i++) insert_route("g", "7", "more");
      },
      [](const texts &names) {
        const texts all{"3", "2", "1"};
        return names == all;
      });
}

TEST_F(PrefixSearchMomentsTest, ARowThatStaysIsFoundThoughLongerEntriesGo) {
  expect_right_wherever(
      [] {
        for (size_t name = 1; name <= 3; name++) memdb_delete_row(table, rows_[name]);
        insert_route("h", "493", "again");
      },
      [](const texts &names) {
        return names == texts{"0"} ||
               (!names.empty() && !has(names, "0") && is_newest_first(names));
      });
}

}  // namespace
}  // namespace engine_test
