// Looking at the disk.
#include "tools/common/file_entry.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

namespace {

std::string id_of(const struct stat &status) {
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

entry_kind kind_of(mode_t mode) {
  if (S_ISREG(mode)) return entry_kind::regular;
  if (S_ISDIR(mode)) return entry_kind::directory;
  if (S_ISFIFO(mode)) return entry_kind::pipe;
  if (S_ISSOCK(mode)) return entry_kind::socket;
  return entry_kind::device;
}

}  // namespace

file_entry look_at(const std::string &path) {
  file_entry out;
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return out;
  out.is_link = S_ISLNK(status.st_mode);
  if (out.is_link && stat(path.c_str(), &status) != 0) return out;
  out.kind = kind_of(status.st_mode);
  out.id = id_of(status);
  return out;
}

std::string folder_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == path.npos ? "." : path.substr(0, slash + 1);
}

std::string last_part_of(const std::string &path) { return path.substr(path.rfind('/') + 1); }

std::string entry_name(const std::string &path) {
  const std::string folder = folder_of(path);
  if (const std::string id = look_at(folder).id; !id.empty()) return id + "/" + last_part_of(path);
  std::error_code ignored;
  const std::filesystem::path real = std::filesystem::weakly_canonical(folder, ignored);
  return (real / last_part_of(path)).string();
}

const char *kind_name(entry_kind kind) {
  switch (kind) {
    case entry_kind::directory:
      return "a directory";
    case entry_kind::pipe:
      return "a pipe";
    case entry_kind::socket:
      return "a socket";
    case entry_kind::device:
      return "a device";
    default:
      return "a file";
  }
}

std::string mount_of(const std::string &folder) {
  struct statx status;
  if (statx(AT_FDCWD, folder.c_str(), 0, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0) return {};
  return std::to_string(status.stx_dev_major) + ":" + std::to_string(status.stx_dev_minor) + ":" +
         std::to_string(status.stx_mnt_id);
}
