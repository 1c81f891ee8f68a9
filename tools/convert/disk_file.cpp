// Writing, as far as the disk.
#include "tools/convert/disk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tools/common/file_entry.h"

namespace {

// A first file that root makes is for whom the folder is for.
void give_first_access(int file, const std::string &path) {
  struct stat folder;
  const mode_t mask = umask(0);
  umask(mask);
  if (geteuid() != 0 || stat(folder_of(path).c_str(), &folder) != 0)
    fchmod(file, 0666 & ~mask);
  else
    give_access(file, {true, 0666 & ~mask & (folder.st_mode | 0600), folder.st_uid, folder.st_gid});
}

}  // namespace

disk_file::~disk_file() {
  if (file_ >= 0) fail();
}

bool disk_file::make(const std::string &path, const file_access &access) {
  path_ = path;
  // By this nobody's link is followed.
  unlink(path.c_str());
  file_ = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file_ < 0) {
    error_ = errno;
    return false;
  }
  if (access.known)
    give_access(file_, access);
  else
    give_first_access(file_, path);
  return true;
}

bool disk_file::flush() {
  for (size_t at = 0; at < text_.size();) {
    const ssize_t written = write(file_, text_.data() + at, text_.size() - at);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return fail();
    at += static_cast<size_t>(written);
  }
  text_.clear();
  return true;
}

bool disk_file::finish() {
  if (file_ < 0 || !flush()) return false;
  if (fsync(file_) != 0) return fail();
  const int file = file_;
  file_ = -1;
  if (close(file) == 0) return true;
  error_ = errno;
  unlink(path_.c_str());
  return false;
}

bool disk_file::fail() {
  if (file_ < 0) return false;
  error_ = errno;
  close(file_);
  file_ = -1;
  unlink(path_.c_str());
  return false;
}

bool sync_folder(const std::string &folder) {
  const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) return false;
  // Some file systems have no such call for folders, and nothing that it could bring to the disk.
  const bool is_done = fsync(handle) == 0 || errno == EINVAL;
  const int error = errno;
  close(handle);
  errno = error;
  return is_done;
}
