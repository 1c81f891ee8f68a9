// Opening files with their rights.
#include "tables/files/file_access.h"

#include <sys/stat.h>
#include <unistd.h>

#include "host/log.h"
#include "tables/shared/file_status.h"

namespace {

constexpr mode_t RIGHTS = 0777;
constexpr mode_t OWNER_RIGHTS = 0700;
constexpr mode_t GROUP_RIGHTS = 070;
constexpr mode_t OTHERS_RIGHTS = 07;
constexpr uid_t OWNER_AS_IT_IS = static_cast<uid_t>(-1);

// Keeps rights from the files that the process makes during the scope, besides those that it keeps
// from them anyway.
class narrower_mask {
 public:
  explicit narrower_mask(mode_t kept_off) : usual_(umask(RIGHTS & ~OWNER_RIGHTS)) {
    umask(usual_ | kept_off);
  }
  ~narrower_mask() { umask(usual_); }
  narrower_mask(const narrower_mask &) = delete;
  narrower_mask &operator=(const narrower_mask &) = delete;

 private:
  mode_t usual_;
};

// True if the file has the group that it is to have.
bool give_owner(int file, const struct stat &now, const file_access &access) {
  if (now.st_uid == access.owner && now.st_gid == access.group) return true;
  return fchown(file, access.owner, access.group) == 0 ||
         fchown(file, OWNER_AS_IT_IS, access.group) == 0;
}

FILE *open_file(const char *path, const char *mode) {
  FILE *const file = fopen(path, mode);
  if (file == nullptr) LM_ERR("Could not open file '%s'\n", path);
  return file;
}

}  // namespace

void give_access(int file, const file_access &access) {
  struct stat now;
  if (!read_status(file, &now)) return;
  mode_t mode = access.mode;
  if (!give_owner(file, now, access)) mode = (mode & ~GROUP_RIGHTS) | (mode & OTHERS_RIGHTS) << 3;
  fchmod(file, mode);
}

file_access access_of_first(std::initializer_list<const char *> paths) {
  for (const char *const path : paths) {
    struct stat status;
    if (read_status(path, &status) && S_ISREG(status.st_mode))
      return {true, status.st_mode & RIGHTS, status.st_uid, status.st_gid};
  }
  return {};
}

FILE *open_with_access(const char *path, const file_access &access) {
  struct stat there;
  if (!access.known || read_link_status(path, &there)) return open_file(path, "w");
  // Whoever may not read the text may not open the file in the moment before it has its group and
  // its rights: until then it is its owner's alone.
  const narrower_mask mask(RIGHTS & ~(access.mode & OWNER_RIGHTS));
  FILE *const file = open_file(path, "w");
  if (file != nullptr) give_access(fileno(file), access);
  return file;
}

FILE *open_for_reading(const char *path) { return open_file(path, "r"); }
