// What the harnesses share: an input cut into choices and text, memory that can run out, a table
// made by hand, and the rules that hold after every input.
//
// An input is text that people can write: a few characters of choices, each worth its distance from
// '0', and behind them the bytes that the module is given.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ports/port_map.h"
#include "tables/tarn_tbl.h"
#include "tests/standin/standin.h"

// Ends the run with the condition's text; libFuzzer and the replay both take it for a finding.
#define REQUIRE(condition)                                        \
  do {                                                            \
    if (!(condition)) fuzz::fail(__FILE__, __LINE__, #condition); \
  } while (false)

namespace fuzz {

[[noreturn]] void fail(const char *file, int line, const char *condition);

// The input of one run.
class input {
 public:
  input(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

  // The next character as a choice: '0' is 0. A used-up input chooses 0 for ever.
  unsigned choice() {
    if (rest_.empty()) return 0;
    const auto c = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return static_cast<unsigned char>(c - '0');
  }

  std::string rest() const { return std::string(rest_); }

 private:
  std::string_view rest_;
};

// A text on the heap with its terminator and no byte behind, so that a sanitizer sees every step
// out of it.
class heap_text {
 public:
  explicit heap_text(std::string_view text);
  str get() const { return {bytes_.get(), static_cast<int>(size_)}; }
  // Up to the first zero byte, as callers hand texts on that they know as terminated only.
  str terminated() const;
  const char *c_str() const { return bytes_.get(); }

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_;
};

// One run: the stand-in in its first state, and memory limited to a megabyte, so that numbers in a
// hostile text can't ask for the whole machine's. At its end nothing may be left or broken.
class run {
 public:
  run();
  ~run();
  run(const run &) = delete;
  run &operator=(const run &) = delete;
};

// Makes the n-th allocation from now on fail; 0 for none.
void fail_allocation(unsigned n);

// True if an allocation was refused in this run: by choice, or for its size.
bool memory_was_short();

// A file of these bytes that exists as long as the object.
class memory_file {
 public:
  explicit memory_file(std::string_view bytes);
  ~memory_file();
  memory_file(const memory_file &) = delete;
  memory_file &operator=(const memory_file &) = delete;
  const char *path() const { return path_.c_str(); }

 private:
  int descriptor_;
  std::string path_;
};

// A directory for table files, made once per process and removed at its end.
const std::string &directory();

std::optional<std::string> read_file(const std::string &path);
void write_file(const std::string &path, std::string_view bytes);

struct column {
  const char *name;
  uint32_t len;
  bool indexed = false;
};

// A registry with tables made by hand.
class registry {
 public:
  registry();
  ~registry();
  registry(const registry &) = delete;
  registry &operator=(const registry &) = delete;

  tarn_tbl *add(const char *name, const std::vector<column> &columns, int32_t max_rows = 100);

 private:
  tarn_mngt mngt_{};
  std::vector<tarn_tbl> tables_;
  std::deque<std::vector<char *>> names_;
};

// Port maps of the ports 100 to 131, each of them with the private ranges of that text. Frees them
// at its end.
class port_maps {
 public:
  explicit port_maps(const char *private_ranges = "");
  ~port_maps();
  port_maps(const port_maps &) = delete;
  port_maps &operator=(const port_maps &) = delete;
};

// A table's rows, newest first.
std::vector<std::vector<std::string>> rows_of(const memdb_tbl *tbl);

// Requires what the engine promises of a table: list and chains hold the same rows, each once and
// in order, and every text ends within its column.
void require_whole(const memdb_tbl *tbl);

// The same, and the registry's count.
void require_whole(const tarn_tbl *table);

// What is left of that once keys were overwritten, which moves no row to another chain: every link
// of a chain leads to a row of the list, and each chain ends.
void require_sound(const tarn_tbl *table);

}  // namespace fuzz
