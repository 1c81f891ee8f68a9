// A process killed ahead of each step of its work, and what the stop makes of it: the files then
// hold rows as they were written, and no text is gone that was there.
//
// A step is a call into the host, for memory or the log too, a file operation, or a row's hash.
#include "tests/multiprocess/fixture.h"

namespace tables_test {
namespace {

// What the files of the table hold; "<none>" for one that isn't there.
struct file_texts {
  std::string main;
  std::string backup;
  std::string refused_main = "<none>";
  std::string refused_backup = "<none>";
  bool operator==(const file_texts &) const = default;
};

void PrintTo(const file_texts &files, std::ostream *out) {
  *out << "main:\n"
       << files.main << "backup:\n"
       << files.backup << "refused:\n"
       << files.refused_main << "\nrefused backup:\n"
       << files.refused_backup;
}

std::string file_of(const texts &rows) {
  std::string out = "Version 1\n";
  for (const std::string &row : rows) out += row + "\n";
  return out;
}

const std::string OLD = file_of({"1|old|generation|g9"});
const std::string STORED = file_of({"1|ann|rome|g1", "2|bob|oslo|g1", "3|cat|bern|g2"});
const std::string BAD = STORED + "a row too short\n";
const std::string BAD_OLD = OLD + "another one\n";
const std::string NO_ROWS = file_of({});
// With the row that each life begins with, so that the stop has something to store.
const texts ROWS = {"1|ann|rome|g1", "2|bob|oslo|g1", "3|cat|bern|g2", "4|dan|kyiv|g1"};

int killed_ahead_of;
int steps;
void count_step() {
  if (++steps == killed_ahead_of) kill(getpid(), SIGKILL);
}
uint32_t hash_of(const char *text) {
  count_step();
  return memdb_hash1(text);
}

class KilledProcessTest : public MultiprocessTest {
 protected:
  struct functions {
    function insert;
    function update;
    function remove;
  };
  using work = std::function<void(const functions &)>;

  static table_spec people() {
    table_spec spec;
    spec.use_index = true;
    spec.columns = {{"id", 10, 1}, {"name", 20, 1}, {"city", 30, 0}, {"team", 5, 1}};
    return spec;
  }

  // One server, from its start to its stop. A process of it does the work, and is killed ahead of
  // its step of that number. False if it has no such step.
  bool live(int number, const file_texts &at_work, const work &act, file_texts *left) {
    standin::reset();
    for (const std::string &file : {main_file(), backup_file()})
      std::filesystem::remove(file + ".refused");
    write(main_file(), STORED);
    write(backup_file(), OLD);
    start_module({people()});
    const functions all = {prepare("tarn_memdb_insert", {"t,$var(q)"}),
                           prepare("tarn_memdb_update", {"t,$var(q)", "$var(v)"}),
                           prepare("tarn_memdb_delete", {"t,$var(q)"})};
    EXPECT_EQ(all.insert("|dan|kyiv|g1"), 4);
    write(main_file(), at_work.main);
    write(backup_file(), at_work.backup);
    process worker([&] {
      watch();
      steps = 0;
      killed_ahead_of = number;
      memdb_hash_str = hash_of;
      standin::call_ahead_of_steps(count_step);
      standin::set_debug_level(L_DBG);
      act(all);
      return steps < number ? 0 : 1;
    });
    const int result = worker.exit_code();
    EXPECT_TRUE(result == -1 || result == 0);
    module_->destroy();
    module_.reset();
    EXPECT_THAT(standin::memory_errors(), testing::IsEmpty());
    standin::reset();
    *left = {read(main_file()), read(backup_file()), read(main_file() + ".refused"),
             read(backup_file() + ".refused")};
    return result != 0;
  }

  // Lives with a kill ahead of each step of the work, then one without. Gives what each left.
  std::vector<file_texts> left_by_kills(const file_texts &at_work, const work &act) {
    std::vector<file_texts> all;
    bool was_killed = true;
    while (was_killed) {
      all.emplace_back();
      was_killed = live(static_cast<int>(all.size()), at_work, act, &all.back());
    }
    EXPECT_GT(all.size(), 3u);
    return all;
  }

  // Each of these, and nothing else, is left by some kill.
  void expect_files(const file_texts &at_work, const work &act,
                    const std::vector<file_texts> &expected) {
    const std::vector<file_texts> all = left_by_kills(at_work, act);
    EXPECT_THAT(all, testing::Each(testing::AnyOfArray(expected)));
    for (const file_texts &each : expected) EXPECT_THAT(all, testing::Contains(each));
  }

  static constexpr char RELOAD[] = "tarn_memdb.reload_table";
  static void reload(const functions &) { standin::rpc_call(RELOAD, {"t"}); }
};

TEST_F(KilledProcessTest, AnInsertLeavesTheWholeRowOrNone) {
  texts with_new = ROWS;
  with_new.push_back("5|eve|riga|g2");
  expect_files({STORED, OLD}, [](const functions &all) { all.insert("|eve|riga|g2"); },
               {{file_of(ROWS), STORED}, {file_of(with_new), STORED}});
}

TEST_F(KilledProcessTest, AnUpdateLeavesEachRowAsItWasOrAsItIsToBe) {
  std::vector<file_texts> allowed = {{file_of(ROWS), STORED}};
  texts rows = ROWS;
  for (const size_t next : {3u, 1u, 0u}) {
    rows[next].replace(rows[next].find('|', 2) + 1, 4, "bonn");
    allowed.push_back({file_of(rows), STORED});
  }
  expect_files(
      {STORED, OLD}, [](const functions &all) { all.update("*|*|*|g1", "*|*|bonn|*"); }, allowed);
}

// What a row without any text would do to its file: no start could read it.
TEST_F(KilledProcessTest, AnUpdateThatTakesRowsOutLeavesNoneWithoutText) {
  const std::vector<file_texts> all =
      left_by_kills({STORED, OLD}, [](const functions &each) { each.update("*|*|*|g1", "|||"); });
  for (const file_texts &left : all) EXPECT_EQ(left.main.find("\n|||\n"), std::string::npos);
  EXPECT_EQ(all.back(), (file_texts{file_of({"3|cat|bern|g2"}), STORED}));
}

TEST_F(KilledProcessTest, ADeleteLeavesEachRowWholeOrTakesItAway) {
  std::vector<file_texts> allowed = {{file_of(ROWS), STORED}};
  texts rows = ROWS;
  for (const long next : {3, 1, 0}) {
    rows.erase(rows.begin() + next);
    allowed.push_back({file_of(rows), STORED});
  }
  const auto remove = [](const functions &all) { all.remove("*|*|*|g1"); };
  expect_files({STORED, OLD}, remove, allowed);
}

// Ahead of a reload's beginning there is still something to store.

TEST_F(KilledProcessTest, AReloadThatIsCutOffLeavesTheFilesThatItReads) {
  expect_files({STORED, OLD}, reload, {{file_of(ROWS), STORED}, {STORED, OLD}, {STORED, STORED}});
}

TEST_F(KilledProcessTest, AReloadOfABadMainFileLosesNoText) {
  expect_files({BAD, OLD}, reload,
               {{file_of(ROWS), BAD}, {BAD, OLD}, {"<none>", OLD, BAD}, {OLD, OLD, BAD}});
}

TEST_F(KilledProcessTest, AReloadOfTwoBadFilesLosesNoText) {
  expect_files({BAD, BAD_OLD}, reload,
               {{file_of(ROWS), BAD},
                {BAD, BAD_OLD},
                {"<none>", BAD_OLD, BAD},
                {"<none>", "<none>", BAD, BAD_OLD},
                {NO_ROWS, "<none>", BAD, BAD_OLD}});
}

TEST_F(KilledProcessTest, AStoreThatIsCutOffIsMadeByTheStop) {
  const auto store = [](const functions &) { store_table_mngt(0, nullptr); };
  for (const file_texts &left : left_by_kills({STORED, OLD}, store)) {
    EXPECT_EQ(left.main, file_of(ROWS));
    EXPECT_EQ(left.backup, STORED) << "what was cut off is no generation";
  }
}

}  // namespace
}  // namespace tables_test
