// Writing tables to their files.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "host/log.h"
#include "query/field_strings.h"
#include "tables/file_handle.h"
#include "tables/table_files.h"
#include "tables/table_paths.h"

int32_t g_store_tbl_auto = 1;
int32_t g_store_tbl_interval = 15;

namespace {

bool write_version(FILE *file) {
  return fputs(TABLE_FILE_VERSION, file) >= 0 && putc('\n', file) != EOF;
}

// Gathers what goes to the file, so that one write serves many rows.
class block_writer {
 public:
  explicit block_writer(FILE *file) : file_(file) {}

  bool put(char c) {
    if (len_ == SIZE && !flush()) return false;
    text_[len_++] = c;
    return true;
  }

  bool put(std::string_view text) {
    if (text.size() > SIZE - len_) {
      if (!flush()) return false;
      if (text.size() > SIZE) return write(text);
    }
    memcpy(text_ + len_, text.data(), text.size());
    len_ += text.size();
    return true;
  }

  bool flush() {
    const std::string_view gathered(text_, len_);
    len_ = 0;
    return gathered.empty() || write(gathered);
  }

 private:
  static constexpr size_t SIZE = 65536;

  bool write(std::string_view text) {
    return fwrite_unlocked(text.data(), 1, text.size(), file_) == text.size();
  }

  FILE *file_;
  size_t len_ = 0;
  char text_[SIZE];
};

// Fields go to the file as they are and one by one, so that a row of any length is stored whole.
bool write_row(const memdb_tbl *tbl, const memdb_row *row, block_writer *out) {
  for (uint32_t i = 0; i < tbl->col_cnt; i++)
    if ((i > 0 && !out->put(FIELD_SEPARATOR)) || !out->put(memdb_get_field(tbl, row, i)))
      return false;
  return out->put('\n');
}

bool write_table(const memdb_tbl *tbl, FILE *file) {
  if (!write_version(file)) return false;
  block_writer out(file);
  for (const memdb_row *row = tbl->last; row != nullptr; row = row->prev)
    if (!write_row(tbl, row, &out)) return false;
  return out.flush();
}

int32_t store_cleared(tarn_tbl *table) {
  LM_DBG("Table '%s' was cleared. Saving changes to file\n", table->table_name);
  if (clear_file(main_path(table).text) != 0 || clear_file(backup_path(table).text) != 0) return -1;
  set_tbl_state(table, TBL_UNCHANGED);
  return 0;
}

// Takes over the lock that is held for the table and lets go of it before the file is closed: the
// close flushes what is left, and nobody has to wait for that.
int32_t store_changed(tarn_tbl *table, lock_scope *lock) {
  const main_path path(table);
  const backup_path backup(table);
  LM_DBG("Table '%s' was changed. Saving changes to file\n", table->table_name);
  LM_DBG("Saving backup file '%s'\n", backup.text);
  // Fails for the first store of all and between file systems; the old backup then stays.
  if (names_file(path.text)) rename(path.text, backup.text);
  LM_DBG("Saving file '%s'\n", path.text);
  file_handle file(fopen(path.text, "w"));
  if (!file) {
    LM_ERR("Could not open file '%s'\n", path.text);
    return -1;
  }
  const bool written = write_table(table->tbl, file.get());
  if (written)
    set_tbl_state(table, TBL_UNCHANGED);
  else
    LM_ERR("Could not write to file '%s'\n", path.text);
  lock->release();
  file.close();
  return written ? 0 : -1;
}

}  // namespace

int32_t clear_file(const char *path) {
  file_handle file(fopen(path, "w"));
  if (!file) {
    LM_ERR("Could not open file '%s'\n", path);
    if (names_file(path)) remove(path);
    return -1;
  }
  if (!write_version(file.get())) {
    LM_ERR("Could not write to file '%s'\n", path);
    file.close();
    remove(path);
    return -1;
  }
  return 0;
}

int32_t store_table(tarn_tbl *table) {
  LM_DBG("Storing table '%s' to file '%s'\n", table->table_name, table->file_name);
  lock_scope lock(table->lock);
  switch (get_tbl_state(table)) {
    case TBL_UNCHANGED:
      LM_DBG("Table '%s' was not changed\n", table->table_name);
      return 0;
    case TBL_CLEARED:
      return store_cleared(table);
    default:
      return store_changed(table, &lock);
  }
}

void store_table_mngt(unsigned int, void *) {
  const host_log_scope log;
  LM_DBG("Looking all tables for changes\n");
  for (tarn_tbl &table : all_tarn_tbls())
    if (store_table(&table) != 0)
      LM_ERR("Could not store table '%s' to file '%s'\n", table.table_name, table.file_name);
}
