// Usage, version and ends.
#include "tools/common/program.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "host/version.h"

namespace {

[[noreturn]] void tell(const std::string &text) {
  std::cout << text << std::flush;
  exit(std::cout ? CLEAN : UNREADABLE);
}

}  // namespace

void refuse(const program &self, const std::string &why) {
  std::cerr << self.name << ": " << why << "\n" << self.usage;
  exit(UNREADABLE);
}

void tell_help(const program &self) { tell(self.usage); }

void tell_version(const program &self) {
  tell(std::string(self.name) + " " TARN_VERSION ", for " TARN_HOST_VERSION "\n");
}

bool finish_output(const program &self) {
  if (std::cout.flush()) return true;
  std::cerr << self.name << ": the report can't be written: " << strerror(errno) << "\n";
  return false;
}
