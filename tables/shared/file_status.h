// What a path or an open file is, asked of the kernel by its own calls: the C library has stat and
// its kin as functions since 2.33 only, and the module runs with older ones. The record is the
// same.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static_assert(sizeof(struct stat) == 144, "the kernel's record of this machine");

// These give true with status filled, or false with errno set.

// Of what the path leads to.
inline bool read_status(const char *path, struct stat *status) {
  return syscall(SYS_newfstatat, AT_FDCWD, path, status, 0) == 0;
}

// Of the path itself, which may be a link.
inline bool read_link_status(const char *path, struct stat *status) {
  return syscall(SYS_newfstatat, AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW) == 0;
}

inline bool read_status(int file, struct stat *status) {
  return syscall(SYS_fstat, file, status) == 0;
}
