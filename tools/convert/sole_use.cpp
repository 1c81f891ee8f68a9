// Locks on folders and schemas.
#include "tools/convert/sole_use.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

sole_lock::~sole_lock() {
  if (file_ >= 0) close(file_);
}

sole_lock::outcome sole_lock::take(const std::string &path, bool is_shared) {
  // A pipe is opened without a wait for whoever writes to it.
  file_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file_ < 0) return outcome::unknown;
  if (flock(file_, (is_shared ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0) return outcome::taken;
  return errno == EWOULDBLOCK ? outcome::refused : outcome::unknown;
}

bool keep_runs_off(const std::string &schema, sole_lock *lock, findings *found) {
  if (lock->take(schema) != sole_lock::outcome::refused) return true;
  found->error(schema, 0, "another run of this program is at work with this schema");
  return false;
}

bool keep_placing_off(const site &of, sole_lock *lock, findings *found) {
  const std::string folder = folder_of(of);
  if (lock->take(folder, true) != sole_lock::outcome::refused) return true;
  found->error(folder, 0, "another run of this program replaces files in it");
  return false;
}

bool keep_servers_off(const site &of, sole_lock *lock, findings *found) {
  const std::string folder = folder_of(of);
  switch (lock->take(folder)) {
    case sole_lock::outcome::taken:
      return true;
    case sole_lock::outcome::refused:
      found->error(folder, 0,
                   "is used by a server, which has to be stopped first, or by another run");
      return false;
    case sole_lock::outcome::unknown:
      break;
  }
  found->warn(
      folder, 0,
      std::string("can't be locked, so whether a server uses it isn't known: ") + strerror(errno));
  return true;
}
