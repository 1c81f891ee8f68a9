// Names, lengths and flags of columns, and the columns of port-holding tables.
#include "tools/common/column_check.h"

#include <cstring>
#include <set>
#include <sstream>

#include "tables/rows/port_claim.h"
#include "tools/common/visible_text.h"

namespace {

// The longest decimal text of a generated index.
constexpr int64_t INDEX_DIGITS = 10;

class column_walk {
 public:
  column_walk(const tarn_tbl &table, const std::string &path, schema_keys *keys, findings *out)
      : table_(table), path_(path), keys_(keys), out_(out) {}

  std::vector<declared_column> run() {
    while (columns_.size() < static_cast<size_t>(table_.num_fields) && !keys_->has_stopped()) {
      if (!keys_->is_end()) {
        column();
        continue;
      }
      error(keys_->line(), "the file ends where column " + number() + " of table " +
                               in_quotes(table_.table_name) + " is read");
      keys_->stop();
    }
    return columns_;
  }

 private:
  void warn(size_t line, const std::string &text) { out_->warn(path_, line, text); }
  void error(size_t line, const std::string &text) { out_->error(path_, line, text); }
  std::string number() const { return std::to_string(columns_.size()); }

  void column() {
    const size_t line = keys_->line();
    const std::string whole(keys_->rest_of_line());
    char name[TARN_NAME_SIZE] = "";
    tbl_dcl declared{};
    if (!keys_->column(name, &declared)) return;
    judge(line, whole, name);
    columns_.push_back({name, declared.len, line});
  }

  void judge(size_t line, const std::string &whole, const std::string &name) {
    if (!key_at(whole).empty()) {
      error(line, in_quotes(whole) + " stands where column " + number() + " of table " +
                      in_quotes(table_.table_name) + " is read: NUM_FIELDS says " +
                      std::to_string(table_.num_fields));
      return;
    }
    std::istringstream items(whole);
    std::string word;
    int64_t len = 0;
    int64_t flag = 0;
    if (!(items >> word >> len >> flag) || items >> word) {
      error(line, in_quotes(whole) + " isn't a column's name, length and flag");
      return;
    }
    if (word.find('\0') != word.npos)
      error(line, "the column name " + in_quotes(word) + " holds a zero byte, where it ends");
    if (!seen_.insert(name).second)
      warn(line, "a column named " + in_quotes(name) + " stands before: this one can't be named");
    judge_numbers(line, name, len, flag);
  }

  void judge_numbers(size_t line, const std::string &name, int64_t len, int64_t flag) {
    const std::string column = "column " + in_quotes(name);
    if (len < 0)
      error(line, column + " has the length " + std::to_string(len) +
                      ": no table or none of its rows can be made");
    else if (len > INT32_MAX)
      error(line, column + ": the length " + overflow_of(std::to_string(len)));
    else if (len == 0)
      warn(line, column + " has room for no text: length 0");
    else if (columns_.empty() && table_.use_index != 0 && len < INDEX_DIGITS)
      warn(line, column + " takes the generated index and has room for " + std::to_string(len) +
                     " digits: longer numbers are cut");
    if (flag != 0 && flag != 1)
      warn(line,
           "flag " + std::to_string(flag) + " of " + column + ": only 0 and 1 have a meaning");
  }

  const tarn_tbl &table_;
  const std::string &path_;
  schema_keys *keys_;
  findings *out_;
  std::vector<declared_column> columns_;
  std::set<std::string> seen_;
};

class port_column_check {
 public:
  port_column_check(const tarn_tbl &table, const std::vector<declared_column> &columns,
                    const std::string &path, size_t line, findings *out)
      : table_(table), columns_(columns), path_(path), line_(line), out_(out) {}

  void run() {
    const port_columns cols = port_columns_of(table_);
    if (const declared_column *const found = column(cols.location, "the location");
        found != nullptr && found->len < static_cast<int64_t>(strlen(INTERNAL_LOCATION)))
      warn(*found,
           "has no room for " + std::string(INTERNAL_LOCATION) +
               ", which tells the internal side: such rows claim ports of the external one");
    column(cols.type, "the type");
    port(cols.int_port, "the internal port (INT_PORT_FIELD)", claimed_map(table_, true));
    port(cols.ext_port, "the external port (EXT_PORT_FIELD)", claimed_map(table_, false));
  }

 private:
  void warn(const declared_column &column, const std::string &text) {
    out_->warn(path_, column.line, "column " + in_quotes(column.name) + " " + text);
  }

  // Rows of a table that lacks one of these claim no port, without a word.
  const declared_column *column(int32_t number, const char *what) {
    if (number >= 0 && number < table_.num_fields) {
      const auto at = static_cast<size_t>(number);
      return at < columns_.size() ? &columns_[at] : nullptr;
    }
    out_->error(path_, line_,
                "table " + in_quotes(table_.table_name) + " holds ports but has no column " +
                    std::to_string(number) + " for " + what + ": its rows claim no port there");
    return nullptr;
  }

  void port(int32_t number, const char *what, const port_m *map) {
    const declared_column *const found = column(number, what);
    const std::string longest = std::to_string(map->max_port);
    if (found == nullptr || found->len >= static_cast<int64_t>(longest.size())) return;
    const std::string cut = longest.substr(0, static_cast<size_t>(found->len));
    warn(*found, "has room for " + std::to_string(found->len) + " digits: port " + longest +
                     " is stored as " + in_quotes(cut) + ", and that is what the next start reads");
  }

  const tarn_tbl &table_;
  const std::vector<declared_column> &columns_;
  const std::string &path_;
  size_t line_;
  findings *out_;
};

}  // namespace

std::vector<declared_column> check_columns(const tarn_tbl &table, const std::string &path,
                                           schema_keys *keys, findings *out) {
  return column_walk(table, path, keys, out).run();
}

void check_port_columns(const tarn_tbl &table, const std::vector<declared_column> &columns,
                        const std::string &path, size_t line, findings *out) {
  port_column_check(table, columns, path, line, out).run();
}
