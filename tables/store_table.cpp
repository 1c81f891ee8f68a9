// Writing tables to their files.
#include <cstdio>
#include <cstring>

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

// Fields go to the file as they are and one by one, so that a row of any length is stored whole.
bool write_row(const memdb_tbl *tbl, const memdb_row *row, FILE *file) {
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (i > 0 && putc_unlocked(FIELD_SEPARATOR, file) == EOF) return false;
    const char *const field = memdb_get_field(tbl, row, i);
    const size_t len = strlen(field);
    if (fwrite_unlocked(field, 1, len, file) != len) return false;
  }
  return putc_unlocked('\n', file) != EOF;
}

bool write_table(const memdb_tbl *tbl, FILE *file) {
  if (!write_version(file)) return false;
  for (const memdb_row *row = tbl->last; row != nullptr; row = row->prev)
    if (!write_row(tbl, row, file)) return false;
  return true;
}

int32_t store_cleared(tarn_tbl *table) {
  LM_DBG("Table '%s' was cleared. Saving changes to file\n", table->table_name);
  if (!has_files(table)) {
    LM_ERR("Could not open file '%s'\n", main_path(table).text);
    return -1;
  }
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
  if (has_files(table)) rename(path.text, backup.text);
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
    remove(path);
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
