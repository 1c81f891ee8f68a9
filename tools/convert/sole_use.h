// Whether anybody else is at the files.
//
// A server holds a shared lock (flock) on the folder of its main files for as long as one of its
// processes is there; see tables/files/folder_mark.h. Whoever replaces files takes the lock alone.
#pragma once

#include <string>

#include "tools/common/findings.h"
#include "tools/convert/site.h"

// A lock that nobody else has, or only others that share it, until the end of the scope.
class sole_lock {
 public:
  sole_lock() = default;
  ~sole_lock();
  sole_lock(const sole_lock &) = delete;
  sole_lock &operator=(const sole_lock &) = delete;

  enum class outcome { taken, refused, unknown };
  // unknown, with errno, where the file system has no such locks, or the path can't be opened.
  outcome take(const std::string &path, bool is_shared = false);

 private:
  int file_ = -1;
};

// Keeps other runs with the same schema off. False, told, if there is one.
bool keep_runs_off(const std::string &schema, sole_lock *lock, findings *found);

// Keeps runs off that replace files there, which would take an unfinished file of this one. False,
// told, if there is one.
bool keep_placing_off(const site &of, sole_lock *lock, findings *found);

// Takes the folder of the site's files for this run. False, told, if a server uses it. Where that
// can't be told it is told as a warning.
bool keep_servers_off(const site &of, sole_lock *lock, findings *found);
