// What the next start does, as far as it can be told.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class start_outcome { works, fails, hangs, unknown };

struct table_forecast {
  std::string table;
  std::string main;
  std::string backup;
  std::optional<std::string> loaded_from;  // one of the two, or nothing for a table that is empty
  std::optional<int32_t> rows;             // nothing if it can't be told
};

struct put_away_file {
  std::string file;
  std::optional<std::string> to;  // nothing for one that is removed
};

// In bytes of the server's shared memory.
struct memory_forecast {
  size_t at_start = 0;      // what maps, tables, the rows of their files and their indexes take
  size_t when_full = 0;     // the same with as many rows as MAX_ROWS lets in
  bool holds_files = true;  // all rows of the files fitted in
};

struct start_forecast {
  start_outcome start = start_outcome::unknown;
  std::vector<table_forecast> tables;
  std::vector<put_away_file> put_away;  // in the order in which it happens
  memory_forecast memory;
};
