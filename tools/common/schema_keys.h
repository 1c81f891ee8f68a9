// The keys of a schema one by one, with the module's own reads, and what is wrong with each.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tables/schema_reader.h"
#include "tables/shared/file_handle.h"
#include "tools/common/findings.h"
#include "tools/common/line_index.h"

// The key that a line begins with, or nothing.
std::string_view key_at(std::string_view line);

// What the number at the beginning of text is beyond 32 bits and is taken for, or nothing.
std::string overflow_of(std::string_view text);

class schema_keys {
 public:
  // Findings are told of path; text is the whole file.
  schema_keys(const std::string &path, const std::string &text, findings *out);

  size_t line() const { return lines_.line_at(place()); }
  std::string_view rest_of_line() const { return lines_.rest_of_line(place()); }
  bool is_end() const { return lines_.is_end(place()); }

  // From here on a key that isn't where it is read costs the table.
  void begin_table();

  // Read "key" and a word or a number. taken says what the module does without the key; empty for
  // one that may be left out. False if the field stays as it is.
  bool text(const char *key, std::span<char> field, const std::string &taken, bool may_cut = false);
  bool number(const char *key, int32_t *value, const std::string &taken);

  // The last key of a table, without which the start fails.
  void file_name(std::span<char> field, const std::string &table);

  // A column's line. False if its name is too long.
  bool column(std::span<char> name, tbl_dcl *declared);

  // True if a line stands in the way of all later keys of the table.
  bool is_stuck() const { return stuck_; }

  // The module reads no further.
  bool has_stopped() const { return stopped_; }
  void stop() { stopped_ = true; }

 private:
  size_t place() const { return static_cast<size_t>(ftell(file_.get())); }
  void warn(size_t at, const std::string &what) { out_->warn(path_, at, what); }
  void error(size_t at, const std::string &what) { out_->error(path_, at, what); }
  void too_long(const char *key, size_t at, size_t size);
  void absent(const char *key, read_result result, const std::string &taken);
  void check_value(const char *key, size_t at, std::string_view whole, const char *value);

  std::string path_;
  std::string text_;
  line_index lines_;
  file_handle file_;
  schema_reader reader_;
  findings *out_;
  bool in_table_ = false;
  bool stuck_ = false;
  bool stopped_ = false;
};
