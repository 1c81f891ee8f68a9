// The formatted reads by which the schema file is understood, one for each kind of line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "memdb/memdb.h"

enum class read_result {
  end = -1,      // the file ended before a value
  mismatch = 0,  // something else stands there; nothing is taken from the file
  read = 1,
  too_long = 2  // the value doesn't fit the field that receives it
};

// Reads a schema in the order of its lines. Each read skips the white space behind its value, and
// values end at white space. The file is the caller's.
class schema_reader {
 public:
  explicit schema_reader(FILE *file) : file_(file) {}

  // "key" and a word. A word longer than the field is cut for fields that may be cut; its rest
  // then stands in the way of every later key.
  read_result text(const char *key, std::span<char> field, bool may_cut = false);

  // "key" and a number.
  read_result number(const char *key, int32_t *value);

  // A field line: name, length and flag. What is missing keeps its value and stops the read there.
  void field(std::span<char> name, tbl_dcl *declared);

  // True once a value was met that is longer than the field for it.
  bool overlong() const { return met_overlong_; }

 private:
  read_result note(read_result result);
  void skip_space();
  read_result literal(const char *key, long start);
  read_result word(std::span<char> field);
  read_result integer(int32_t *value);

  FILE *file_;
  bool met_overlong_ = false;
};
