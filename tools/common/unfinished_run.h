// What tarn-memdb-convert leaves where it is cut off amid its renames.
#pragma once

#include <string>

#include "tables/files/table_paths.h"

// The list of what is left to do, in the folder of the registry's main files. Until it is gone,
// some files may be of one schema and others of another.
inline std::string unfinished_run_path() {
  return base_folder().text + std::string("tarn-memdb-convert.unfinished");
}
