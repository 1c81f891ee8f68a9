// Writing tables to their files: states, generations, failures of every file operation, full disks.
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>

#include "query/text/buffers.h"
#include "tables/files/table_paths.h"
#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

namespace tables_test {
namespace {

class StoreTest : public TablesTest {
 protected:
  // Stores the first table, with the log starting there.
  bool store() {
    standin::clear_logs();
    const bool stored = store_table(table());
    EXPECT_EQ(*table()->lock, 0u);
    EXPECT_EQ(standin::live_count(pool::pkg), 0u);
    return stored;
  }

  // The main file becomes a link to something else that stays when the store moves the main file
  // away, since there is no directory to move it to.
  void link_main_file_to(const std::string &target) {
    std::filesystem::remove_all(path("backup"));
    std::filesystem::create_symlink(target, main_file());
  }

  std::string could_not_open(const std::string &file) const {
    return message("Could not open file '%s'\n", file.c_str());
  }
  std::string could_not_write(const std::string &file) const {
    return message("Could not write to file '%s'\n", file.c_str());
  }
  // What a store says that fails for that reason.
  static texts not_stored(const std::string &reason) {
    return {reason, message("Could not store table '%s' to file '%s'\n", table()->table_name,
                            table()->file_name)};
  }
};

TEST_F(StoreTest, AnUnchangedTableTouchesNoFile) {
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  table()->state = TBL_UNCHANGED;
  watch();
  EXPECT_TRUE(store());
  EXPECT_TRUE(standin::file_history().empty());
  EXPECT_FALSE(exists(main_file()));
  EXPECT_EQ(log_texts(),
            (texts{"Storing table 't' to file 't.txt'\n", "Table 't' was not changed\n"}));
}

TEST_F(StoreTest, AChangedTableIsWrittenOldestRowFirst) {
  start(table_spec{});
  add(table(), {"A", "x", "1"});
  add(table(), {"B", "", "2"});
  add(table(), {"", "", "C"});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\nA|x|1\nB||2\n||C\n");
  EXPECT_FALSE(exists(backup_file()));
  EXPECT_EQ(table()->state, 0);
  EXPECT_EQ(log_texts(), (texts{"Storing table 't' to file 't.txt'\n",
                                "Table 't' was changed. Saving changes to file\n",
                                message("Saving backup file '%s'\n", backup_file().c_str()),
                                message("Saving file '%s'\n", main_file().c_str()),
                                "Table 't' state was set to value 0\n"}));
  EXPECT_EQ(standin::log_count(L_DBG), 5u);
}

TEST_F(StoreTest, ATableWithoutRowsIsTheVersionLineAlone) {
  start(table_spec{});
  table()->state = TBL_CHANGED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n");
}

TEST_F(StoreTest, AOneColumnTableHasNoSeparators) {
  table_spec spec;
  spec.columns = {{"a", 5, 0}};
  start(spec);
  add(table(), {"x"});
  add(table(), {""});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\nx\n\n");
}

TEST_F(StoreTest, AGeneratedIndexIsStoredLikeAnyColumn) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  add(table(), {"1", "b", "c"});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n1|b|c\n");
}

TEST_F(StoreTest, TextIsWrittenAsItStands) {
  start(table_spec{});
  add(table(), {"a|b", "*", "\\"});
  add(table(), {"#x", "l\nf", "\xFF%s"});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\na|b|*|\\\n#x|l\nf|\xFF%s\n");
}

TEST_F(StoreTest, AnUnknownStateIsAChange) {
  start(table_spec{});
  for (const int state : {3, -1}) {
    table()->state = state;
    EXPECT_TRUE(store());
    EXPECT_TRUE(logged(L_DBG, "Table 't' was changed. Saving changes to file\n"));
    EXPECT_EQ(table()->state, 0);
  }
}

TEST_F(StoreTest, EachStoreMovesTheGenerationBeforeToTheBackup) {
  start(table_spec{});
  add(table(), {"X", "", ""});
  EXPECT_TRUE(store());
  add(table(), {"Y", "", ""});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(backup_file()), "Version 1\nX||\n");
  EXPECT_EQ(read(main_file()), "Version 1\nX||\nY||\n");
  add(table(), {"Z", "", ""});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(backup_file()), "Version 1\nX||\nY||\n");
  EXPECT_EQ(read(main_file()), "Version 1\nX||\nY||\nZ||\n");
  EXPECT_TRUE(store());
  EXPECT_EQ(read(backup_file()), "Version 1\nX||\nY||\n");
}

TEST_F(StoreTest, ATableInTheMidstOfAReloadIsNotStored) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n4|5|6\n");
  add(table(), {"1", "2", "3"});
  for (const int state : {TBL_UNCHANGED, TBL_CHANGED, TBL_CLEARED}) {
    table()->state = state;
    set_being_reloaded(table(), true);
    watch();
    EXPECT_TRUE(store());
    EXPECT_TRUE(standin::file_history().empty());
    EXPECT_EQ(warnings(), texts{"Table 't' was being reloaded when the server stopped. Its files "
                                "stay as they are\n"});
    EXPECT_EQ(table()->state, state);
  }
  set_being_reloaded(table(), false);
  table()->state = TBL_CHANGED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n1|2|3\n");
}

// The port functions show what stands in the buffer.
TEST_F(StoreTest, AStoreThatWroteRowsLeavesTheLastOnesLineInTheQueryBuffer) {
  start(table_spec{});
  strcpy(query_buf, "before");
  table()->state = TBL_CHANGED;
  EXPECT_TRUE(store());
  EXPECT_STREQ(query_buf, "before") << "without rows";
  add(table(), {"A", "x", "1"});
  add(table(), {"B", "y", "2"});
  EXPECT_TRUE(store());
  EXPECT_STREQ(query_buf, "B|y|2");
  strcpy(query_buf, "before");
  EXPECT_TRUE(store());
  EXPECT_STREQ(query_buf, "before") << "with nothing to do";
}

TEST_F(StoreTest, ALineThatIsLongerThanTheQueryBufferIsCutInIt) {
  table_spec spec;
  spec.columns = {{"a", 3000, 0}, {"b", 3000, 0}};
  start(spec);
  const std::string a(2500, 'a'), b(2500, 'b');
  add(table(), {a.c_str(), b.c_str()});
  EXPECT_TRUE(store());
  EXPECT_EQ(query_buf, (a + "|" + b).substr(0, TEXT_BUFFER_SIZE - 1));
}

TEST_F(StoreTest, ATableClearedByAScriptKeepsItsRowsInTheBackup) {
  start(table_spec{});
  add(table(), {"X", "", ""});
  EXPECT_TRUE(store());
  memdb_delete_all(table()->tbl);
  table()->state = TBL_CHANGED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n");
  EXPECT_EQ(read(backup_file()), "Version 1\nX||\n");
}

TEST_F(StoreTest, ATableClearedByAnOperatorKeepsNoCopyAndIsStoredOnce) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n4|5|6\n");
  table()->state = TBL_CLEARED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n");
  EXPECT_EQ(read(backup_file()), "Version 1\n");
  EXPECT_EQ(table()->state, 0);
  EXPECT_EQ(log_texts(), (texts{"Storing table 't' to file 't.txt'\n",
                                "Table 't' was cleared. Saving changes to file\n",
                                "Table 't' state was set to value 0\n"}));
  watch();
  EXPECT_TRUE(store());
  EXPECT_TRUE(standin::file_history().empty());
}

TEST_F(StoreTest, AClearedTableThatTakesARowIsStoredAsChanged) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  table()->state = TBL_CLEARED;
  add(table(), {"new", "", ""});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\nnew||\n");
  EXPECT_EQ(read(backup_file()), "Version 1\n1|2|3\n");
}

TEST_F(StoreTest, AClearedTableWhoseMainFileCannotBeOpenedStaysCleared) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n4|5|6\n");
  table()->state = TBL_CLEARED;
  watch();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_FALSE(store());
  EXPECT_EQ(errors(), not_stored(could_not_open(main_file())));
  EXPECT_EQ(table()->state, TBL_CLEARED);
  EXPECT_FALSE(exists(main_file()));
  EXPECT_EQ(read(backup_file()), "Version 1\n4|5|6\n");
  EXPECT_TRUE(store());
  EXPECT_EQ(read(backup_file()), "Version 1\n");
}

TEST_F(StoreTest, AClearedTableWhoseBackupCannotBeOpenedStaysCleared) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n4|5|6\n");
  table()->state = TBL_CLEARED;
  watch();
  standin::fail_file_op("fopen", 2, EACCES);
  EXPECT_FALSE(store());
  EXPECT_EQ(errors(), not_stored(could_not_open(backup_file())));
  EXPECT_EQ(table()->state, TBL_CLEARED);
  EXPECT_EQ(read(main_file()), "Version 1\n");
  EXPECT_FALSE(exists(backup_file()));
}

TEST_F(StoreTest, AClearedTableThatCannotBeWrittenStaysCleared) {
  start(table_spec{});
  for (const int failing : {1, 2}) {
    write(main_file(), "Version 1\n1|2|3\n");
    table()->state = TBL_CLEARED;
    watch();
    standin::fail_file_op("write", failing, ENOSPC);
    EXPECT_FALSE(store());
    EXPECT_EQ(errors(), not_stored(could_not_write(main_file())));
    EXPECT_EQ(table()->state, TBL_CLEARED);
    EXPECT_FALSE(exists(main_file()));
    EXPECT_FALSE(exists(backup_file()));
  }
}

TEST_F(StoreTest, AMoveThatFailsKeepsTheOldBackup) {
  start(table_spec{});
  write(main_file(), "Version 1\nold||\n");
  write(backup_file(), "Version 1\nolder||\n");
  add(table(), {"new", "", ""});
  watch();
  standin::fail_file_op("rename", 1, EXDEV);
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\nnew||\n");
  EXPECT_EQ(read(backup_file()), "Version 1\nolder||\n");
  EXPECT_EQ(table()->state, 0);
  EXPECT_TRUE(errors().empty());
}

TEST_F(StoreTest, AMainFileThatCannotBeOpenedLeavesTheBackupToTheNextPass) {
  start(table_spec{});
  add(table(), {"X", "", ""});
  EXPECT_TRUE(store());
  add(table(), {"Y", "", ""});
  watch();
  standin::fail_file_op("fopen", 1, ENOSPC);
  EXPECT_FALSE(store());
  EXPECT_EQ(errors(), not_stored(could_not_open(main_file())));
  EXPECT_EQ(table()->state, TBL_CHANGED);
  EXPECT_FALSE(exists(main_file()));
  EXPECT_EQ(read(backup_file()), "Version 1\nX||\n");
  // The next pass finds no main file to move, and so keeps the last good text.
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\nX||\nY||\n");
  EXPECT_EQ(read(backup_file()), "Version 1\nX||\n");
  EXPECT_EQ(table()->state, 0);
}

TEST_F(StoreTest, AMissingDirectoryFailsTheStore) {
  start(table_spec{});
  std::filesystem::remove_all(path("main"));
  table()->state = TBL_CHANGED;
  EXPECT_FALSE(store());
  EXPECT_EQ(errors(), not_stored(could_not_open(main_file())));
  EXPECT_EQ(table()->state, TBL_CHANGED);
}

TEST_F(StoreTest, ADirectoryInPlaceOfTheMainFileIsMovedAway) {
  start(table_spec{});
  std::filesystem::create_directory(main_file());
  table()->state = TBL_CHANGED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n");
  EXPECT_TRUE(std::filesystem::is_directory(backup_file()));
}

TEST_F(StoreTest, ATableWithoutAFileNameMovesAndRemovesNoDirectory) {
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  table()->file_name[0] = '\0';
  for (const int state : {TBL_CHANGED, TBL_CLEARED}) {
    table()->state = state;
    watch();
    EXPECT_FALSE(store());
    EXPECT_EQ(errors(), not_stored(could_not_open(path("main/"))));
    EXPECT_EQ(table()->state, state);
    EXPECT_EQ(standin::file_ops("rename"), 0);
    EXPECT_EQ(standin::file_ops("remove"), 0);
    EXPECT_TRUE(exists(path("main")));
    EXPECT_TRUE(exists(path("backup")));
    EXPECT_FALSE(exists(path("backup/.backup")));
  }
}

TEST_F(StoreTest, ATableWithoutAFileNameIsStoredInTheFileThatItsDirectoryNames) {
  start(table_spec{});
  table()->file_name[0] = '\0';
  snprintf(tarn_tbl_mngt->base_dir, sizeof(tarn_tbl_mngt->base_dir), "%s", main_file().c_str());
  for (const char *key : {"1", "2"}) {
    add(table(), {key, "", ""});
    EXPECT_TRUE(store());
  }
  EXPECT_EQ(read(main_file()), "Version 1\n1||\n2||\n");
  EXPECT_EQ(read(path("backup/.backup")), "Version 1\n1||\n");
  table()->state = TBL_CLEARED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n");
}

TEST_F(StoreTest, AVersionLineThatCannotBeWrittenFailsTheStore) {
  start(table_spec{});
  for (const int failing : {1, 2}) {
    add(table(), {"X", "", ""});
    watch();
    standin::fail_file_op("write", failing, ENOSPC);
    EXPECT_FALSE(store());
    EXPECT_EQ(errors(), not_stored(could_not_write(main_file())));
    EXPECT_EQ(table()->state, TBL_CHANGED);
    EXPECT_TRUE(exists(main_file()));
    EXPECT_EQ(standin::open_streams(), 0);
  }
}

TEST_F(StoreTest, AFullDiskFailsTheStoreAndLeavesAPartialMainFile) {
  table_spec spec;
  spec.columns = {{"a", 1000, 0}, {"b", 1000, 0}};
  start(spec);
  add(table(), {"good", "text"});
  EXPECT_TRUE(store());
  const std::string filler(900, 'f');
  for (int i = 0; i < 100; i++) add(table(), {filler.c_str(), "b"});

  // A file that may grow to 20000 bytes and no further.
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  rlimit small = before;
  small.rlim_cur = 20000;
  signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const bool first = store();
  const texts told = errors();
  const int32_t state = table()->state;
  const std::string main_text = read(main_file());
  const std::string backup_text = read(backup_file());
  const bool second = store();
  const std::string backup_after = read(backup_file());
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_DFL);

  EXPECT_FALSE(first);
  EXPECT_EQ(told, not_stored(could_not_write(main_file())));
  EXPECT_EQ(state, TBL_CHANGED);
  EXPECT_EQ(main_text.size(), 20000u);
  EXPECT_EQ(backup_text, "Version 1\ngood|text\n");
  // The next pass moves the partial file over the good backup.
  EXPECT_FALSE(second);
  EXPECT_EQ(backup_after, main_text);

  EXPECT_TRUE(store());
  EXPECT_EQ(table()->state, 0);
  load_table(table());
  EXPECT_EQ(rows(table()).size(), 101u);
}

TEST_F(StoreTest, EveryPlaceAtWhichTheDiskFillsUpEitherFailsOrGoesUnnoticedAtTheClose) {
  table_spec spec;
  spec.columns = {{"a", 6000, 0}, {"b", 6000, 0}, {"c", 6000, 0}};
  start(spec);
  link_main_file_to("/dev/full");
  // A text that stays in the stream's buffer fails at the close alone, which nobody looks at.
  for (const size_t length :
       {0UL, 1UL, 1000UL, 1350UL, 1360UL, 1370UL, 2000UL, 4094UL, 4095UL, 4096UL, 4097UL, 6000UL}) {
    memdb_delete_all(table()->tbl);
    const std::string field(length, 'f');
    add(table(), {field.c_str(), field.c_str(), field.c_str()});
    const bool fits_buffer = 10 + 3 * length + 3 <= 4096;
    EXPECT_EQ(store(), fits_buffer) << length;
    EXPECT_EQ(table()->state, fits_buffer ? TBL_UNCHANGED : TBL_CHANGED);
    EXPECT_EQ(errors(), fits_buffer ? texts{} : not_stored(could_not_write(main_file())));
  }
  EXPECT_TRUE(std::filesystem::is_symlink(main_file()));
}

TEST_F(StoreTest, ADiskThatIsFullAtARowsLastByteFailsTheStore) {
  table_spec spec;
  spec.columns = {{"a", 6000, 0}};
  start(spec);
  link_main_file_to("/dev/full");
  // The version line and the text fill the stream's buffer, and the line feed finds no room.
  add(table(), {std::string(4096 - 10, 'f').c_str()});
  EXPECT_FALSE(store());
  EXPECT_EQ(errors(), not_stored(could_not_write(main_file())));
}

// Rows reach the file in blocks of this many bytes. The version line goes ahead of them in two
// writes of its own.
constexpr size_t BLOCK = 262144;
constexpr int VERSION_WRITES = 2;

class StoreBlockTest : public StoreTest {
 protected:
  // Rows that may be longer than a block go out field by field.
  StoreBlockTest() { start_with_columns_of(3 * BLOCK, 3 * BLOCK); }

  void start_with_columns_of(long first, long second) {
    table_spec spec;
    spec.columns = {{"a", first, 0}, {"b", second, 0}};
    start(spec);
  }

  // Rows of two fields of these lengths, oldest first, in place of what the table holds.
  void fill(const std::vector<std::pair<size_t, size_t>> &lengths) {
    memdb_delete_all(table()->tbl);
    expected_ = "Version 1\n";
    int letters = 0;
    const auto next_letter = [&letters] { return static_cast<char>('a' + letters++ % 26); };
    for (const auto &[a, b] : lengths) {
      const std::string first(a, next_letter());
      const std::string second(b, next_letter());
      add(table(), {first.c_str(), second.c_str()});
      expected_ += first + "|" + second + "\n";
    }
  }

  // The table is stored as it is, read back as it is, in this many writes of the rows. And
  // whichever of them fails, the store fails and the next one makes up for it.
  void expect_stored(int writes) {
    watch();
    EXPECT_TRUE(store());
    EXPECT_EQ(standin::file_ops("write"), VERSION_WRITES + writes);
    EXPECT_TRUE(read(main_file()) == expected_);
    const texts before = rows(table());
    load_table(table());
    EXPECT_TRUE(rows(table()) == before);
    for (int failing = 1; failing <= writes; failing++) {
      SCOPED_TRACE("write " + std::to_string(failing));
      table()->state = TBL_CHANGED;
      watch();
      standin::fail_file_op("write", VERSION_WRITES + failing, ENOSPC);
      EXPECT_FALSE(store());
      EXPECT_EQ(errors(), not_stored(could_not_write(main_file())));
      EXPECT_EQ(table()->state, TBL_CHANGED);
      EXPECT_EQ(standin::file_ops("write"), VERSION_WRITES + failing) << "went on after a failure";
      EXPECT_EQ(standin::open_streams(), 0);
      EXPECT_TRUE(read(main_file()).size() < expected_.size());
      EXPECT_TRUE(store());
      EXPECT_TRUE(read(main_file()) == expected_);
    }
  }

 private:
  std::string expected_;
};

TEST_F(StoreBlockTest, RowsThatFillABlockExactlyAreOneWrite) {
  fill({{BLOCK - 3, 1}});
  expect_stored(1);
  fill({{BLOCK / 2 - 3, 1}, {1, BLOCK / 2 - 3}});
  expect_stored(1);
}

TEST_F(StoreBlockTest, ALineFeedThatFindsTheBlockFullBeginsTheNext) {
  fill({{BLOCK - 2, 1}});
  expect_stored(2);
}

TEST_F(StoreBlockTest, ABarThatFindsTheBlockFullBeginsTheNext) {
  fill({{BLOCK, 1}});
  expect_stored(2);
}

TEST_F(StoreBlockTest, AFieldThatDoesNotFitTheRestOfTheBlockBeginsTheNext) {
  fill({{BLOCK - 1, 1}});
  expect_stored(2);
  fill({{BLOCK - 10, 20}, {30, 40}});
  expect_stored(2);
  fill({{10, 10}, {BLOCK - 2, 0}});
  expect_stored(2);
}

TEST_F(StoreBlockTest, AnEmptyFieldFitsAFullBlock) {
  fill({{BLOCK - 1, 0}});
  expect_stored(2);
  fill({{BLOCK - 2, 0}});
  expect_stored(1);
}

TEST_F(StoreBlockTest, AFieldLongerThanABlockIsAWriteOfItsOwn) {
  // As the first of all, behind others, as the last, and two together.
  fill({{BLOCK + 1, 1}});
  expect_stored(2);
  fill({{1, 2 * BLOCK}});
  expect_stored(3);
  fill({{5, 5}, {BLOCK + 1, BLOCK + 2}, {5, 5}});
  expect_stored(5);
}

TEST_F(StoreBlockTest, ManyBlocksAreWrittenOneAfterAnother) {
  fill(std::vector<std::pair<size_t, size_t>>(10, {BLOCK / 2, BLOCK / 4}));
  expect_stored(10);
}

TEST_F(StoreBlockTest, TextsOfEveryLengthAreWholeInColumnsOfEveryLength) {
  for (size_t capacity = 0; capacity <= 50; capacity++) {
    start_with_columns_of(17, static_cast<long>(capacity));
    std::vector<std::pair<size_t, size_t>> lengths;
    for (size_t len = 0; len <= capacity; len++) {
      lengths.emplace_back(1, len);
      lengths.emplace_back(17, len);
    }
    fill(lengths);
    expect_stored(1);
  }
}

TEST_F(StoreBlockTest, RowsOfColumnsShorterThanABlockBeginTheNextWhereTheLongestWouldNotFit) {
  // Of a block, the longest row takes its two terminators' room, one byte, and a register's 16.
  constexpr size_t MOST = BLOCK - 2 - 1 - 16;
  start_with_columns_of(1, MOST - 1);
  fill({{1, MOST - 1}});
  expect_stored(1);
  fill({{1, 0}, {1, 0}, {1, 0}});
  expect_stored(3);
  start_with_columns_of(1, MOST / 2);
  fill(std::vector<std::pair<size_t, size_t>>(7, {1, MOST / 2}));
  expect_stored(7);
  fill(std::vector<std::pair<size_t, size_t>>(7, {1, MOST / 4}));
  expect_stored(4);
}

TEST_F(StoreBlockTest, RowsOfColumnsJustTooLongForABlockAreStoredByTheField) {
  constexpr size_t MOST = BLOCK - 2 - 1 - 16;
  start_with_columns_of(1, MOST);
  fill({{1, MOST}});
  expect_stored(1);
  fill({{1, 0}, {1, 0}, {1, 0}});
  expect_stored(1);
}

TEST_F(StoreBlockTest, ATableWithoutColumnsIsStoredAsEmptyLines) {
  table_spec spec;
  spec.columns = {};
  start(spec);
  memdb_insert(table()->tbl, nullptr);
  memdb_insert(table()->tbl, nullptr);
  table()->state = TBL_CHANGED;
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n\n\n");
}

TEST_F(StoreTest, AFailureAtTheFinalFlushGoesUnreported) {
  start(table_spec{});
  add(table(), {"X", "", ""});
  watch();
  standin::fail_file_op("fclose", 1, ENOSPC);
  EXPECT_TRUE(store());
  EXPECT_EQ(table()->state, 0);
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(read(main_file()), "");
}

TEST_F(StoreTest, TheStepsComeInOrder) {
  start(table_spec{});
  write(main_file(), "Version 1\n");
  table()->state = TBL_CHANGED;
  watch();
  EXPECT_TRUE(store());
  const texts history = standin::file_history();
  EXPECT_EQ(history[0], "stat " + main_file()) << "whose rights the new file gets";
  EXPECT_EQ(history[1], "rename " + main_file() + " " + backup_file());
  EXPECT_EQ(history[2], "stat " + main_file()) << "which the rename may have left there";
  EXPECT_EQ(history[3], "fopen " + main_file());
  EXPECT_EQ(history.back(), "fclose");
}

TEST_F(StoreTest, EachFileOperationFailsOnceWithoutLeakOpenFileOrHeldLock) {
  start(table_spec{});
  const size_t before = standin::live_count(pool::both);
  for (const int state : {TBL_CHANGED, TBL_CLEARED}) {
    bool all_tried = false;
    for (int failing = 1; !all_tried; failing++) {
      ASSERT_LT(failing, 50);
      write(main_file(), "Version 1\n1|2|3\n");
      write(backup_file(), "Version 1\n4|5|6\n");
      table()->state = state;
      watch();
      standin::fail_file_op("any", failing, EIO);
      const bool stored = store();
      all_tried = standin::file_ops("any") < failing;
      EXPECT_EQ(table()->state, stored ? TBL_UNCHANGED : state);
      EXPECT_EQ(errors().size(), stored ? 0u : 2u);
      EXPECT_EQ(standin::open_streams(), 0);
      EXPECT_EQ(standin::live_count(pool::both), before);
      standin::stop_failing_files();
      EXPECT_TRUE(store());
      // What failed is made good by the next pass; what went unnoticed isn't.
      if (!stored) {
        EXPECT_EQ(read(main_file()), "Version 1\n");
      }
    }
  }
}

TEST_F(StoreTest, StoringAllocatesNothingOfTheHosts) {
  start(table_spec{});
  add(table(), {"X", "", ""});
  standin::reset_allocation_count();
  EXPECT_TRUE(store());
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
}

TEST_F(StoreTest, RowsLongerThanEveryBufferAreStoredWhole) {
  table_spec spec;
  spec.columns = {{"a", 70000, 1}, {"b", 5000, 0}, {"c", 5000, 0}};
  start(spec);
  const std::string a(70000, 'a'), b(5000, 'b'), c(4999, 'c');
  add(table(), {a.c_str(), b.c_str(), c.c_str()});
  add(table(), {"x", b.c_str(), ""});
  EXPECT_TRUE(store());
  EXPECT_EQ(read(main_file()), "Version 1\n" + a + "|" + b + "|" + c + "\nx|" + b + "|\n");
  const texts stored = rows(table());
  load_table(table());
  EXPECT_EQ(rows(table()), stored);
}

// The lock is held while the file is written, and let go of before it is closed: a reader that
// doesn't read keeps the close waiting, and the table is free all the same.
TEST_F(StoreTest, TheLockIsHeldThroughTheWritesAndFreeBeforeTheClose) {
  ASSERT_TRUE(standin::use_shared_mapping(4 << 20));
  table_spec spec;
  spec.columns = {{"a", 100, 0}};
  start(spec);
  const std::string text(99, 'x');  // 100 bytes per line
  for (int i = 0; i < 82; i++) add(table(), {text.c_str()});
  const size_t total = 10 + 82 * 100;  // two pages and 18 bytes

  const std::string pipe = path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  link_main_file_to(pipe);
  process writer([] { return store_table(table()) ? 0 : 1; });
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  const int capacity = fcntl(reader, F_SETPIPE_SZ, 4096);
  ASSERT_EQ(capacity, 4096);

  // The first page fills the pipe; the writer waits with the second, holding the lock.
  EXPECT_TRUE(eventually([] { return *table()->lock == 1; }));
  sleep_ms(100);
  EXPECT_EQ(*table()->lock, 1u);
  EXPECT_EQ(table()->state, TBL_CHANGED);
  EXPECT_FALSE(writer.ended());

  std::string got;
  const auto read_page = [&] {
    char page[4096];
    const ssize_t bytes = ::read(reader, page, sizeof(page));
    if (bytes > 0) got.append(page, static_cast<size_t>(bytes));
    return bytes > 0;
  };
  // The second page is written now, and the rest waits in the close.
  EXPECT_TRUE(eventually(read_page));
  EXPECT_TRUE(eventually([] { return table()->state == TBL_UNCHANGED; }));
  EXPECT_TRUE(eventually([] { return *table()->lock == 0; }));
  sleep_ms(50);
  EXPECT_FALSE(writer.ended());
  take_lock(table()->lock);
  add(table(), {"while closing"});
  release_lock(table()->lock);

  EXPECT_TRUE(eventually([&] {
    read_page();
    return got.size() >= total;
  }));
  EXPECT_EQ(writer.exit_code(), 0);
  EXPECT_EQ(got.size(), total);
  EXPECT_EQ(table()->state, TBL_CHANGED);
  close(reader);
}

// clear_file by itself.

using ClearFileTest = StoreTest;

TEST_F(ClearFileTest, AFileBecomesTheVersionLineWhateverItHeld) {
  const std::string file = path("f");
  EXPECT_TRUE(clear_file(file.c_str(), {}));
  EXPECT_EQ(read(file), "Version 1\n");
  write(file, std::string(10000, 'x'));
  EXPECT_TRUE(clear_file(file.c_str(), {}));
  EXPECT_EQ(read(file), "Version 1\n");
  EXPECT_TRUE(standin::logs().empty());
}

TEST_F(ClearFileTest, AFileThatCannotBeOpenedIsToldAndRemoved) {
  const std::string file = path("f");
  write(file, "old");
  watch();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_FALSE(clear_file(file.c_str(), {}));
  EXPECT_EQ(errors(), texts{could_not_open(file)});
  EXPECT_FALSE(exists(file));
  EXPECT_EQ(standin::file_ops("remove"), 1);
}

TEST_F(ClearFileTest, AFileThatCannotBeWrittenIsToldClosedAndRemoved) {
  const std::string file = path("f");
  for (const int failing : {1, 2}) {
    write(file, "old");
    standin::clear_logs();
    watch();
    standin::fail_file_op("write", failing, ENOSPC);
    EXPECT_FALSE(clear_file(file.c_str(), {}));
    EXPECT_EQ(errors(), texts{could_not_write(file)});
    EXPECT_FALSE(exists(file));
    const texts history = standin::file_history();
    EXPECT_EQ(history[history.size() - 2], "fclose");
    EXPECT_EQ(history.back(), "remove " + file);
  }
}

TEST_F(ClearFileTest, ACloseThatFailsIsNotLookedAt) {
  const std::string file = path("f");
  watch();
  standin::fail_file_op("fclose", 1, ENOSPC);
  EXPECT_TRUE(clear_file(file.c_str(), {}));
  EXPECT_TRUE(standin::logs().empty());
}

TEST_F(ClearFileTest, ADirectoryOrAMissingDirectoryIsToldAsOne) {
  const std::string directory = path("d");
  std::filesystem::create_directory(directory);
  write(directory + "/x", "");
  const std::string missing = path("missing/f");
  EXPECT_FALSE(clear_file(directory.c_str(), {}));
  EXPECT_FALSE(clear_file(missing.c_str(), {}));
  EXPECT_EQ(errors(), (texts{could_not_open(directory), could_not_open(missing)}));
  EXPECT_TRUE(exists(directory + "/x"));
}

// All tables at once.

using StoreAllTest = StoreTest;

TEST_F(StoreAllTest, EveryTableIsStoredAsItsStateSays) {
  table_spec one, two, three;
  one.name = "one";
  one.file_name = "one.txt";
  two.name = "two";
  two.file_name = "two.txt";
  three.name = "three";
  three.file_name = "three.txt";
  start({one, two, three});
  add(table(0), {"1", "", ""});
  write(main_file("three.txt"), "Version 1\n3||\n");
  table(2)->state = TBL_CLEARED;
  int ignored = 5;
  store_table_mngt(12345, &ignored);
  EXPECT_EQ(read(main_file("one.txt")), "Version 1\n1||\n");
  EXPECT_FALSE(exists(main_file("two.txt")));
  EXPECT_EQ(read(main_file("three.txt")), "Version 1\n");
  EXPECT_EQ(debug()[0], "Looking all tables for changes\n");
  EXPECT_EQ(debug()[1], "Storing table 'one' to file 'one.txt'\n");
  EXPECT_TRUE(errors().empty());
  for (const tarn_tbl &each : all_tarn_tbls()) EXPECT_EQ(each.state, 0);
}

TEST_F(StoreAllTest, AFailingTableIsToldAndTheNextOnesAreStored) {
  table_spec one, two;
  one.name = "one";
  one.file_name = "missing/one.txt";
  two.name = "two";
  two.file_name = "two.txt";
  start({one, two});
  add(table(0), {"1", "", ""});
  add(table(1), {"2", "", ""});
  for (int pass = 0; pass < 2; pass++) {
    standin::clear_logs();
    store_table_mngt(0, nullptr);
    EXPECT_EQ(errors(), (texts{could_not_open(main_file("missing/one.txt")),
                               "Could not store table 'one' to file 'missing/one.txt'\n"}));
    EXPECT_EQ(table(0)->state, TBL_CHANGED);
    EXPECT_EQ(*table(0)->lock, 0u);
    EXPECT_EQ(read(main_file("two.txt")), "Version 1\n2||\n");
  }
  std::filesystem::create_directory(path("main/missing"));
  store_table_mngt(0, nullptr);
  EXPECT_EQ(read(main_file("missing/one.txt")), "Version 1\n1||\n");
}

TEST_F(StoreAllTest, WithoutRegistryOrTablesThereIsOneLineAndNoMore) {
  store_table_mngt(0, nullptr);
  EXPECT_EQ(log_texts(), texts{"Looking all tables for changes\n"});
  standin::clear_logs();
  make_registry();
  store_table_mngt(0, nullptr);
  EXPECT_EQ(log_texts(), texts{"Looking all tables for changes\n"});
}

TEST_F(StoreAllTest, TablesWithoutLocksAreStoredInASingleProcess) {
  start(table_spec{});
  destroy_locks();
  add(table(), {"1", "", ""});
  store_table_mngt(0, nullptr);
  EXPECT_EQ(read(main_file()), "Version 1\n1||\n");
}

TEST_F(StoreAllTest, TheTimersSettingsStandAtTheirDefaults) {
  EXPECT_EQ(store_settings.automatic, 1);
  EXPECT_EQ(store_settings.interval, 15);
}

TEST_F(StoreAllTest, TheLongestPathsAreWhole) {
  start(table_spec{});
  memset(tarn_tbl_mngt->base_dir, 'm', 255);
  memset(tarn_tbl_mngt->base_backup_dir, 'b', 255);
  memset(table()->file_name, 'f', 255);
  EXPECT_EQ(std::string(main_path(table()).text), std::string(255, 'm') + std::string(255, 'f'));
  EXPECT_EQ(std::string(backup_path(table()).text),
            std::string(255, 'b') + std::string(255, 'f') + ".backup");
}

}  // namespace
}  // namespace tables_test
