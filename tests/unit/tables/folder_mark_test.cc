// The lock by which other programs know that a server uses the tables' files.
#include "tables/files/folder_mark.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>

#include "tables/files/table_paths.h"
#include "tests/unit/tables/fixture.h"

namespace tables_test {
namespace {

class FolderMarkTest : public TablesTest {
 protected:
  ~FolderMarkTest() override { unmark_folder(); }

  // Whether somebody else can have the folder alone.
  static bool is_free(const std::string &folder) {
    const int file = open(folder.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(file, 0);
    const bool taken = flock(file, LOCK_EX | LOCK_NB) == 0;
    close(file);
    return taken;
  }
};

TEST_F(FolderMarkTest, TheFolderIsTakenUntilItIsGivenBack) {
  start(table_spec{});
  const std::string folder = base_folder().text;
  EXPECT_TRUE(is_free(folder));
  mark_folder();
  EXPECT_FALSE(is_free(folder));
  unmark_folder();
  EXPECT_TRUE(is_free(folder));
  unmark_folder();
}

TEST_F(FolderMarkTest, SeveralServersHaveAFolderAtATime) {
  start(table_spec{});
  const std::string folder = base_folder().text;
  const int other = open(folder.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), 0);
  mark_folder();
  close(other);
  EXPECT_FALSE(is_free(folder));
}

TEST_F(FolderMarkTest, AProcessThatIsLeftKeepsTheFolder) {
  start(table_spec{});
  const std::string folder = base_folder().text;
  mark_folder();
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  const pid_t worker = fork();
  if (worker == 0) {
    close(gate[1]);
    char end;
    while (::read(gate[0], &end, 1) > 0) continue;
    _exit(0);
  }
  unmark_folder();
  EXPECT_FALSE(is_free(folder));
  close(gate[1]);
  waitpid(worker, nullptr, 0);
  close(gate[0]);
  EXPECT_TRUE(is_free(folder));
}

TEST_F(FolderMarkTest, AFolderThatCannotBeTakenIsNoFault) {
  start(table_spec{});
  const std::string folder = base_folder().text;
  const int other = open(folder.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  standin::clear_logs();
  mark_folder();
  close(other);
  snprintf(tarn_tbl_mngt->base_dir, sizeof(tarn_tbl_mngt->base_dir), "%snone/", path("").c_str());
  mark_folder();
  EXPECT_EQ(log_texts(), texts{});
}

TEST_F(FolderMarkTest, TheFolderIsWhatStandsAheadOfTheLastSlash) {
  start(table_spec{});
  const auto folder_of = [](const char *base_dir) {
    snprintf(tarn_tbl_mngt->base_dir, sizeof(tarn_tbl_mngt->base_dir), "%s", base_dir);
    return std::string(base_folder().text);
  };
  EXPECT_EQ(folder_of("/var/tables/"), "/var/tables/");
  EXPECT_EQ(folder_of("/var/tables/site-"), "/var/tables/");
  EXPECT_EQ(folder_of("/"), "/");
  EXPECT_EQ(folder_of("site-"), ".");
  EXPECT_EQ(folder_of(""), ".");
}

}  // namespace
}  // namespace tables_test
