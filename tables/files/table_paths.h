// Where a table's files are.
#pragma once

#include <cstdio>
#include <cstring>
#include <string_view>

#include "tables/tarn_tbl.h"

inline constexpr char TABLE_FILE_VERSION[] = "Version 1";

// False for a path that is written as a directory's, which must neither be moved nor removed: a
// table whose schema ends before its file name has base_dir itself as its path. Nothing on disk is
// looked at.
inline bool names_file(std::string_view path) { return !path.empty() && path.back() != '/'; }

// base_dir and file_name as they stand, nothing added between them.
struct main_path {
  explicit main_path(const tarn_tbl *table) {
    snprintf(text, sizeof(text), "%s%s", tarn_tbl_mngt->base_dir, table->file_name);
  }
  char text[544];
};

// base_backup_dir, file_name and ".backup".
struct backup_path {
  explicit backup_path(const tarn_tbl *table) {
    snprintf(text, sizeof(text), "%s%s%s", tarn_tbl_mngt->base_backup_dir, table->file_name,
             ".backup");
  }
  char text[551];
};

// The folder that main files are in, unless their names lead on: all of base_dir up to its last
// slash.
struct base_folder {
  base_folder() {
    const char *const dir = tarn_tbl_mngt->base_dir;
    const char *const slash = strrchr(dir, '/');
    if (slash != nullptr)
      snprintf(text, sizeof(text), "%.*s", static_cast<int>(slash + 1 - dir), dir);
    else
      snprintf(text, sizeof(text), ".");
  }
  char text[sizeof(tarn_mngt::base_dir)];
};

// Where the file at path goes if it can't be loaded: beside itself.
struct refused_path {
  explicit refused_path(const char *path) {
    snprintf(text, sizeof(text), "%s%s", path, ".refused");
  }
  char text[sizeof(backup_path::text) + sizeof(".refused")];
};
