// Reading keys, and telling of those that aren't where they are read.
#include "tools/common/schema_keys.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/common/visible_text.h"

namespace {

// In the order in which the module reads them; a field line stands between the last two.
constexpr std::array KEYS = {
    "BASE_DIR=",
    "BASE_BACKUP_DIR=",
    "NUM_TABLE=",
    "TABLE_NAME=",
    "FLAG=",
    "RANGE=",
    "INT_PORT_FIELD=",
    "EXT_PORT_FIELD=",
    "LOG_TAG=",
    "USE_INDEX=",
    "DUPLICATED_DATA_CHECK=",
    "MAX_ROWS=",
    "NUM_FIELDS=",
    "FILE_NAME=",
};

// True if found is read after key, so that only key is missing. A field line is nobody's key.
bool is_later(std::string_view found, std::string_view key) {
  bool passed = false;
  for (const char *const known : KEYS) {
    if (passed && found == known) return true;
    if (key == known) passed = true;
  }
  return false;
}

std::string longer_than(size_t size) {
  return " is longer than " + std::to_string(size - 1) + " characters: ";
}

}  // namespace

std::string_view key_at(std::string_view line) {
  for (const char *const key : KEYS)
    if (line.starts_with(key)) return key;
  return {};
}

std::string overflow_of(std::string_view text) {
  const std::string copy(text);
  errno = 0;
  const long number = strtol(copy.c_str(), nullptr, 10);
  const auto taken = static_cast<int32_t>(number);
  if (errno == 0 && number == taken) return {};
  return in_quotes(copy) + " is beyond 32 bits and is taken for " + std::to_string(taken);
}

schema_keys::schema_keys(const std::string &path, const std::string &text, findings *out)
    : path_(path),
      text_(text),
      lines_(text),
      file_(fmemopen(text_.data(), text_.size(), "r")),
      reader_(file_.get()),
      out_(out) {}

void schema_keys::begin_table() {
  in_table_ = true;
  stuck_ = false;
}

void schema_keys::too_long(const char *key, size_t at, size_t size) {
  error(at, "the value of " + std::string(key) + longer_than(size) + "the start fails");
  stop();
}

void schema_keys::absent(const char *key, read_result result, const std::string &taken) {
  const std::string_view found = key_at(rest_of_line());
  if (result == read_result::end) {
    if (!taken.empty()) error(line(), "the file ends where " + std::string(key) + " is read");
  } else if (found == key) {
    error(line(), in_quotes(rest_of_line()) + " has no number that can be read");
    stuck_ = true;
  } else if (is_later(found, key)) {
    if (!taken.empty()) warn(line(), std::string(key) + " is missing before this line: " + taken);
  } else if (!stuck_) {
    error(line(), in_quotes(rest_of_line()) + " stands where " + key + " is read: " +
                      (in_table_ ? "this and every later key of the table is passed over, and the "
                                   "start fails"
                                 : "this and every later line is passed over"));
    stuck_ = true;
  }
}

void schema_keys::check_value(const char *key, size_t at, std::string_view whole,
                              const char *value) {
  if (!key_at(value).empty())
    error(at, std::string(key) + " has no value: the next line, " + in_quotes(value) +
                  ", is taken for it");
  if (whole.find('\0') != whole.npos)
    error(at, "the value of " + std::string(key) + " holds a zero byte, where it ends: " +
                  in_quotes(whole) + " is taken for " + in_quotes(value));
}

bool schema_keys::text(const char *key, std::span<char> field, const std::string &taken,
                       bool may_cut) {
  const size_t at = line();
  const size_t from = place();
  const read_result result = reader_.text(key, field, may_cut);
  if (result == read_result::too_long) {
    too_long(key, at, field.size());
    return false;
  }
  if (result != read_result::read) {
    absent(key, result, taken);
    return false;
  }
  check_value(key, at, lines_.word_at(from + strlen(key)), field.data());
  // A value that was cut leaves the place inside a word.
  if (may_cut && !lines_.is_behind_space(place()) && !lines_.is_end(place()))
    error(at, "the value of " + std::string(key) + longer_than(field.size()) +
                  "every later key of the table is passed over");
  return true;
}

bool schema_keys::number(const char *key, int32_t *value, const std::string &taken) {
  const size_t at = line();
  const size_t from = place();
  const read_result result = reader_.number(key, value);
  if (result != read_result::read) {
    absent(key, result, taken);
    return false;
  }
  if (const std::string overflow = overflow_of(lines_.word_at(from + strlen(key)));
      !overflow.empty())
    warn(at, std::string(key) + overflow);
  return true;
}

void schema_keys::file_name(std::span<char> field, const std::string &table) {
  const size_t at = line();
  const size_t from = place();
  constexpr char KEY[] = "FILE_NAME=";
  switch (reader_.text(KEY, field)) {
    case read_result::read:
      check_value(KEY, at, lines_.word_at(from + strlen(KEY)), field.data());
      break;
    case read_result::end:
      error(at, std::string("the file ends where ") + KEY + " of table " + in_quotes(table) +
                    " is read: its rows go to a file without a name");
      break;
    case read_result::too_long:
      too_long(KEY, at, field.size());
      break;
    case read_result::mismatch:
      if (!stuck_)
        error(at, in_quotes(rest_of_line()) + " stands where " + KEY + " is read: the start fails");
      stop();
      break;
  }
}

bool schema_keys::column(std::span<char> name, tbl_dcl *declared) {
  const size_t at = line();
  const std::string whole(rest_of_line());
  reader_.field(name, declared);
  if (!reader_.overlong()) return true;
  error(at,
        "the column name in " + in_quotes(whole) + longer_than(name.size()) + "the start fails");
  stop();
  return false;
}
