// What a shared object's own tables say about it: symbols, libraries, constructors.
#pragma once

#include <string>
#include <vector>

namespace module_test {

struct elf_symbol {
  std::string name;
  bool defined;
  bool weak;
};

class elf_file {
 public:
  // Throws std::runtime_error if the file isn't a 64-bit object of this machine's byte order.
  explicit elf_file(const std::string &path);

  // The symbols that the loader sees, without nameless ones.
  std::vector<elf_symbol> dynamic_symbols() const;
  // All symbols of the linker's own table; empty in a stripped file.
  std::vector<elf_symbol> all_symbols() const;
  // The libraries that the loader opens with the file.
  std::vector<std::string> needed() const;
  // The versions of those libraries' symbols that the loader insists on.
  std::vector<std::string> needed_versions() const;
  // Number of functions that the loader runs when it opens the file.
  size_t constructors() const;

 private:
  std::string section(const std::string &name) const;
  std::vector<elf_symbol> symbols(const std::string &table, const std::string &names) const;

  std::string bytes_;
};

}  // namespace module_test
