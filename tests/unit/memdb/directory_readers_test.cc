// A reader without a lock beside a writer who makes directories, enlarges them and makes chains of
// them again, in two processes: it finds every row that is there all the while, and never meets a
// block that was given back.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>

#include "tests/unit/memdb/engine_fixture.h"
#include "tests/unit/memdb/shared_blocks.h"

namespace engine_test {
namespace {

constexpr auto WORK = std::chrono::milliseconds(250);
constexpr size_t KEPT = 40;
constexpr size_t TWINS = 3;  // kept rows of each text
constexpr size_t OTHERS = 300;

std::string kept_key(size_t i) { return std::to_string(i * 5) + "@sip.example.org"; }
std::string other_key(size_t i) { return std::to_string(i * 5 + 1 + i % 3) + "@sip.example.org"; }

class DirectoryReadersTest : public EngineTest {
 protected:
  DirectoryReadersTest() {
    memdb_log_err = nullptr;
    memdb_idx_len = 1;
    memdb_directories = {.plain_rows = 0, .plain_chain = 4, .slots_in_one = 256};
  }

  ~DirectoryReadersTest() override { end_other(); }

  void make_table(uint32_t lead) {
    others_.fill(nullptr);
    const tbl_dcl columns[] = {{lead, PLAIN}, {25, INDEXED}};
    table_ = memdb_create_tbl(columns, 2);
    for (size_t twin = 0; twin < TWINS; twin++)
      for (size_t i = 0; i < KEPT; i++) insert_key(kept_key(i));
    // Behind all others, so that an overwrite of it hides none.
    changed_ = insert_key("z");
  }

  memdb_row *insert_key(const std::string &key) {
    const char *const fields[] = {"lead", key.c_str()};
    return memdb_insert(table_, fields);
  }

  // Inserts and deletes the other rows, more of the one, then of the other, and now and then
  // overwrites a text.
  void write(uint32_t number) {
    const bool grows = number / 1500 % 2 == 0;
    const size_t i = number * size_t{7919} % OTHERS;
    if (grows && others_[i] == nullptr) {
      others_[i] = insert_key(other_key(i));
    } else if (!grows && others_[i] != nullptr) {
      memdb_delete_row(table_, others_[i]);
      others_[i] = nullptr;
    } else if (number % 16 == 0) {
      memdb_set_field(table_, changed_, 1, number % 32 == 0 ? "zz" : "z");
    }
  }

  bool read(uint32_t number) {
    const std::string key = kept_key(number % KEPT);
    const char *const wanted[] = {nullptr, key.c_str()};
    blocks_.begin_read();
    size_t met = 0;
    memdb_cursor cursor;
    for (const memdb_row *row = memdb_select(table_, wanted, &cursor); row != nullptr;
         row = memdb_select_next(&cursor))
      met++;
    blocks_.end_read();
    return met == TWINS;
  }

  // Forks a process that does something again and again, until it is ended, which it is by itself
  // when that gives false.
  void start(bool (*again)(DirectoryReadersTest *self, uint32_t number)) {
    blocks_.begin_reading();
    other_ = fork();
    if (other_ != 0) return;
    for (uint32_t number = 0; again(this, number); number++) {
    }
    _exit(1);
  }
  void start_reader() {
    start([](DirectoryReadersTest *self, uint32_t number) { return self->read(number); });
  }
  void start_writer() {
    start([](DirectoryReadersTest *self, uint32_t number) {
      self->write(number);
      return true;
    });
  }

  void end_other() {
    if (other_ == 0) return;
    kill(other_, SIGKILL);
    waitpid(other_, nullptr, 0);
    other_ = 0;
  }

  void expect_that_it_still_reads() {
    int status = 0;
    const pid_t ended = waitpid(other_, &status, WNOHANG);
    EXPECT_EQ(ended, 0) << (WIFEXITED(status) ? "a read missed a row" : "a read ended badly");
    if (ended != 0) other_ = 0;
    end_other();
  }

  shared_blocks blocks_;
  memdb_tbl *table_ = nullptr;
  memdb_row *changed_ = nullptr;
  std::array<memdb_row *, OTHERS> others_{};
  pid_t other_ = 0;
};

// With links that are aligned and that aren't: they lie behind a column of that length.
TEST_F(DirectoryReadersTest, EveryRowThatStaysIsFoundWhateverBecomesOfItsBucket) {
  for (const uint32_t lead : {7u, 10u}) {
    SCOPED_TRACE(lead);
    make_table(lead);
    start_reader();
    const auto end = std::chrono::steady_clock::now() + WORK;
    uint32_t number = 0;
    // On a busy machine it takes longer until the bucket has changed often enough.
    while (std::chrono::steady_clock::now() < end || table_->cols[1].conversions <= 100)
      for (int i = 0; i < 100; i++) write(number++);
    expect_that_it_still_reads();
    EXPECT_GT(table_->cols[1].conversions, 100u);
  }
}

// The writer is stopped wherever it is, again and again, and each time every row is read.
TEST_F(DirectoryReadersTest, AWriterThatIsStoppedAnywhereStopsNoReader) {
  make_table(10);
  start_writer();
  for (uint32_t i = 0; i < 600; i++) {
    usleep(50 + i % 7);
    kill(other_, SIGSTOP);
    int status = 0;
    waitpid(other_, &status, WUNTRACED);
    for (uint32_t number = 0; number < KEPT; number++) ASSERT_TRUE(read(number));
    kill(other_, SIGCONT);
  }
  end_other();
  EXPECT_GT(table_->cols[1].conversions, 10u);
}

}  // namespace
}  // namespace engine_test
