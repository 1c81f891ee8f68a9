// Reading a file to its end.
#include "tools/common/input_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tables/shared/file_handle.h"

std::optional<std::string> input_text(const std::string &path, std::string *why) {
  const file_handle file(fopen(path.c_str(), "r"));
  std::string text;
  if (file) {
    char part[65536];
    while (const size_t read = fread(part, 1, sizeof(part), file.get())) {
      text.append(part, read);
      if (text.size() <= MOST_INPUT) continue;
      *why = "can't be read: it has no end within " + std::to_string(MOST_INPUT >> 20) + " MB";
      return std::nullopt;
    }
    if (ferror(file.get()) == 0) return text;
  }
  *why = std::string("can't be read: ") + strerror(errno);
  return std::nullopt;
}
