// A writer may be stopped or killed at any instruction while a bucket changes its form. So at each
// of them a reader looks for the rows that stay, and at many of them another writer goes on from
// there, in a process of its own, as whoever comes after a killed one does.
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "tests/unit/memdb/engine_fixture.h"
#include "tests/unit/memdb/shared_blocks.h"
#include "tests/unit/memdb/single_steps.h"

namespace engine_test {
namespace {

constexpr std::array KEPT = {"b@sip", "m@sip", "y@sip"};
constexpr size_t TWINS = 2;
const size_t SUCCEEDED_ONCE_IN = forked_at_once_in(101);

memdb_tbl *table;
memdb_row *subject;
size_t moments;
size_t looked_at_once_in;  // more than 1 for long work
size_t successors;
const char *deviation;

memdb_row *insert_key(const char *key) {
  const char *const fields[] = {"lead", key};
  return memdb_insert(table, fields);
}

size_t count_of(const char *key) {
  const char *const wanted[] = {nullptr, key};
  size_t count = 0;
  memdb_cursor cursor;
  for (const memdb_row *row = memdb_select(table, wanted, &cursor); row != nullptr && count < 10;
       row = memdb_select_next(&cursor))
    count++;
  return count;
}

bool kept_are_found() {
  for (const char *key : KEPT)
    if (count_of(key) != TWINS) return false;
  return true;
}

// What comes after a kill: the list is mended, rows come, change and go, and all go in the end.
// Gives 0 if all was in order.
int succeed() {
  memdb_mend_list(table);
  memdb_row *rows[8];
  for (memdb_row *&row : rows) {
    const char key[] = {static_cast<char>('d' + 2 * (&row - rows)), '@', 's', 'i', 'p', '\0'};
    row = insert_key(key);
    if (row == nullptr || !kept_are_found() || count_of(key) == 0) return 1;
  }
  memdb_set_field(table, rows[7], 1, "s@sip");  // hides none of the kept
  if (!kept_are_found()) return 2;
  for (memdb_row *row : rows) {
    memdb_delete_row(table, row);
    if (!kept_are_found()) return 3;
  }
  for (int i = 0; i < 8; i++)
    if (insert_key("k@sip") == nullptr || !kept_are_found()) return 4;
  while (table->first != nullptr) memdb_delete_row(table, table->first);
  for (uint32_t i = 0; i < table->cols[1].idx_len; i++)
    if (table->cols[1].idx[i] != nullptr) return 5;
  return 0;
}

void look() {
  if (deviation != nullptr || moments++ % looked_at_once_in != 0) return;
  if (!kept_are_found()) deviation = "a reader misses a row";
  if (moments / looked_at_once_in % SUCCEEDED_ONCE_IN != 0) return;
  successors++;
  const pid_t successor = fork();
  if (successor == 0) _exit(succeed());
  int status = 0;
  waitpid(successor, &status, 0);
  if (!WIFEXITED(status))
    deviation = "another writer comes to grief";
  else if (WEXITSTATUS(status) != 0)
    deviation = "another writer finds rows missing or left";
}

class DirectoryMomentsTest : public EngineTest {
 protected:
  DirectoryMomentsTest() {
    memdb_log_err = nullptr;
    memdb_idx_len = 1;
    memdb_directories = {.plain_rows = 0, .plain_chain = 7, .slots_in_one = 64};
    const tbl_dcl columns[] = {{10, PLAIN}, {11, INDEXED}};
    table = memdb_create_tbl(columns, 2);
    for (size_t twin = 0; twin < TWINS; twin++)
      for (const char *key : KEPT) insert_key(key);
    moments = successors = 0;
    looked_at_once_in = 1;
    deviation = nullptr;
  }

  static memdb_bucket_kind bucket() { return memdb_bucket_kind(table->cols[1].idx[0]); }
  static uint32_t slots() { return bucket().table()->mask + 1; }

  // So many rows of further texts, each of its own.
  void insert_others(size_t count) {
    for (size_t i = 0; i < count; i++)
      others_.push_back(insert_key(("other" + std::to_string(others_.size())).c_str()));
  }
  void delete_others(size_t count) {
    for (; count > 0; count--) {
      memdb_delete_row(table, others_.back());
      others_.pop_back();
    }
  }

  static void expect_no_moment_without_the_kept(void (*work)()) {
    ASSERT_TRUE(kept_are_found());
    single_steps::run(look, work);
    EXPECT_EQ(deviation, nullptr) << deviation << " at moment " << moments;
    EXPECT_GT(moments, 100u);
    EXPECT_TRUE(successors > 0 || moments < looked_at_once_in * SUCCEEDED_ONCE_IN * 2);
  }

  shared_blocks blocks_{MAP_PRIVATE};
  std::vector<memdb_row *> others_;
};

void insert_subject() { subject = insert_key("subject"); }
void delete_subject() { memdb_delete_row(table, subject); }

TEST_F(DirectoryMomentsTest, AChainBecomesADirectory) {
  insert_others(1);
  ASSERT_TRUE(bucket().is_chain());
  expect_no_moment_without_the_kept([] { subject = insert_key("zz"); });
  EXPECT_NE(bucket().table(), nullptr);
}

TEST_F(DirectoryMomentsTest, ADirectoryIsEnlarged) {
  insert_others(21);
  ASSERT_EQ(slots(), 32u);
  expect_no_moment_without_the_kept(insert_subject);
  EXPECT_EQ(slots(), 64u);
}

TEST_F(DirectoryMomentsTest, ADirectoryIsMadeInParts) {
  looked_at_once_in = 97;
  insert_others(45);
  ASSERT_EQ(slots(), 64u);
  expect_no_moment_without_the_kept(insert_subject);
  EXPECT_NE(bucket().parts(), nullptr);
}

TEST_F(DirectoryMomentsTest, PartsBecomeOneTable) {
  looked_at_once_in = 97;
  insert_subject();
  insert_others(46);
  delete_others(33);
  ASSERT_NE(bucket().parts(), nullptr);
  expect_no_moment_without_the_kept(delete_subject);
  EXPECT_NE(bucket().table(), nullptr);
}

TEST_F(DirectoryMomentsTest, ATableIsMadeSmaller) {
  memdb_directories.slots_in_one = 256;
  insert_subject();
  insert_others(50);
  delete_others(50 - 29);
  ASSERT_EQ(slots(), 128u);
  expect_no_moment_without_the_kept(delete_subject);
  EXPECT_EQ(slots(), 64u);
}

TEST_F(DirectoryMomentsTest, ADirectoryBecomesAChainAheadOfAnOverwrite) {
  insert_others(12);
  subject = insert_key("zz");
  ASSERT_FALSE(bucket().is_chain());
  expect_no_moment_without_the_kept([] { memdb_set_field(table, subject, 1, "zzz"); });
  EXPECT_TRUE(bucket().is_chain());
}

TEST_F(DirectoryMomentsTest, ADirectoryBecomesAChainWithoutMemory) {
  insert_others(12);
  subject = insert_key("zz");
  ASSERT_FALSE(bucket().is_chain());
  memdb_malloc = [](size_t) -> void * { return nullptr; };
  expect_no_moment_without_the_kept([] { memdb_set_field(table, subject, 1, "zzz"); });
  EXPECT_TRUE(bucket().is_chain());
}

TEST_F(DirectoryMomentsTest, PartsBecomeAChainAheadOfAnOverwrite) {
  looked_at_once_in = 97;
  insert_others(60);
  subject = insert_key("zz");
  ASSERT_NE(bucket().parts(), nullptr);
  expect_no_moment_without_the_kept([] { memdb_set_field(table, subject, 1, "zzz"); });
  EXPECT_TRUE(bucket().is_chain());
}

TEST_F(DirectoryMomentsTest, RowsOfAnyPlaceAmongThoseOfTheirTextComeAndGo) {
  insert_others(12);
  for (size_t newer = 0; newer < 3; newer++) {
    expect_no_moment_without_the_kept(insert_subject);
    for (size_t i = 0; i < newer; i++) insert_key("subject");
    expect_no_moment_without_the_kept(delete_subject);
    EXPECT_EQ(count_of("subject"), newer * (newer + 1) / 2);
  }
}

// The other way round: a reader is stopped at its instructions, and at each of them a process of
// its own does all of some work and then goes on as the reader.
void (*work_meanwhile)();
bool is_reader_after_work;
size_t found_by_reader;

void work_and_go_on() {
  static const size_t stopped_once_in = forked_at_once_in(3);
  if (deviation != nullptr || moments++ % stopped_once_in != 0) return;
  const pid_t other = fork();
  if (other == 0) {
    work_meanwhile();
    is_reader_after_work = true;
    single_steps::end();
    return;
  }
  int status = 0;
  waitpid(other, &status, 0);
  if (status != 0) deviation = "a reader misses a row";
}

void convert() { insert_key("zz"); }
void convert_and_dissolve() {
  convert();
  memdb_set_field(table, table->first, 1, "zzz");
}
void convert_twice() {
  convert_and_dissolve();
  for (int i = 0; i < 9; i++) insert_key("zzzz");
}
void grow_to_parts() {
  for (char c = '\0'; c < 100; c++) {
    const char key[] = {static_cast<char>(' ' + c), '~', '\0'};
    insert_key(key);
  }
}
void go_as_far_as_the_kept() {
  while (table->first->next->next->next->next->next->next != nullptr)
    memdb_delete_row(table, table->first);
}

class InterruptedReaderTest : public DirectoryMomentsTest {
 protected:
  void expect_that_kept_are_found(void (*work)()) {
    work_meanwhile = work;
    moments = 0;
    is_reader_after_work = false;
    blocks_.begin_read();
    single_steps::run(work_and_go_on, [] { found_by_reader = count_of(KEPT[2]); });
    if (is_reader_after_work) _exit(found_by_reader == TWINS ? 0 : 1);
    blocks_.end_read();
    EXPECT_EQ(deviation, nullptr) << deviation << " after moment " << moments;
    EXPECT_GT(moments, 100u);
  }
};

void overwrite_newest() { memdb_set_field(table, table->first, 1, "zzz"); }

TEST_F(InterruptedReaderTest, FindsItsRowsWhateverBecomesOfAChainMeanwhile) {
  insert_others(1);
  for (const auto work : {convert, convert_and_dissolve, convert_twice, grow_to_parts})
    expect_that_kept_are_found(work);
  EXPECT_TRUE(bucket().is_chain());
}

TEST_F(InterruptedReaderTest, FindsItsRowsWhateverBecomesOfADirectoryMeanwhile) {
  insert_others(1);
  insert_key("zz");
  for (const auto work : {overwrite_newest, grow_to_parts, go_as_far_as_the_kept})
    expect_that_kept_are_found(work);
  EXPECT_NE(bucket().table(), nullptr);
}

TEST_F(InterruptedReaderTest, FindsItsRowsWhateverBecomesOfPartsMeanwhile) {
  grow_to_parts();
  insert_key("zz");
  for (const auto work : {overwrite_newest, grow_to_parts, go_as_far_as_the_kept})
    expect_that_kept_are_found(work);
  EXPECT_NE(bucket().parts(), nullptr);
}

}  // namespace
}  // namespace engine_test
