// The walk through the schema.
#include "tools/common/schema_check.h"

#include <cstring>
#include <map>

#include "tables/tarn_tbl.h"
#include "tools/common/column_check.h"
#include "tools/common/schema_keys.h"
#include "tools/common/visible_text.h"

namespace {

// A number of tables or columns that is a slip, whatever else is wrong: no file holds so many.
constexpr int32_t MANY = 100000;

class schema_walk {
 public:
  schema_walk(const std::string &path, const std::string &text, findings *out)
      : path_(path), size_(text.size()), keys_(path, text, out), out_(out) {}

  schema_places run() {
    places_.base_dir = directory("BASE_DIR=");
    places_.base_backup_dir = directory("BASE_BACKUP_DIR=");
    tables();
    return places_;
  }

 private:
  void warn(size_t line, const std::string &text) { out_->warn(path_, line, text); }
  void error(size_t line, const std::string &text) { out_->error(path_, line, text); }

  // True for a number that no such file can stand behind; what a start makes of it depends on the
  // server's memory.
  bool is_absurd(size_t line, const char *key, int32_t number) {
    if (number < MANY || static_cast<size_t>(number) <= size_) return false;
    error(line, std::string(key) + std::to_string(number) +
                    " is more than the whole file can hold: what the start makes of it isn't told");
    keys_.stop();
    places_.is_absurd = true;
    return true;
  }

  size_t directory(const char *key) {
    char path[sizeof(tarn_mngt::base_dir)] = "";
    const size_t line = keys_.line();
    if (!keys_.text(key, path, "files are looked for without a directory")) return 0;
    const size_t len = strlen(path);
    if (len > 0 && path[len - 1] != '/')
      warn(line, in_quotes(path) + " doesn't end in '/': file names are joined to it as it stands");
    return line;
  }

  void tables() {
    if (keys_.has_stopped()) return;
    int32_t count = 0;
    const size_t line = keys_.line();
    keys_.number("NUM_TABLE=", &count, "the module has no tables");
    if (count < 0) {
      error(line, "NUM_TABLE is below 0: the start fails");
      return;
    }
    if (is_absurd(line, "NUM_TABLE=", count)) return;
    for (int32_t i = 0; i < count && !keys_.has_stopped(); i++) {
      if (keys_.is_end()) {
        error(keys_.line(), "the file ends after " + std::to_string(i) +
                                " tables: NUM_TABLE says " + std::to_string(count) +
                                ", and the others have no name");
        return;
      }
      table();
    }
    if (!keys_.has_stopped() && !keys_.is_end())
      warn(keys_.line(), "nothing from here on is read: NUM_TABLE says " + std::to_string(count));
  }

  void table() {
    keys_.begin_table();
    tarn_tbl table{};
    const size_t line = keys_.line();
    settings(line, &table);
    if (keys_.has_stopped() || !has_good_numbers(line, table)) return;
    const std::vector<declared_column> columns = check_columns(table, path_, &keys_, out_);
    if (holds_ports(table)) check_port_columns(table, columns, path_, line, out_);
    if (keys_.has_stopped()) return;
    places_.file_names.push_back(keys_.line());
    keys_.file_name(table.file_name, table.table_name);
    if (keys_.is_stuck()) keys_.stop();
  }

  // The keys ahead of the column lines.
  void settings(size_t line, tarn_tbl *table) {
    if (keys_.text("TABLE_NAME=", table->table_name, "the table has no name and can't be used"))
      table_name(line, table->table_name);
    if (keys_.has_stopped()) return;
    keys_.number("FLAG=", &table->flag, "the table holds no ports");
    if (holds_ports(*table))
      port_keys(table);
    else if (table->flag != 0)
      warn(line, "FLAG=" + std::to_string(table->flag) + " of table " +
                     in_quotes(table->table_name) +
                     " is neither 0 nor 1: the table holds no ports");
    if (keys_.has_stopped()) return;
    keys_.text("LOG_TAG=", table->log_tag, "", true);
    keys_.number("USE_INDEX=", &table->use_index, "no index is generated");
    keys_.number("DUPLICATED_DATA_CHECK=", &table->duplicated_data_check, "duplicates are let in");
    max_rows(table);
    keys_.number("NUM_FIELDS=", &table->num_fields, "the table has no columns");
  }

  void table_name(size_t line, const std::string &name) {
    if (const auto [other, is_new] = names_.emplace(name, line); !is_new)
      warn(line, "a table of the name " + in_quotes(name) + " stands above, in line " +
                     std::to_string(other->second) + ": this one can't be reached");
    if (name.find_first_of(",\\") != name.npos)
      warn(line, in_quotes(name) + " holds a comma or a backslash: no query can name the table");
  }

  void port_keys(tarn_tbl *table) {
    const size_t line = keys_.line();
    if (keys_.text("RANGE=", table->range, "the static port maps are taken") &&
        strcmp(table->range, "dynamic") != 0 && strcmp(table->range, "static") != 0)
      warn(line, "RANGE=" + std::string(table->range) +
                     " is no known range: the static port maps are taken");
    if (keys_.has_stopped()) return;
    keys_.number("INT_PORT_FIELD=", &table->int_port_field, "column 0 is taken");
    keys_.number("EXT_PORT_FIELD=", &table->ext_port_field, "column 0 is taken");
  }

  void max_rows(tarn_tbl *table) {
    const size_t line = keys_.line();
    if (!keys_.number("MAX_ROWS=", &table->max_rows, "the table takes no rows")) return;
    constexpr char NO_LIMIT[] = ", and queries without a limit of their own find none";
    if (table->max_rows < 0)
      warn(line, "MAX_ROWS of table " + in_quotes(table->table_name) +
                     " is below 0: it takes rows without a limit" + NO_LIMIT);
    else if (table->max_rows == 0)
      warn(line, "MAX_ROWS of table " + in_quotes(table->table_name) +
                     " is 0: an empty table takes no rows" + NO_LIMIT);
  }

  bool has_good_numbers(size_t line, const tarn_tbl &table) {
    if (is_absurd(line, "NUM_FIELDS=", table.num_fields)) return false;
    if (table.num_fields >= 0) return true;
    error(line,
          "NUM_FIELDS of table " + in_quotes(table.table_name) + " is below 0: the start fails");
    keys_.stop();
    return false;
  }

  const std::string &path_;
  size_t size_;
  schema_keys keys_;
  findings *out_;
  schema_places places_;
  std::map<std::string, size_t> names_;
};

}  // namespace

schema_places check_schema(const std::string &path, const std::string &text, findings *out) {
  return schema_walk(path, text, out).run();
}
