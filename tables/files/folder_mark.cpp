// The lock is the open folder's: every process that inherits it keeps it.
#include "tables/files/folder_mark.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "tables/files/table_paths.h"

namespace {

int folder = -1;

}  // namespace

void mark_folder() {
  unmark_folder();
  folder = open(base_folder().text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  renew_folder_mark();
}

void renew_folder_mark() {
  // Without a wait: whoever holds the folder alone must not keep a server from starting.
  if (folder >= 0) flock(folder, LOCK_SH | LOCK_NB);
}

void unmark_folder() {
  if (folder >= 0) close(folder);
  folder = -1;
}
