// The walk through the schema.
#include "tools/check/schema_check.h"

#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

#include "tables/file_handle.h"
#include "tables/schema_reader.h"
#include "tables/tarn_tbl.h"
#include "tools/check/line_index.h"
#include "tools/check/whole_file.h"

namespace {

// Keys in the order in which the module reads them; a field line stands between the last two.
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

// The longest decimal text of a generated index.
constexpr int INDEX_DIGITS = 10;

constexpr int LOCATION_COL = 5;
constexpr int STATIC_TYPE_COL = 7;
constexpr int DYNAMIC_TYPE_COL = 8;

std::string_view key_at(std::string_view line) {
  for (const char *const key : KEYS)
    if (line.substr(0, strlen(key)) == key) return key;
  return {};
}

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

// What one table's block says, as far as the walk needs it again.
struct table_block {
  std::string name;
  int32_t flag = 0;
  std::string range;
  int32_t int_port_field = 0;
  int32_t ext_port_field = 0;
  int32_t use_index = 0;
  int32_t max_rows = 0;
  int32_t num_fields = 0;
  size_t line = 0;
};

class schema_walk {
 public:
  schema_walk(std::string path, std::string text, FILE *file, findings *out)
      : path_(std::move(path)), lines_(std::move(text)), file_(file), reader_(file), out_(out) {}

  void run() {
    directory("BASE_DIR=");
    directory("BASE_BACKUP_DIR=");
    int32_t tables = 0;
    const size_t line = here();
    number("NUM_TABLE=", &tables, "the module has no tables");
    if (tables < 0) {
      error(line, "NUM_TABLE is below 0: the start fails");
      return;
    }
    for (int32_t i = 0; i < tables && !stopped_; i++) {
      if (lines_.is_end(place())) {
        error(here(), "the file ends after " + std::to_string(i) + " tables: NUM_TABLE says " +
                          std::to_string(tables) + ", and the others have no name");
        return;
      }
      table();
    }
    if (!stopped_ && !lines_.is_end(place()))
      warn(here(), "nothing from here on is read: NUM_TABLE says " + std::to_string(tables));
  }

 private:
  size_t place() const { return static_cast<size_t>(ftell(file_)); }
  size_t here() const { return lines_.line_at(place()); }
  void warn(size_t line, const std::string &text) { out_->warn(path_, line, text); }
  void error(size_t line, const std::string &text) { out_->error(path_, line, text); }

  // Tells of a key that isn't where it is read. taken says what the module does without it; empty
  // for keys that may be left out.
  void absent(const char *key, read_result result, const std::string &taken) {
    const std::string_view line = lines_.rest_of_line(place());
    const std::string_view found = key_at(line);
    if (result == read_result::end) {
      if (!taken.empty()) error(here(), "the file ends where " + std::string(key) + " is read");
      return;
    }
    if (found == key) {
      error(here(), quoted(line) + " has no number that can be read");
      stuck_ = true;
    } else if (is_later(found, key)) {
      if (!taken.empty()) warn(here(), std::string(key) + " is missing before this line: " + taken);
    } else if (!stuck_) {
      error(here(), quoted(line) + " stands where " + std::string(key) + " is read: " +
                        (in_table_ ? "this and every later key of the table is passed over, and "
                                     "the start fails"
                                   : "this and every later line is passed over"));
      stuck_ = true;
    }
  }

  // True if found is read after key, so that only key is missing. A field line is nobody's key.
  static bool is_later(std::string_view found, std::string_view key) {
    bool passed = false;
    for (const char *const known : KEYS) {
      if (passed && found == known) return true;
      if (key == known) passed = true;
    }
    return false;
  }

  bool text(const char *key, std::span<char> field, const std::string &taken,
            bool may_cut = false) {
    const size_t line = here();
    const read_result result = reader_.text(key, field, may_cut);
    switch (result) {
      case read_result::too_long:
        error(line, "the value of " + std::string(key) + " is longer than " +
                        std::to_string(field.size() - 1) + " characters: the start fails");
        stopped_ = true;
        return false;
      case read_result::read:
        if (!key_at(field.data()).empty())
          error(line, std::string(key) + " has no value: the next line, " + quoted(field.data()) +
                          ", is taken for it");
        else if (may_cut && place() > 0 && !starts_line())
          error(line, "the value of " + std::string(key) + " is longer than " +
                          std::to_string(field.size() - 1) +
                          " characters: every later key of the table is passed over");
        return true;
      default:
        absent(key, result, taken);
        return false;
    }
  }

  bool number(const char *key, int32_t *value, const std::string &taken) {
    const read_result result = reader_.number(key, value);
    if (result == read_result::read) return true;
    absent(key, result, taken);
    return false;
  }

  // True if the place is the beginning of a line's text; a value that was cut leaves it inside one.
  bool starts_line() {
    const long at = ftell(file_);
    if (at == 0) return true;
    fseek(file_, at - 1, SEEK_SET);
    const int before = getc(file_);
    return isspace(before) != 0 || lines_.is_end(static_cast<size_t>(at));
  }

  void directory(const char *key) {
    char path[sizeof(tarn_mngt::base_dir)] = "";
    const size_t line = here();
    if (!text(key, path, "files are looked for without a directory")) return;
    const size_t len = strlen(path);
    if (len > 0 && path[len - 1] != '/')
      warn(line, quoted(path) + " doesn't end in '/': file names are joined to it as it stands");
    if (access(path, W_OK | X_OK) != 0)
      warn(line, quoted(path) + " can't be written to by who runs this check");
  }

  void table() {
    stuck_ = false;
    in_table_ = true;
    table_block block;
    block.line = here();
    char name[TARN_NAME_SIZE] = "";
    if (text("TABLE_NAME=", name, "the table has no name and can't be used"))
      table_name(name, &block);
    if (stopped_) return;
    number("FLAG=", &block.flag, "the table holds no ports");
    if (block.flag == TBL_HOLDS_PORTS)
      port_keys(&block);
    else if (block.flag != 0)
      warn(block.line, "FLAG=" + std::to_string(block.flag) + " of table " + quoted(block.name) +
                           " is neither 0 nor 1: the table holds no ports");
    char tag[sizeof(tarn_tbl::log_tag)] = "";
    text("LOG_TAG=", tag, "", true);
    int32_t check = 0;
    number("USE_INDEX=", &block.use_index, "no index is generated");
    number("DUPLICATED_DATA_CHECK=", &check, "duplicates are let in");
    number("MAX_ROWS=", &block.max_rows, "the table takes no rows");
    number("NUM_FIELDS=", &block.num_fields, "the table has no columns");
    if (stopped_) return;
    limits(block);
    columns(block);
    if (!stopped_) file_name(block);
    if (stuck_) stopped_ = true;
  }

  void table_name(const char *name, table_block *block) {
    block->name = name;
    if (!names_.insert(name).second)
      warn(block->line,
           "a table of the name " + quoted(name) + " stands above: this one can't be reached");
    if (strpbrk(name, ",\\") != nullptr)
      warn(block->line,
           quoted(name) + " holds a comma or a backslash: no query can name the table");
  }

  void port_keys(table_block *block) {
    char range[sizeof(tarn_tbl::range)] = "";
    const size_t line = here();
    if (text("RANGE=", range, "the static port maps are taken")) {
      block->range = range;
      if (block->range != "dynamic" && block->range != "static")
        warn(line, "RANGE=" + block->range + " is no known range: the static port maps are taken");
    }
    if (stopped_) return;
    number("INT_PORT_FIELD=", &block->int_port_field, "column 0 is taken");
    number("EXT_PORT_FIELD=", &block->ext_port_field, "column 0 is taken");
  }

  void limits(const table_block &block) {
    if (block.max_rows < 0)
      warn(block.line, "MAX_ROWS of table " + quoted(block.name) +
                           " is below 0: it takes rows without a limit, and queries without a "
                           "limit of their own find none");
    if (block.num_fields < 0) {
      error(block.line,
            "NUM_FIELDS of table " + quoted(block.name) + " is below 0: the start fails");
      stopped_ = true;
      return;
    }
    if (block.flag == TBL_HOLDS_PORTS) port_columns(block);
  }

  // Rows of a table that lacks one of these claim no port, without a word.
  void port_columns(const table_block &block) {
    const auto check = [&](int column, const char *what) {
      if (column < 0 || column >= block.num_fields)
        error(block.line, "table " + quoted(block.name) + " holds ports but has no column " +
                              std::to_string(column) + " for " + what +
                              ": its rows claim no port there");
    };
    check(LOCATION_COL, "the location");
    check(block.range == "dynamic" ? DYNAMIC_TYPE_COL : STATIC_TYPE_COL, "the type");
    check(block.int_port_field, "the internal port (INT_PORT_FIELD)");
    check(block.ext_port_field, "the external port (EXT_PORT_FIELD)");
  }

  void columns(const table_block &block) {
    std::set<std::string> seen;
    for (int32_t i = 0; i < block.num_fields && !stopped_; i++) {
      if (lines_.is_end(place())) {
        error(here(), "the file ends where column " + std::to_string(i) + " of table " +
                          quoted(block.name) + " is read");
        stopped_ = true;
        return;
      }
      column(block, i, &seen);
    }
  }

  void column(const table_block &block, int32_t number, std::set<std::string> *seen) {
    const size_t line = here();
    const std::string whole(lines_.rest_of_line(place()));
    char name[TARN_NAME_SIZE] = "";
    tbl_dcl declared{};
    reader_.field(name, &declared);
    if (reader_.overlong()) {
      error(line, "the column name in " + quoted(whole) + " is longer than " +
                      std::to_string(TARN_NAME_SIZE - 1) + " characters: the start fails");
      stopped_ = true;
      return;
    }
    int64_t len = 0;
    int64_t flag = 0;
    std::string word;
    std::istringstream items(whole);
    if (!key_at(whole).empty()) {
      error(line, quoted(whole) + " stands where column " + std::to_string(number) + " of table " +
                      quoted(block.name) + " is read: NUM_FIELDS says " +
                      std::to_string(block.num_fields));
      return;
    }
    if (!(items >> word >> len >> flag) || items >> word) {
      error(line, quoted(whole) + " isn't a column's name, length and flag");
      return;
    }
    if (len < 0) {
      error(line, "column " + quoted(name) + " has the length " + std::to_string(len) +
                      ": no table or none of its rows can be made");
      return;
    }
    if (len == 0) warn(line, "column " + quoted(name) + " has room for no text: length 0");
    if (flag != 0 && flag != 1)
      warn(line, "flag " + std::to_string(flag) + " of column " + quoted(name) +
                     ": only 0 and 1 have a meaning");
    if (!seen->insert(name).second)
      warn(line, "a column named " + quoted(name) + " stands before: this one can't be named");
    if (number == 0 && block.use_index != 0 && len < INDEX_DIGITS)
      warn(line, "column " + quoted(name) + " takes the generated index and has room for " +
                     std::to_string(len) + " digits: longer numbers are cut");
  }

  void file_name(const table_block &block) {
    char file[sizeof(tarn_tbl::file_name)] = "";
    const size_t line = here();
    const read_result result = reader_.text("FILE_NAME=", file);
    switch (result) {
      case read_result::read:
        if (!key_at(file).empty())
          error(line,
                "FILE_NAME= has no value: the next line, " + quoted(file) + ", is taken for it");
        if (const auto [other, is_new] = files_.emplace(file, block.name); !is_new)
          error(line, "FILE_NAME=" + std::string(file) + " is the file of table " +
                          quoted(other->second) + " as well: each store overwrites the other");
        break;
      case read_result::end:
        error(line, "the file ends where FILE_NAME= of table " + quoted(block.name) +
                        " is read: its rows go to a file without a name");
        break;
      case read_result::too_long:
        error(line, "the value of FILE_NAME= is longer than " + std::to_string(sizeof(file) - 1) +
                        " characters: the start fails");
        stopped_ = true;
        break;
      case read_result::mismatch:
        if (!stuck_)
          error(line, quoted(lines_.rest_of_line(place())) +
                          " stands where FILE_NAME= is read: the start fails");
        stopped_ = true;
        break;
    }
  }

  std::string path_;
  line_index lines_;
  FILE *file_;
  schema_reader reader_;
  findings *out_;
  std::set<std::string> names_;
  std::map<std::string, std::string> files_;
  bool in_table_ = false;  // past the head of the file
  bool stuck_ = false;     // a line stands in the way of the table's later keys
  bool stopped_ = false;   // the module reads no further
};

}  // namespace

bool check_schema(const std::string &path, findings *out) {
  const std::optional<std::string> text = whole_file(path);
  const file_handle file(fopen(path.c_str(), "r"));
  if (!text || !file) return false;
  schema_walk(path, *text, file.get(), out).run();
  return true;
}
