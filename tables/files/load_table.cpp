// Which file fills a table, and what becomes of a file that doesn't.
#include <cerrno>
#include <cstdio>

#include "host/log.h"
#include "tables/files/table_files.h"
#include "tables/files/table_paths.h"
#include "tables/files/table_reader.h"
#include "tables/shared/file_status.h"
#include "tables/table_counts.h"

namespace {

// What can't be looked at may be one.
bool may_be_regular_file(const char *path) {
  struct stat status;
  return read_link_status(path, &status) ? S_ISREG(status.st_mode) : errno != ENOENT;
}

// Frees the path of a file that can't be loaded. Its text stays on disk, for whoever mends it: it
// may be all that is left of the table.
void set_aside(tarn_tbl *table, const char *path) {
  if (may_be_regular_file(path)) {
    count_refused_file(table);
    const refused_path refused(path);
    if (rename(path, refused.text) == 0) {
      LM_WARN("File '%s' can't be loaded and was renamed to '%s'\n", path, refused.text);
      return;
    }
    if (remove(path) == 0)
      LM_ERR("File '%s' can't be loaded, nor renamed to '%s', and was removed\n", path,
             refused.text);
    return;
  }
  remove(path);
}

bool load_file(tarn_tbl *table, const char *path) NEEDS_LOCK(table->lock) {
  return read_table_file(table, path, nullptr) == table_file_state::loaded;
}

// Fills the table from its main file, or else from the backup.
bool load_files(tarn_tbl *table) NEEDS_LOCK(table->lock) {
  const main_path path(table);
  if (table_file_exists(path.text) && load_file(table, path.text)) return true;

  if (names_file(path.text)) set_aside(table, path.text);
  empty_table(table);
  const backup_path backup(table);
  if (table_file_exists(backup.text)) {
    LM_DBG("Trying to open backup file '%s'\n", backup.text);
    if (load_file(table, backup.text)) return true;
  }

  set_aside(table, backup.text);
  empty_table(table);
  return false;
}

}  // namespace

void load_table(tarn_tbl *table) {
  LM_DBG("Loading table '%s' from file '%s'\n", table->table_name, table->file_name);
  empty_table(table);
  if (!load_files(table))
    LM_DBG("New file '%s' will be created later when necessary\n", main_path(table).text);
}

void note_loaded_file(const tarn_tbl *table) {
  struct stat status;
  if (!read_status(main_path(table).text, &status) || !S_ISREG(status.st_mode)) return;
  set_count(table, &table_counts::file_rows, static_cast<uint64_t>(table->row_count));
  set_count(table, &table_counts::file_bytes, static_cast<uint64_t>(status.st_size));
}

void reload_table(tarn_tbl *table) {
  set_being_reloaded(table, true);
  memdb_delete_all(rows_to_change(table));
  set_tbl_state(table, TBL_CHANGED);
  table->row_count = 0;
  load_table(table);
  set_being_reloaded(table, false);
}
