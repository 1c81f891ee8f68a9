// Opening table files, and who may read and write them: a store makes the file anew, and its rights
// stay.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <initializer_list>

struct file_access {
  bool known = false;
  mode_t mode = 0;  // the nine bits of owner, group and others
  uid_t owner = 0;
  gid_t group = 0;
};

// The rights of the first of these paths that leads to a regular file; not known if none does.
file_access access_of_first(std::initializer_list<const char *> paths);

// Gives an open file these rights, as far as the process may: where it can't give the group, the
// group that the file has may do what all others may.
void give_access(int file, const file_access &access);

// Opens path for writing, cut to nothing. A file that is made by that gets these rights before
// anything is in it, as give_access gives them. Rights that aren't known are the process's default.
// A file that is there keeps its own. Null, logged, if path can't be opened.
FILE *open_with_access(const char *path, const file_access &access);

// Opens path for reading. Null, logged, if it can't be opened.
FILE *open_for_reading(const char *path);
