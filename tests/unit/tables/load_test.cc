// Reading tables from their files: main file, backup, and what makes either of them bad.
#include <fcntl.h>

#include <algorithm>

#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

// The linker leads realloc here; see the build file.
extern "C" {
void *real_realloc(void *block, size_t size) __asm__("__real_realloc");
void *scarce_realloc(void *block, size_t size) __asm__("__wrap_realloc");
}

namespace {

int reallocs_until_failure;  // the last of them fails; 0: none

}  // namespace

void *scarce_realloc(void *block, size_t size) {
  if (reallocs_until_failure == 0 || --reallocs_until_failure > 0) return real_realloc(block, size);
  errno = ENOMEM;
  return nullptr;
}

namespace tables_test {
namespace {

class LoadTest : public TablesTest {
 protected:
  // Loads the first table, with the log starting there. Whatever becomes of its files, the text of
  // each is on disk afterwards, and who looks for it finds its place in the log.
  void load() {
    const int error = errno;
    std::vector<file_before> files;
    for (const std::string &file : {main_file(), backup_file()})
      if (std::filesystem::is_regular_file(std::filesystem::symlink_status(file)))
        files.push_back({file, read_unwatched(file)});
    errno = error;
    load_only();
    for (const file_before &each : files) {
      if (exists(each.file)) {
        EXPECT_EQ(read_unwatched(each.file), each.text);
        continue;
      }
      EXPECT_EQ(read_unwatched(each.file + ".refused"), each.text);
      if (get_debug_level("test", 4) < L_WARN) continue;
      EXPECT_TRUE(
          logged(L_WARN, message("File '%s' can't be loaded and was renamed to '%s.refused'\n",
                                 each.file.c_str(), each.file.c_str())));
    }
  }
  void load_only() {
    standin::clear_logs();
    load_table(table());
    EXPECT_EQ(standin::live_count(pool::pkg), 0u);
  }

  struct file_before {
    std::string file;
    std::string text;
  };

  // Past the functions that the tests watch and fail.
  static std::string read_unwatched(const std::string &file) {
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return "<none>";
    std::string out;
    char part[4096];
    for (ssize_t got; (got = ::read(descriptor, part, sizeof(part))) > 0;)
      out.append(part, static_cast<size_t>(got));
    close(descriptor);
    return out;
  }

  // What is told of the rows, which is apart from what became of the files.
  static texts row_warnings() {
    texts out;
    for (const std::string &each : warnings())
      if (each.find("was renamed to") == std::string::npos) out.push_back(each);
    return out;
  }

  // The table came from the backup: the main file is gone, the backup stays.
  void expect_from_backup(const texts &expected) {
    EXPECT_EQ(rows(table()), expected);
    EXPECT_EQ(table()->row_count, static_cast<int32_t>(expected.size()));
    EXPECT_FALSE(exists(main_file()));
    EXPECT_TRUE(exists(backup_file()));
    EXPECT_TRUE(logged(L_DBG, message("Trying to open backup file '%s'\n", backup_file().c_str())));
    EXPECT_FALSE(standin::log_contains(L_DBG, "New file"));
  }

  // Neither file was of use: the table is empty, and both paths are free.
  void expect_nothing_left() {
    EXPECT_EQ(rows(table()), texts{});
    EXPECT_EQ(table()->row_count, 0);
    EXPECT_EQ(table()->next_index, 1u);
    EXPECT_FALSE(exists(main_file()));
    EXPECT_FALSE(exists(backup_file()));
    EXPECT_EQ(debug().back(),
              message("New file '%s' will be created later when necessary\n", main_file().c_str()));
  }
};

TEST_F(LoadTest, AGoodMainFileFillsTheTableAndTheBackupIsLeftAlone) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n4|5|6\n");
  write(backup_file(), "Version 1\n7|8|9\n");
  load();
  EXPECT_EQ(rows(table()), (texts{"4|5|6", "1|2|3"}));
  EXPECT_EQ(table()->row_count, 2);
  EXPECT_EQ(table()->state, 0);
  EXPECT_EQ(read(main_file()), "Version 1\n1|2|3\n4|5|6\n");
  EXPECT_EQ(read(backup_file()), "Version 1\n7|8|9\n");
  EXPECT_EQ(debug()[0], "Loading table 't' from file 't.txt'\n");
  EXPECT_TRUE(errors().empty());
  EXPECT_TRUE(warnings().empty());
}

TEST_F(LoadTest, LoadedRowsAreIndexedAndKeepTheirOrder) {
  start(table_spec{});
  write(main_file(), "Version 1\nA|x|k\nB|y|k\nC|z|other\n");
  load();
  const char *const all[] = {nullptr, nullptr, nullptr};
  memdb_cursor cursor;
  EXPECT_STREQ(memdb_get_field(table()->tbl, memdb_select(table()->tbl, all, &cursor), 0), "C");
  const char *const wanted[] = {nullptr, nullptr, "k"};
  memdb_row *const first = memdb_select(table()->tbl, wanted, &cursor);
  EXPECT_STREQ(memdb_get_field(table()->tbl, first, 0), "B");
  EXPECT_STREQ(memdb_get_field(table()->tbl, memdb_select_next(&cursor), 0), "A");
  EXPECT_EQ(memdb_select_next(&cursor), nullptr);
}

TEST_F(LoadTest, WithoutFilesTheTableIsEmptyAndNothingIsWrong) {
  start(table_spec{});
  load();
  expect_nothing_left();
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(standin::log_texts().size(), debug().size());
}

TEST_F(LoadTest, AMissingMainFileGivesTheBackupWithoutAWordAboveDebug) {
  start(table_spec{});
  write(backup_file(), "Version 1\n7|8|9\n");
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_EQ(standin::log_texts().size(), debug().size());
  EXPECT_EQ(table()->state, 0);
}

TEST_F(LoadTest, AFileOfTheVersionLineAloneIsAnEmptyTableAndKeepsTheBackup) {
  start(table_spec{});
  for (const char *content : {"Version 1\n", "Version 1", "Version 1\n\n\n", "Version 1\n#a\n"}) {
    write(main_file(), content);
    write(backup_file(), "Version 1\n7|8|9\n");
    load();
    EXPECT_EQ(rows(table()), texts{});
    EXPECT_EQ(read(main_file()), content);
    EXPECT_EQ(read(backup_file()), "Version 1\n7|8|9\n");
    EXPECT_FALSE(standin::log_contains(L_DBG, "backup"));
  }
}

TEST_F(LoadTest, AMainFileOfZeroBytesIsRefusedAndTheBackupLoaded) {
  start(table_spec{});
  write(main_file(), "");
  write(backup_file(), "Version 1\n7|8|9\n");
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_TRUE(logged(L_DBG, message("Database empty: %s\n", main_file().c_str())));
  EXPECT_TRUE(errors().empty());
}

TEST_F(LoadTest, AnotherVersionIsToldAndTheBackupLoaded) {
  start(table_spec{});
  const std::vector<std::string> others = {"Version 2",  "version 1",  "Version 1 ",
                                           " Version 1", "Version 10", "Version",
                                           "# comment",  "1|2|3",      ""};
  for (const std::string &other : others) {
    write(main_file(), other + "\n1|2|3\n");
    write(backup_file(), "Version 1\n7|8|9\n");
    load();
    expect_from_backup({"7|8|9"});
    EXPECT_EQ(errors(), texts{message("Wrong database version. Current DB: Version 1, Prensent on "
                                      "File: %s\n",
                                      other.c_str())});
  }
}

TEST_F(LoadTest, CarriageReturnLineEndsAreAnotherVersion) {
  start(table_spec{});
  write(main_file(), "Version 1\r\n1|2|3\r\n");
  write(backup_file(), "Version 1\n7|8|9\n");
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_EQ(errors(), texts{"Wrong database version. Current DB: Version 1, Prensent on File: "
                            "Version 1\r\n"});
}

TEST_F(LoadTest, ACarriageReturnInARowIsText) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\r\n");
  load();
  EXPECT_EQ(rows(table()), texts{"1|2|3\r"});
}

TEST_F(LoadTest, CommentsAndBlankLinesAreSkippedBehindTheVersion) {
  start(table_spec{});
  write(main_file(), "Version 1\n\n# one\n1|2|3\n\n#4|5|6\n7|8|9\n\n#\n");
  load();
  EXPECT_EQ(rows(table()), (texts{"7|8|9", "1|2|3"}));
  EXPECT_TRUE(errors().empty());
}

TEST_F(LoadTest, AHashBehindTheFirstByteIsText) {
  start(table_spec{});
  write(main_file(), "Version 1\n 1|#2|3\n");
  load();
  EXPECT_EQ(rows(table()), texts{" 1|#2|3"});
}

TEST_F(LoadTest, ALastLineWithoutALineFeedCounts) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n4|5|6");
  load();
  EXPECT_EQ(rows(table()), (texts{"4|5|6", "1|2|3"}));
}

TEST_F(LoadTest, EscapesInAHandMadeFileAreUndone) {
  start(table_spec{});
  write(main_file(), "Version 1\na\\|b|\\*|c\\\\d\n\\#x|e\\,f|g,h\n");
  load();
  EXPECT_EQ(rows(table()), (texts{"#x|e,f|g,h", "a|b|*|c\\d"}));
  EXPECT_STREQ(memdb_get_field(table()->tbl, table()->tbl->last, 0), "a|b");
}

TEST_F(LoadTest, EmptyFieldsLoadAsLongAsOneHasText) {
  start(table_spec{});
  write(main_file(), "Version 1\n||x\nx||\n");
  load();
  EXPECT_EQ(rows(table()), (texts{"x||", "||x"}));
}

struct bad_row {
  std::string line;
  texts told;  // ahead of the line that names the row
};

const std::vector<bad_row> BAD_ROWS = {
    {"1|2", {"Size mismatch", "Wrong number of fields in field list: t,1|2 | (null)\n"}},
    {"1|2|3|4", {"Size mismatch", "Wrong number of fields in field list: t,1|2|3|4 | (null)\n"}},
    {"*|2|3", {"Wildcard are not allowed in INSERT operation\n"}},
    {"1|2|*", {"Wildcard are not allowed in INSERT operation\n"}},
    {"||", {"Empty fields are not allowed in INSERT operation\n"}},
    {"1|2|3\\", {"Wrong input format for INSERT\n"}},
    {"1\\|2|3", {"Size mismatch", "Wrong number of fields in field list: t,1\\|2|3 | (null)\n"}}};

TEST_F(LoadTest, ABadRowDiscardsTheMainFileAndAllItsRows) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  for (const bad_row &bad : BAD_ROWS) {
    write(main_file(), "Version 1\n50|a|b\n" + bad.line + "\n51|c|d\n");
    write(backup_file(), "Version 1\n7|8|9\n3|4|5\n");
    load();
    expect_from_backup({"3|4|5", "7|8|9"});
    EXPECT_EQ(table()->next_index, 8u);
    texts expected = bad.told;
    expected.push_back("Could not parse 't," + bad.line + "'\n");
    EXPECT_EQ(errors(), expected);
  }
}

TEST_F(LoadTest, ALoneBackslashAtALinesEndIsWarnedOf) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\\\n");
  load();
  EXPECT_TRUE(logged(L_WARN, "Bad escape detected\n"));
  expect_nothing_left();
}

TEST_F(LoadTest, BadRowsInBothFilesLeaveAnEmptyTable) {
  start(table_spec{});
  for (const bad_row &bad : BAD_ROWS) {
    write(main_file(), "Version 1\n1|2|3\n" + bad.line + "\n");
    write(backup_file(), "Version 1\n7|8|9\n" + bad.line + "\n");
    load();
    expect_nothing_left();
    EXPECT_EQ(errors().size(), 2 * (bad.told.size() + 1));
  }
}

TEST_F(LoadTest, ABadBackupIsRefusedWhereTheMainFileIsMissingOrBad) {
  start(table_spec{});
  struct {
    const char *backup;
    size_t lines;
  } const bad[] = {{"", 0}, {"Version 2\n7|8|9\n", 1}, {"Version 1\n7|8\n", 3}};
  for (const auto &each : bad) {
    for (const bool with_main : {false, true}) {
      if (with_main) write(main_file(), "");
      write(backup_file(), each.backup);
      load();
      expect_nothing_left();
      EXPECT_EQ(errors().size(), each.lines);
      EXPECT_EQ(logged(L_DBG, message("Database empty: %s\n", backup_file().c_str())),
                each.lines == 0);
    }
  }
}

TEST_F(LoadTest, ABadMainFileWithoutABackupLeavesAnEmptyTable) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n1|2\n");
  load();
  expect_nothing_left();
  EXPECT_FALSE(standin::log_contains(L_DBG, "Trying to open backup file"));
}

TEST_F(LoadTest, AMainFileThatCannotBeOpenedIsToldAndTheBackupLoaded) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n7|8|9\n");
  watch();
  standin::fail_file_op("fopen", 1, EACCES);
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_EQ(errors(), texts{message("Could not open file '%s'\n", main_file().c_str())});
}

TEST_F(LoadTest, ABackupThatCannotBeOpenedIsToldAndSetAside) {
  start(table_spec{});
  write(main_file(), "Version 0\n");
  write(backup_file(), "Version 1\n7|8|9\n");
  watch();
  standin::fail_file_op("fopen", 2, EACCES);
  load();
  expect_nothing_left();
  EXPECT_EQ(errors()[1], message("Could not open file '%s'\n", backup_file().c_str()));
}

TEST_F(LoadTest, AMainFileThatCannotBeSeenCountsAsMissing) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n7|8|9\n");
  watch();
  standin::fail_file_op("access", 1, EACCES);
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(standin::file_ops("fopen"), 1);
}

TEST_F(LoadTest, ABackupThatCannotBeSeenCountsAsMissing) {
  start(table_spec{});
  write(backup_file(), "Version 1\n7|8|9\n");
  watch();
  standin::fail_file_op("access", 2, EACCES);
  load();
  expect_nothing_left();
  EXPECT_EQ(standin::file_ops("fopen"), 0);
}

TEST_F(LoadTest, AReloadLeavesAChangedTableThatCanBeStored) {
  start(table_spec{});
  add(table(), {"7", "8", "9"});
  table()->state = TBL_UNCHANGED;
  write(main_file(), "Version 1\n1|2|3\n");
  reload_table(table());
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
  EXPECT_EQ(table()->row_count, 1);
  EXPECT_EQ(table()->state, TBL_CHANGED);
  EXPECT_FALSE(is_being_reloaded(table()));
}

// Killed at its first row, with the old rows gone.
TEST_F(LoadTest, AReloadThatIsKilledLeavesTheFilesToTheNextStart) {
  ASSERT_TRUE(standin::use_shared_mapping(4 << 20));
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n4|5|6\n");
  process reloading([] {
    take_lock(table()->lock);
    memdb_hash_str = [](const char *) -> uint32_t {
      kill(getpid(), SIGKILL);
      return 0;
    };
    reload_table(table());
    return 0;
  });
  EXPECT_EQ(reloading.exit_code(), -1);
  EXPECT_EQ(table()->state, TBL_CHANGED);
  recover_tables();
  store_table_mngt(0, nullptr);
  EXPECT_EQ(read(main_file()), "Version 1\n1|2|3\n4|5|6\n");
  EXPECT_FALSE(exists(backup_file()));
}

TEST_F(LoadTest, ARefusedFileTakesThePlaceOfAnOlderOne) {
  start(table_spec{});
  for (const char *content : {"Version 0\nfirst\n", "Version 1\nsecond\n", ""}) {
    write(main_file(), content);
    write(backup_file(), std::string(content) + "b");
    load();
    EXPECT_EQ(read(main_file() + ".refused"), content);
    EXPECT_EQ(read(backup_file() + ".refused"), std::string(content) + "b");
  }
}

TEST_F(LoadTest, AGoodLoadLeavesAnOlderRefusedFileAlone) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(main_file() + ".refused", "kept");
  load();
  EXPECT_EQ(read(main_file() + ".refused"), "kept");
}

TEST_F(LoadTest, ARefusedFileThatCannotBeRenamedIsRemoved) {
  start(table_spec{});
  write(main_file(), "Version 0\n");
  write(backup_file(), "Version 0\n");
  watch();
  standin::fail_file_ops_from("rename", 1, EACCES);
  load_only();
  expect_nothing_left();
  EXPECT_EQ(standin::file_ops("rename"), 2);
  EXPECT_FALSE(exists(main_file() + ".refused"));
  EXPECT_FALSE(exists(backup_file() + ".refused"));
  EXPECT_TRUE(warnings().empty());
  EXPECT_TRUE(
      logged(L_ERR, message("File '%s' can't be loaded, nor renamed to '%s.refused', and was "
                            "removed\n",
                            main_file().c_str(), main_file().c_str())));
}

TEST_F(LoadTest, RenamesAndRemovesThatFailChangeNothing) {
  start(table_spec{});
  write(main_file(), "Version 0\n");
  write(backup_file(), "Version 0\n");
  watch();
  standin::fail_file_ops_from("rename", 1, EROFS);
  standin::fail_file_ops_from("remove", 1, EROFS);
  load();
  EXPECT_EQ(rows(table()), texts{});
  EXPECT_EQ(standin::file_ops("remove"), 2);
}

TEST_F(LoadTest, ALinkIsRemovedAndWhatItLeadsToStays) {
  start(table_spec{});
  write(path("target"), "Version 0\n");
  std::filesystem::create_symlink(path("target"), main_file());
  std::filesystem::create_symlink(path("nowhere"), backup_file());
  load();
  expect_nothing_left();
  EXPECT_EQ(read(path("target")), "Version 0\n");
  EXPECT_FALSE(exists(main_file() + ".refused"));
  EXPECT_FALSE(exists(backup_file() + ".refused"));
}

TEST_F(LoadTest, ACloseThatFailsChangesNothing) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  watch();
  standin::fail_file_op("fclose", 1, EIO);
  load();
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
  EXPECT_TRUE(errors().empty());
}

TEST_F(LoadTest, ADirectoryInPlaceOfTheMainFileIsAnEmptyOne) {
  start(table_spec{});
  std::filesystem::create_directory(main_file());
  write(backup_file(), "Version 1\n7|8|9\n");
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_TRUE(logged(L_DBG, message("Database empty: %s\n", main_file().c_str())));
}

TEST_F(LoadTest, ADirectoryWithSomethingInItStays) {
  start(table_spec{});
  std::filesystem::create_directory(main_file());
  write(main_file() + "/inside", "x");
  write(backup_file(), "Version 1\n7|8|9\n");
  load();
  EXPECT_EQ(rows(table()), texts{"7|8|9"});
  EXPECT_EQ(read(main_file() + "/inside"), "x");
}

TEST_F(LoadTest, ADirectoryInPlaceOfTheBackupLeavesAnEmptyTable) {
  start(table_spec{});
  std::filesystem::create_directory(backup_file());
  load();
  expect_nothing_left();
}

TEST_F(LoadTest, TheFilesAreTriedInOrderAndClosed) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2\n");
  write(backup_file(), "Version 1\n");
  watch();
  load();
  texts history;
  for (const std::string &op : standin::file_history())
    if (op.rfind("getline", 0) != 0) history.push_back(op);
  EXPECT_EQ(history,
            (texts{"access " + main_file(), "fopen " + main_file(), "fclose", "stat " + main_file(),
                   "rename " + main_file() + " " + main_file() + ".refused",
                   "access " + backup_file(), "fopen " + backup_file(), "fclose"}));
}

TEST_F(LoadTest, WhatTheTableHeldBeforeIsGone) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  add(table(), {"40", "b", "c"});
  add(table(), {"41", "b", "c"});
  table()->next_index = 42;
  table()->state = TBL_CHANGED;
  write(main_file(), "Version 1\n5|2|3\n");
  load();
  EXPECT_EQ(rows(table()), texts{"5|2|3"});
  EXPECT_EQ(table()->row_count, 1);
  EXPECT_EQ(table()->next_index, 6u);
  // The change state belongs to those who change rows.
  EXPECT_EQ(table()->state, TBL_CHANGED);
  std::filesystem::remove(main_file());
  load();
  expect_nothing_left();
  EXPECT_EQ(table()->state, TBL_CHANGED);
}

TEST_F(LoadTest, TheLockIsTheCallersBusiness) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  const lock_scope held(table()->lock);
  load();
  EXPECT_EQ(*table()->lock, 1u);
}

TEST_F(LoadTest, TheNextIndexFollowsTheHighestStoredOneInAnyOrder) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  for (const char *content : {"Version 1\n3|b|c\n7|b|c\n", "Version 1\n7|b|c\n3|b|c\n"}) {
    write(main_file(), content);
    load();
    EXPECT_EQ(table()->next_index, 8u);
    EXPECT_TRUE(logged(L_DBG, "Table 't' index was set to 8\n"));
  }
}

TEST_F(LoadTest, TheNextIndexIsOneWithoutRowsOrWithoutNumbers) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  for (const char *content : {"Version 1\n", "Version 1\nx|b|c\n|b|c\n0|b|c\n"}) {
    write(main_file(), content);
    load();
    EXPECT_EQ(table()->next_index, 1u);
  }
}

TEST_F(LoadTest, TheHighestIndexOfAllIsFollowedByZero) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  write(main_file(), "Version 1\n4294967295|b|c\n");
  load();
  EXPECT_EQ(table()->next_index, 0u);
}

TEST_F(LoadTest, WithoutAGeneratedIndexTheFirstColumnIsNotLookedAt) {
  start(table_spec{});
  write(main_file(), "Version 1\n7|b|c\n");
  load();
  EXPECT_EQ(table()->next_index, 1u);
}

TEST_F(LoadTest, RowLimitAndDuplicateCheckAreNotApplied) {
  table_spec spec;
  spec.max_rows = 2;
  spec.check_duplicates = true;
  start(spec);
  write(main_file(), "Version 1\n1|2|3\n1|2|3\n1|2|3\n");
  load();
  EXPECT_EQ(rows(table()).size(), 3u);
  EXPECT_EQ(table()->row_count, 3);
}

TEST_F(LoadTest, ATextLongerThanItsColumnIsCutWithAWarning) {
  table_spec spec;
  spec.columns = {{"a", 3, 1}, {"b", 5, 0}};
  start(spec);
  write(main_file(), "Version 1\nabcdef|12345\n");
  load();
  EXPECT_EQ(rows(table()), texts{"abc|12345"});
  EXPECT_EQ(warnings(),
            texts{"Value 'abcdef' too long. It will be truncated to fit field size (3 bytes)\n"});
}

TEST_F(LoadTest, ASchemaWithAnotherNumberOfColumnsRefusesBothFiles) {
  table_spec spec;
  spec.columns = {{"a", 5, 1}, {"b", 5, 0}};
  start(spec);
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n1|2|3\n");
  load();
  expect_nothing_left();
  EXPECT_EQ(errors(),
            (texts{"Size mismatch", "Wrong number of fields in field list: t,1|2|3 | (null)\n",
                   "Could not parse 't,1|2|3'\n", "Size mismatch",
                   "Wrong number of fields in field list: t,1|2|3 | (null)\n",
                   "Could not parse 't,1|2|3'\n"}));
}

TEST_F(LoadTest, RowsLongerThanEveryBufferLoadWhole) {
  table_spec spec;
  spec.columns.clear();
  for (int i = 0; i < 5; i++) spec.columns.push_back({"c" + std::to_string(i), 20000, i % 2 == 1});
  start(spec);
  for (const size_t length : {800UL, 815UL, 816UL, 820UL, 824UL, 825UL, 826UL, 4096UL, 20000UL}) {
    std::string row;
    for (int i = 0; i < 5; i++) row += (i > 0 ? "|" : "") + std::string(length, "abcde"[i]);
    write(main_file(), "Version 1\n" + row + "\nshort||||\n" + row + "\n");
    load();
    EXPECT_EQ(rows(table()), (texts{row, "short||||", row}));
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(warnings().empty());
  }
}

TEST_F(LoadTest, ALongLineWithTheWrongNumberOfFieldsIsRefusedWhole) {
  start(table_spec{});
  const std::string line(30000, '|');
  write(main_file(), "Version 1\n" + line + "\n");
  load();
  expect_nothing_left();
  EXPECT_TRUE(logged(L_ERR, "Could not parse 't," + line + "'\n"));
}

TEST_F(LoadTest, AZeroByteEndsItsLine) {
  start(table_spec{});
  write(main_file(), std::string("Version 1\0rest\n1|2|3\0|4|5\n\0x\n4|5|6\n", 34));
  load();
  EXPECT_EQ(rows(table()), (texts{"4|5|6", "1|2|3"}));
}

TEST_F(LoadTest, TheLongestTableNameLoads) {
  table_spec spec;
  spec.name = std::string(31, 'n');
  start(spec);
  write(main_file(spec.file()), "Version 1\n1|2|3\n");
  load();
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
}

TEST_F(LoadTest, ATableWithoutANameLoads) {
  ASSERT_TRUE(create(schema_text::head(path("main/"), path("backup/")) +
                     "NUM_TABLE=1\nMAX_ROWS=5\nNUM_FIELDS=1\na 5 1\nFILE_NAME=t.txt\n"));
  write(main_file(), "Version 1\nx\n");
  load();
  EXPECT_EQ(rows(table()), texts{"x"});
}

TEST_F(LoadTest, ATableWithoutAFileNameTouchesNoDirectory) {
  std::string schema = schema_of({table_spec{}});
  schema.erase(schema.find("FILE_NAME="));
  ASSERT_TRUE(create(schema));
  add(table(), {"1", "2", "3"});
  watch();
  load();
  EXPECT_EQ(rows(table()), texts{});
  EXPECT_TRUE(exists(path("main")));
  EXPECT_TRUE(exists(path("backup")));
  EXPECT_THAT(debug(), testing::Contains(message("Database empty: %s\n", path("main/").c_str())));
  EXPECT_EQ(debug().back(),
            message("New file '%s' will be created later when necessary\n", path("main/").c_str()));
}

TEST_F(LoadTest, ATableWithoutAFileNameLoadsTheFileThatItsDirectoryNames) {
  start(table_spec{});
  table()->file_name[0] = '\0';
  write(path("backup/.backup"), "Version 1\n7|8|9\n");
  load();
  EXPECT_EQ(rows(table()), texts{"7|8|9"});
  snprintf(tarn_tbl_mngt->base_dir, sizeof(tarn_tbl_mngt->base_dir), "%s", main_file().c_str());
  write(main_file(), "Version 1\n1|2|3\n");
  load();
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
}

TEST_F(LoadTest, ATableWithoutAnyPathRemovesNothing) {
  start(table_spec{});
  tarn_tbl_mngt->base_dir[0] = '\0';
  tarn_tbl_mngt->base_backup_dir[0] = '\0';
  table()->file_name[0] = '\0';
  load();
  EXPECT_EQ(rows(table()), texts{});
  EXPECT_EQ(debug().back(), "New file '' will be created later when necessary\n");
}

TEST_F(LoadTest, OfTwoTablesWithOneNameTheFirstGivesTheNumberOfColumns) {
  table_spec first, second, third;
  first.columns = {{"a", 15, 0}};
  second.file_name = "second.txt";
  third.columns = {{"x", 15, 0}};
  third.file_name = "third.txt";
  start({first, second, third});
  write(main_file("second.txt"), "Version 1\n1\n");
  write(main_file("third.txt"), "Version 1\n2\n");
  standin::clear_logs();
  load_table(table(1));
  EXPECT_EQ(rows(table(1)), texts{});
  EXPECT_EQ(errors(), texts{"Could not parse 't,1'\n"});
  load_table(table(2));
  EXPECT_EQ(rows(table(2)), texts{"2"});
}

TEST_F(LoadTest, AOneColumnTableLoads) {
  table_spec spec;
  spec.columns = {{"a", 5, 1}};
  start(spec);
  write(main_file(), "Version 1\na\n\nb\n");
  load();
  EXPECT_EQ(rows(table()), (texts{"b", "a"}));
}

TEST_F(LoadTest, PathsAreJoinedWithNothingBetween) {
  ASSERT_TRUE(create(
      schema_text::schema(path("main/pre_"), path("backup/pre_"), std::vector<table_spec>(1))));
  write(main_file("pre_t.txt"), "Version 2\n");
  write(backup_file("pre_t.txt"), "Version 1\n1|2|3\n");
  load();
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
  EXPECT_FALSE(exists(main_file("pre_t.txt")));
}

// What errno holds at the end of the reading.

TEST_F(LoadTest, AStaleInvalidOrNoMemoryErrorIsToldAtAGoodEnd) {
  start(table_spec{});
  const std::string content = "Version 1\n1|2|3\n#x\n\n4|5|6\n";
  write(main_file(), content);
  for (const int error : {EINVAL, ENOMEM}) {
    errno = error;
    load();
    EXPECT_EQ(rows(table()), (texts{"4|5|6", "1|2|3"}));
    EXPECT_EQ(errors(),
              texts{message("Error reading '%s' line: 5 err: %d\n", main_file().c_str(), error)});
    EXPECT_EQ(read(main_file()), content);
  }
}

TEST_F(LoadTest, OtherStaleErrorsAreNotTold) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  for (const int error : {0, ENOENT, EIO, EINTR, ENOTDIR}) {
    errno = error;
    load();
    EXPECT_TRUE(errors().empty()) << error;
  }
}

TEST_F(LoadTest, AReadErrorKeepsWhatWasReadAndNeverFallsBack) {
  start(table_spec{});
  write(backup_file(), "Version 1\n7|8|9\n");
  for (const int error : {EIO, EINVAL, ENOMEM}) {
    write(main_file(), "Version 1\n1|2|3\n4|5|6\n");
    watch();
    standin::fail_file_op("getline", 3, error);
    errno = 0;
    load();
    EXPECT_EQ(rows(table()), texts{"1|2|3"});
    EXPECT_EQ(table()->row_count, 1);
    EXPECT_TRUE(exists(main_file()));
    if (error == EIO) {
      EXPECT_TRUE(errors().empty());
    } else {
      EXPECT_EQ(errors(),
                texts{message("Error reading '%s' line: 2 err: %d\n", main_file().c_str(), error)});
    }
  }
}

TEST_F(LoadTest, AReadErrorInTheBackupKeepsWhatWasRead) {
  start(table_spec{});
  write(backup_file(), "Version 1\n7|8|9\n1|2|3\n");
  watch();
  standin::fail_file_op("getline", 3, EINVAL);
  load();
  EXPECT_EQ(rows(table()), texts{"7|8|9"});
  EXPECT_EQ(errors(),
            texts{message("Error reading '%s' line: 2 err: 22\n", backup_file().c_str())});
  EXPECT_TRUE(exists(backup_file()));
}

TEST_F(LoadTest, ALineForWhichTheHeapHasNoRoomEndsTheReadingAndWhatWasReadIsKept) {
  table_spec spec;
  spec.columns = {{"a", 1000, 1}, {"b", 15, 0}};
  start(spec);
  const std::string longer(1000, 'l');
  // The first row needs a buffer, and the long one a larger one.
  const std::pair<int, texts> cases[] = {{1, {}}, {2, {"3|4", "1|2"}}};
  for (const auto &[failing, expected] : cases) {
    write(main_file(), "Version 1\n1|2\n#\n3|4\n" + longer + "|5\n6|7\n");
    write(backup_file(), "Version 1\n8|9\n");
    reallocs_until_failure = failing;
    load();
    EXPECT_EQ(reallocs_until_failure, 0);
    EXPECT_EQ(rows(table()), expected);
    EXPECT_EQ(table()->row_count, static_cast<int32_t>(expected.size()));
    EXPECT_EQ(errors(), texts{message("Error reading '%s' line: %d err: %d\n", main_file().c_str(),
                                      failing == 1 ? 2 : 5, ENOMEM)});
    EXPECT_TRUE(exists(main_file()));
    EXPECT_TRUE(exists(backup_file()));
    errno = 0;
    load();
    EXPECT_EQ(rows(table()), (texts{"6|7", longer + "|5", "3|4", "1|2"}));
    EXPECT_TRUE(errors().empty());
  }
}

TEST_F(LoadTest, AReadErrorAtTheVersionIsABadFile) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n7|8|9\n");
  watch();
  standin::fail_file_op("getline", 1, EINVAL);
  load();
  expect_from_backup({"7|8|9"});
  EXPECT_TRUE(logged(L_DBG, message("Database empty: %s\n", main_file().c_str())));
}

// Every allocation and every file operation fails once.

TEST_F(LoadTest, EachFailingAllocationOfTheMainFileGivesTheBackup) {
  start(table_spec{});
  const std::string backup = "Version 1\n7|8|9\n3|4|5\n";
  const texts row = {"1|2|3", "4|5|6", "a|b|c"};
  for (uint64_t failing = 1; failing <= 6; failing++) {
    write(main_file(), "Version 1\n1|2|3\n4|5|6\na|b|c\n");
    write(backup_file(), backup);
    standin::fail_at(pool::both, failing);
    load();
    expect_from_backup({"3|4|5", "7|8|9"});
    const std::string query = "t," + row[(failing - 1) / 2];
    const texts without_fields = {"no more pkg memory\n",
                                  "Wrong number of fields in field list: " + query + " | (null)\n",
                                  "Could not parse '" + query + "'\n"};
    const texts without_row = {"Fail to allocate memory to the row\n",
                               "Could not insert '" + query + "'\n"};
    EXPECT_EQ(errors(), failing % 2 == 1 ? without_fields : without_row);
    EXPECT_EQ(standin::logs(L_CRIT).size(), failing % 2);
  }
}

TEST_F(LoadTest, EachFailingAllocationOfTheBackupLeavesNothing) {
  start(table_spec{});
  for (uint64_t failing = 1; failing <= 4; failing++) {
    write(backup_file(), "Version 1\n7|8|9\n3|4|5\n");
    standin::fail_at(pool::both, failing);
    load();
    expect_nothing_left();
  }
}

TEST_F(LoadTest, WithoutMemoryFromAnyPointOnNothingLeaks) {
  start(table_spec{});
  const uint64_t before = standin::live_count(pool::both);
  for (uint64_t from = 1; from <= 10; from++) {
    write(main_file(), "Version 1\n1|2|3\n4|5|6\n");
    write(backup_file(), "Version 1\n7|8|9\n");
    standin::fail_from(pool::both, from);
    load();
    standin::stop_failing();
    const size_t loaded = rows(table()).size();
    EXPECT_EQ(loaded, from > 4 ? 2u : 0u);
    EXPECT_EQ(standin::live_count(pool::both), before + loaded);
  }
}

TEST_F(LoadTest, EachFileOperationFailsOnceWithoutLeakOrOpenFile) {
  start(table_spec{});
  const uint64_t before = standin::live_count(pool::both);
  bool all_tried = false;
  for (int failing = 1; !all_tried; failing++) {
    ASSERT_LT(failing, 100);
    const file_before files[] = {{main_file(), "Version 1\n1|2|3\n4|5\n"},
                                 {backup_file(), "Version 1\n7|8|9\n"}};
    for (const file_before &each : files) {
      write(each.file, each.text);
      std::filesystem::remove(each.file + ".refused");
    }
    watch();
    standin::fail_file_op("any", failing, EIO);
    load_only();
    all_tried = standin::file_ops("any") < failing;
    EXPECT_EQ(standin::open_streams(), 0);
    const texts history = standin::file_history();
    const bool rename_failed =
        std::any_of(history.begin(), history.end(), [](const std::string &each) {
          return each.rfind("rename", 0) == 0 && each.ends_with("(failed)");
        });
    for (const file_before &each : files)
      EXPECT_TRUE(read_unwatched(each.file) == each.text ||
                  read_unwatched(each.file + ".refused") == each.text || rename_failed)
          << each.file << " with " << history.back();
    const texts got = rows(table());
    EXPECT_TRUE(got == texts{"7|8|9"} || got == texts{} || got == texts{"1|2|3"});
    EXPECT_EQ(table()->row_count, static_cast<int32_t>(got.size()));
    EXPECT_EQ(standin::live_count(pool::both), before + got.size());
  }
}

TEST_F(LoadTest, MemoryIsBackToWhereItWasAfterLoadingAndEmptying) {
  start(table_spec{});
  const size_t blocks = standin::live_count(pool::both);
  const size_t bytes = standin::live_bytes(pool::both);
  std::string content = "Version 1\n";
  for (int i = 0; i < 200; i++) content += std::to_string(i) + "|b|c\n";
  write(main_file(), content);
  for (int i = 0; i < 3; i++) {
    load();
    EXPECT_EQ(standin::live_count(pool::both), blocks + 200);
  }
  write(main_file(), "Version 1\n");
  load();
  EXPECT_EQ(standin::live_count(pool::both), blocks);
  EXPECT_EQ(standin::live_bytes(pool::both), bytes);
}

TEST_F(LoadTest, FilesCutOffAnywhereLoadRowsOrGiveTheBackup) {
  start(table_spec{});
  standin::set_debug_level(L_ERR);
  const std::string content = "Version 1\n1|2|3\nab|c\\|d|e\n#x\n\n7|8|9\n";
  for (size_t length = 0; length <= content.size(); length++) {
    write(main_file(), content.substr(0, length));
    write(backup_file(), "Version 1\nback|up|row\n");
    load();
    const bool fell_back = rows(table()) == texts{"back|up|row"};
    EXPECT_EQ(exists(main_file()), !fell_back);
    EXPECT_TRUE(exists(backup_file()));
    EXPECT_TRUE(length >= 9 || fell_back);
  }
}

TEST_F(LoadTest, RandomBytesNeverCrash) {
  start(table_spec{});
  standin::set_debug_level(L_CRIT);
  uint32_t state = 1;
  const auto next = [&state] { return state = state * 1664525 + 1013904223; };
  for (int run = 0; run < 1500; run++) {
    std::string content = "Version 1\n1|2|3\nab|c\\|d|e\n#x\n\n7|8|9\n";
    for (int i = 0; i < 4; i++)
      content[10 + (next() >> 8) % (content.size() - 10)] = static_cast<char>(next() >> 16);
    write(main_file(), content);
    load();
    EXPECT_EQ(table()->row_count, static_cast<int32_t>(rows(table()).size()));
  }
}

// Tables whose rows hold ports.

class PortLoadTest : public LoadTest {
 protected:
  void start_ports() {
    port_settings.internal = {100, 109};
    port_settings.external = {200, 209};
    table_spec spec;
    spec.ports = {{"dynamic", 6, 9}};
    spec.columns.clear();
    for (int i = 0; i < 10; i++) spec.columns.push_back({"c" + std::to_string(i), 15, 0});
    start(spec);
    ASSERT_TRUE(init_port_maps());
    standin::clear_logs();
  }

  ~PortLoadTest() override { port_settings = usual_; }

  static std::string row(const std::string &location, const std::string &internal,
                         const std::string &external) {
    return "n|k1|k2|k3|x|" + location + "|" + internal + "|y|3|" + external + "\n";
  }

 private:
  const port_parameters usual_ = port_settings;
};

TEST_F(PortLoadTest, RowsTakeTheirPortsFromTheirOwnValues) {
  start_ports();
  write(main_file(), "Version 1\n" + row("WAN", "103", "203") + row("LAN", "104", "204"));
  load();
  EXPECT_EQ(*port_entry(port_m_int, 103), 0x81);
  EXPECT_EQ(*port_entry(port_m_ext, 204), 0x81);
  EXPECT_EQ(*port_entry(port_m_int, 104), 0);
  EXPECT_EQ(*port_entry(port_m_ext, 203), 0);
  EXPECT_EQ(table()->row_count, 2);
}

TEST_F(PortLoadTest, APortOutsideItsMapIsToldAndTheRowKept) {
  start_ports();
  write(main_file(), "Version 1\n" + row("WAN", "99", "203") + row("WAN", "", "203"));
  load();
  EXPECT_EQ(table()->row_count, 2);
  EXPECT_TRUE(logged(L_DBG, "Port 99 NOT set on load for range dynamic!\n"));
  EXPECT_TRUE(logged(L_DBG, "Port 0 NOT set on load for range dynamic!\n"));
  EXPECT_TRUE(errors().empty());
}

TEST_F(PortLoadTest, APortThatTheColumnCutsIsTakenAsStored) {
  start_ports();
  write(main_file(),
        "Version 1\n" + row("WAN", "000000000000103", "1") + row("WAN", "0000000000000105", "1"));
  load();
  EXPECT_EQ(*port_entry(port_m_int, 103), 0x81);
  EXPECT_EQ(*port_entry(port_m_int, 105), 0);
  EXPECT_TRUE(logged(L_DBG, "Port 10 NOT set on load for range dynamic!\n"));
}

TEST_F(PortLoadTest, PortsOfADiscardedMainFileStayCountedAndTheBackupCountsAgain) {
  start_ports();
  write(main_file(), "Version 1\n" + row("WAN", "103", "1") + row("WAN", "105", "1") + "bad\n");
  write(backup_file(), "Version 1\n" + row("WAN", "103", "1"));
  load();
  EXPECT_EQ(table()->row_count, 1);
  EXPECT_EQ(*port_entry(port_m_int, 103), 0x82);
  EXPECT_EQ(*port_entry(port_m_int, 105), 0x81);
}

TEST_F(PortLoadTest, EmptyingTheTableReleasesNoPort) {
  start_ports();
  write(main_file(), "Version 1\n" + row("WAN", "103", "1"));
  load();
  load();
  EXPECT_EQ(*port_entry(port_m_int, 103), 0x82);
  std::filesystem::remove(main_file());
  load();
  EXPECT_EQ(*port_entry(port_m_int, 103), 0x82);
}

TEST_F(PortLoadTest, ARowThatFindsNoMemoryTakesNoPort) {
  start_ports();
  write(main_file(), "Version 1\n" + row("WAN", "103", "1"));
  standin::fail_at(pool::shm, 1);
  load();
  EXPECT_EQ(*port_entry(port_m_int, 103), 0);
}

}  // namespace
}  // namespace tables_test
