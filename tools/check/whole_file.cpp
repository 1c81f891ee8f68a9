// Reading a file to its end.
#include "tools/check/whole_file.h"

#include <cstdio>

#include "tables/file_handle.h"

std::optional<std::string> whole_file(const std::string &path) {
  const file_handle file(fopen(path.c_str(), "r"));
  if (!file) return std::nullopt;
  std::string text;
  char part[65536];
  while (const size_t read = fread(part, 1, sizeof(part), file.get())) text.append(part, read);
  if (ferror(file.get()) != 0) return std::nullopt;
  return text;
}
