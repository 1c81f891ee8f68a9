// Line by line through a table file.
#include "tables/files/table_reader.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "host/log.h"
#include "query/text/field_strings.h"
#include "tables/files/file_access.h"
#include "tables/files/table_paths.h"
#include "tables/rows/flag_treatment.h"
#include "tables/shared/file_handle.h"

namespace {

// The lines of a file, each as the insert query that it stands for: the table's name and a comma
// ahead of it. One growing buffer serves the whole file.
class query_lines {
 public:
  query_lines(FILE *file, const char *table_name, load_watch *watch)
      : file_(file), watch_(watch), prefix_len_(strlen(table_name) + 1) {
    snprintf(prefix_, sizeof(prefix_), "%s,", table_name);
  }
  ~query_lines() {
    free(line_);
    free(query_);
  }
  query_lines(const query_lines &) = delete;
  query_lines &operator=(const query_lines &) = delete;

  // Reads the next line, without its line feed. False at the end, or if it can't be read.
  bool next() {
    const ssize_t read = getline(&line_, &line_size_, file_);
    if (read <= 0) return false;
    number_++;
    len_ = static_cast<size_t>(read);
    const bool has_end = line_[len_ - 1] == '\n';
    if (has_end) line_[--len_] = '\0';
    if (watch_ != nullptr) watch_->line(watch_, number_, {line_, len_}, has_end);
    return true;
  }

  // Of the line read last, from 1.
  int number() const { return number_; }
  const char *text() const { return line_; }
  bool is_row() const { return *line_ != '\0' && *line_ != '#'; }

  // Where the line begins in a composed query.
  char *line_in(const str &composed) const { return composed.s + prefix_len_; }

  // The query of the present line, or false, with errno set, if there is no memory for it.
  bool compose(str *composed) {
    const size_t needed = prefix_len_ + len_ + 1;
    if (needed > query_size_) {
      auto *const larger = static_cast<char *>(realloc(query_, 2 * needed));
      if (larger == nullptr) return false;
      query_ = larger;
      query_size_ = 2 * needed;
      memcpy(query_, prefix_, prefix_len_);
    }
    memcpy(query_ + prefix_len_, line_, len_ + 1);
    // A zero byte ends a row, as it ends every text here.
    *composed = {query_, static_cast<int>(strlen(query_))};
    return true;
  }

 private:
  FILE *file_;
  load_watch *watch_;
  int number_ = 0;
  char prefix_[TARN_NAME_SIZE + 1];
  size_t prefix_len_;
  char *line_ = nullptr;
  size_t line_size_ = 0;
  size_t len_ = 0;
  char *query_ = nullptr;
  size_t query_size_ = 0;
};

// True if the parser finds this table by its name at the head of a query: then it needn't look for
// it ahead of each row.
bool is_found_by_name(const tarn_tbl *table) {
  const std::string_view name = table->table_name;
  if (name.empty() || name.find(PART_SEPARATOR) != std::string_view::npos ||
      name.find(FIELD_ESCAPE) != std::string_view::npos)
    return false;
  for (const tarn_tbl &first : all_tarn_tbls())
    if (first.table_name == name) return &first == table;
  return false;
}

// Adds the row of one composed line. list is where the line begins in it, or null for a table that
// the parser has to look for. False if the row is refused.
bool load_row(tarn_tbl *table, const str &composed, char *list, int line_number, load_watch *watch)
    NEEDS_LOCK(table->lock) {
  query_scope in;
  in.table = table;
  if (list != nullptr ? !parse_field_list(composed, list, OP_INSERT, &in)
                      : !parse_table_row(table, composed, &in)) {
    LM_ERR("Could not parse '%s'\n", composed.s);
    return false;
  }
  if (table->use_index != 0) {
    const uint32_t stored = stored_index(in.flds[0]);
    if (stored >= table->next_index) set_tbl_index(table, stored + 1);
  }
  const memdb_row *const row = memdb_insert(rows_to_change(table), in.flds);
  if (row == nullptr) {
    LM_ERR("Could not insert '%s'\n", composed.s);
    return false;
  }
  flag_treatment(table, &in, row, nullptr, port_operation::take);
  set_tbl_row_count(table, 1);
  if (watch != nullptr) watch->row(watch, line_number, in, row);
  return true;
}

bool has_good_version(query_lines *lines, const char *path) {
  if (!lines->next()) {
    LM_DBG("Database empty: %s\n", path);
    return false;
  }
  if (strcmp(lines->text(), TABLE_FILE_VERSION) == 0) return true;
  LM_ERR("Wrong database version. Current DB: %s, Prensent on File: %s\n", TABLE_FILE_VERSION,
         lines->text());
  return false;
}

// Adds the rows of an open file. False if the file is refused; the end of what could be read is a
// good end.
bool load_rows(tarn_tbl *table, FILE *file, const char *path, load_watch *watch)
    NEEDS_LOCK(table->lock) {
  query_lines lines(file, table->table_name, watch);
  if (!has_good_version(&lines, path)) return false;
  const bool is_found = is_found_by_name(table);
  while (lines.next()) {
    if (!lines.is_row()) continue;
    str composed;
    if (!lines.compose(&composed)) break;
    char *const list = is_found ? lines.line_in(composed) : nullptr;
    if (!load_row(table, composed, list, lines.number(), watch)) return false;
  }
  const int error = errno;
  if (error == EINVAL || error == ENOMEM)
    LM_ERR("Error reading '%s' line: %d err: %d\n", path, lines.number(), error);
  return true;
}

}  // namespace

void empty_table(tarn_tbl *table) {
  memdb_delete_all(rows_to_change(table));
  reset_tbl_row_count(table);
  reset_tbl_index(table);
}

bool parse_table_row(const tarn_tbl *table, const str &composed, query_in *in) {
  table_name_text name = "";
  if (!tarn_memdb_parse_input(composed, OP_INSERT, in, name)) return false;
  // The parser finds a table by its name: of two with one name, the first, which may have fewer
  // columns.
  return in->table->tbl->col_cnt == table->tbl->col_cnt;
}

uint32_t stored_index(const char *text) { return static_cast<uint32_t>(atoi(text)); }

bool table_file_exists(const char *path) { return access(path, F_OK) == 0; }

table_file_state read_table_file(tarn_tbl *table, const char *path, load_watch *watch) {
  const file_handle file(open_for_reading(path));
  if (!file) return table_file_state::unopened;
  return load_rows(table, file.get(), path, watch) ? table_file_state::loaded
                                                   : table_file_state::refused;
}
