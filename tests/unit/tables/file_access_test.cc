// Access rights of files that a store makes anew.
#include "tables/files/file_access.h"

#include "tables/shared/file_handle.h"
#include "tests/unit/tables/fixture.h"

// The linker leads fchown here; see the build file.
extern "C" {
int real_fchown(int file, uid_t owner, gid_t group) __asm__("__real_fchown");
int noted_fchown(int file, uid_t owner, gid_t group) __asm__("__wrap_fchown");
}

namespace {

struct asked_owner {
  uid_t owner;
  gid_t group;
  bool operator==(const asked_owner &) const = default;
};

std::vector<asked_owner> asked;
mode_t mode_when_asked;   // of the file
size_t chowns_that_fail;  // of those to come

}  // namespace

int noted_fchown(int file, uid_t owner, gid_t group) {
  struct stat status = {};
  fstat(file, &status);
  mode_when_asked = status.st_mode & 07777;
  asked.push_back({owner, group});
  if (chowns_that_fail == 0) return 0;
  chowns_that_fail--;
  errno = EPERM;
  return -1;
}

namespace tables_test {
namespace {

constexpr gid_t OTHER_GROUP = 12345;
constexpr uid_t AS_IT_IS = static_cast<uid_t>(-1);

class FileAccessTest : public TablesTest {
 protected:
  FileAccessTest() : usual_(umask(022)) {
    asked.clear();
    chowns_that_fail = 0;
  }
  ~FileAccessTest() override { umask(usual_); }

  static mode_t mode_of(const std::string &file) {
    struct stat status = {};
    EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
  }
  static file_access own(mode_t mode) { return {true, mode, geteuid(), getegid()}; }

  // The mode of a file made with these rights.
  mode_t made_with(const file_access &access) {
    std::filesystem::remove(path("new"));
    const file_handle file(open_with_access(path("new").c_str(), access));
    EXPECT_TRUE(file);
    return mode_of(path("new"));
  }
  // A store of a change of the first table.
  void store_change() {
    add(table(), {"1", "2", "3"});
    EXPECT_TRUE(store_table(table()));
  }

  mode_t usual_;
};

TEST_F(FileAccessTest, AFileGetsTheRightsAsTheyAreWhateverTheProcesssMask) {
  for (const mode_t mask : {0, 022, 077, 0777}) {
    umask(mask);
    for (const mode_t mode : {0600u, 0640u, 0660u, 0666u, 0440u, 0755u, 0u})
      EXPECT_EQ(made_with(own(mode)), mode) << "mask " << mask;
    EXPECT_EQ(umask(022), mask) << "the process's own";
  }
  EXPECT_TRUE(asked.empty());
}

TEST_F(FileAccessTest, UnknownRightsAreTheProcesssDefault) {
  EXPECT_EQ(made_with({}), 0644u);
  umask(077);
  EXPECT_EQ(made_with({}), 0600u);
}

TEST_F(FileAccessTest, AFileThatIsThereIsCutAndKeepsItsRights) {
  write(path("old"), "text");
  chmod(path("old").c_str(), 0604);
  {
    const file_handle file(open_with_access(path("old").c_str(), own(0640)));
    EXPECT_TRUE(file);
  }
  EXPECT_EQ(read(path("old")), "");
  EXPECT_EQ(mode_of(path("old")), 0604u);
}

TEST_F(FileAccessTest, OwnerAndGroupAreGivenWhereTheyDiffer) {
  EXPECT_EQ(made_with({true, 0640, geteuid(), OTHER_GROUP}), 0640u);
  EXPECT_EQ(asked, (std::vector<asked_owner>{{geteuid(), OTHER_GROUP}}));
  EXPECT_EQ(mode_when_asked, 0600u) << "nobody else may open it before it has its group";
}

TEST_F(FileAccessTest, WhereTheOwnerCannotBeGivenTheGroupIs) {
  chowns_that_fail = 1;
  EXPECT_EQ(made_with({true, 0640, geteuid() + 1, OTHER_GROUP}), 0640u);
  EXPECT_EQ(asked,
            (std::vector<asked_owner>{{geteuid() + 1, OTHER_GROUP}, {AS_IT_IS, OTHER_GROUP}}));
}

TEST_F(FileAccessTest, WhereTheGroupCannotBeGivenItMayDoWhatOthersMay) {
  const struct {
    mode_t wanted, made;
  } each[] = {{0640, 0600}, {0664, 0644}, {0600, 0600}, {0606, 0666}};
  for (const auto &[wanted, made] : each) {
    chowns_that_fail = 2;
    EXPECT_EQ(made_with({true, wanted, geteuid(), OTHER_GROUP}), made);
  }
}

TEST_F(FileAccessTest, APathThatCannotBeOpenedIsNull) {
  EXPECT_EQ(open_with_access(path("none/new").c_str(), own(0600)), nullptr);
  EXPECT_EQ(umask(022), 022u);
}

TEST_F(FileAccessTest, TheFirstRegularFileTells) {
  write(path("a"), "");
  write(path("b"), "");
  chmod(path("a").c_str(), 0640);
  chmod(path("b").c_str(), 0600);
  std::filesystem::create_symlink(path("b"), path("link"));
  const std::string none = path("none"), a = path("a"), b = path("b"), link = path("link");
  EXPECT_EQ(access_of_first({none.c_str(), a.c_str(), b.c_str()}).mode, 0640u);
  EXPECT_EQ(access_of_first({link.c_str(), a.c_str()}).mode, 0600u);
  EXPECT_EQ(access_of_first({dir_.c_str(), "/dev/null", b.c_str()}).mode, 0600u);
  EXPECT_EQ(access_of_first({a.c_str()}).owner, geteuid());
  EXPECT_FALSE(access_of_first({none.c_str(), dir_.c_str()}).known);
}

// Stores.

TEST_F(FileAccessTest, AStoreKeepsTheRightsOfTheFileThatItReplaces) {
  start(table_spec{});
  store_change();
  EXPECT_EQ(mode_of(main_file()), 0644u) << "the first one gets the default";
  for (const mode_t mode : {0600u, 0640u, 0660u}) {
    chmod(main_file().c_str(), mode);
    for (int i = 0; i < 2; i++) {
      store_change();
      EXPECT_EQ(mode_of(main_file()), mode);
      EXPECT_EQ(mode_of(backup_file()), mode);
    }
  }
}

TEST_F(FileAccessTest, WithoutAMainFileTheRightsOfItsLastTextCount) {
  start(table_spec{});
  write(backup_file(), "Version 1\n");
  chmod(backup_file().c_str(), 0600);
  store_change();
  EXPECT_EQ(mode_of(main_file()), 0600u);

  std::filesystem::remove(main_file());
  std::filesystem::remove(backup_file());
  write(main_file(), "Version 0\n");
  chmod(main_file().c_str(), 0640);
  load_table(table());
  store_change();
  EXPECT_EQ(mode_of(main_file()), 0640u) << "as the file that was set aside";

  for (const std::string &file : {main_file(), main_file() + ".refused"})
    std::filesystem::remove(file);
  write(backup_file(), "Version 0\n");
  chmod(backup_file().c_str(), 0604);
  load_table(table());
  store_change();
  EXPECT_EQ(mode_of(main_file()), 0604u) << "as the backup that was set aside";
}

TEST_F(FileAccessTest, AClearedTablesFilesKeepTheirRightsAndNewOnesGetThem) {
  start(table_spec{});
  write(backup_file(), "Version 1\n");
  chmod(backup_file().c_str(), 0600);
  table()->state = TBL_CLEARED;
  EXPECT_TRUE(store_table(table()));
  EXPECT_EQ(mode_of(main_file()), 0600u);
  EXPECT_EQ(mode_of(backup_file()), 0600u);
}

}  // namespace
}  // namespace tables_test
