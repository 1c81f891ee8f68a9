// Writing tables to their files.
#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "host/log.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "tables/files/file_access.h"
#include "tables/files/folder_mark.h"
#include "tables/files/table_files.h"
#include "tables/files/table_paths.h"
#include "tables/rows/row_image.h"
#include "tables/shared/file_handle.h"
#include "tables/table_counts.h"

store_parameters store_settings = {.automatic = 1, .interval = 15};

namespace {

bool write_version(FILE *file) {
  return fputs(TABLE_FILE_VERSION, file) >= 0 && putc('\n', file) != EOF;
}

// Copies a text and gives the end of the copy. It moves the bytes of a register at a time and looks
// for the terminator in them, as vectorized string libraries do. So the copy may be followed by up
// to CHUNK bytes of anything, and nothing is read at or behind block_end, the end of the block that
// the text lies in.
constexpr size_t CHUNK = sizeof(__m128i);

char *copy_text(char *to, const char *text, const char *block_end) {
  const auto zeros_of = [](__m128i chunk) {
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, _mm_setzero_si128())));
  };
  for (; static_cast<size_t>(block_end - text) >= CHUNK; text += CHUNK, to += CHUNK) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i *>(text));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), chunk);
    if (const uint32_t zeros = zeros_of(chunk); zeros != 0) return to + std::countr_zero(zeros);
  }
  if (static_cast<size_t>(block_end - text) >= CHUNK / 2) {
    const __m128i half = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(text));
    _mm_storel_epi64(reinterpret_cast<__m128i *>(to), half);
    const int len = std::countr_zero(zeros_of(half));
    if (len < 8) return to + len;
    text += 8;
    to += 8;
  }
  while (*text != '\0') *to++ = *text++;
  return to;
}

// Gathers what goes to the file, so that one write serves many rows.
class block_writer {
 public:
  // Larger blocks gain nothing: the system's part of a write, per byte, doesn't fall any further.
  static constexpr size_t SIZE = 262144;

  explicit block_writer(FILE *file) : file_(file) {}

  // Where size bytes, not more than SIZE, can be written before they are told to took_up_to. Null
  // if what was gathered can't be written to make room.
  char *room(size_t size) {
    if (size > SIZE - len_ && !flush()) return nullptr;
    return text_ + len_;
  }
  void took_up_to(const char *end) { len_ = static_cast<size_t>(end - text_); }

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

  // Bytes that went to the file, or were to go.
  uint64_t written() const { return written_; }

  bool flush() {
    const std::string_view gathered(text_, len_);
    len_ = 0;
    return gathered.empty() || write(gathered);
  }

 private:
  bool write(std::string_view text) {
    written_ += text.size();
    return fwrite_unlocked(text.data(), 1, text.size(), file_) == text.size();
  }

  FILE *file_;
  size_t len_ = 0;
  uint64_t written_ = 0;
  char text_[SIZE];
};

// The row's line at a place with room for the longest one and CHUNK bytes; gives its end.
char *copy_row(char *to, const memdb_tbl *tbl, const memdb_row *row) {
  const char *const row_end = memdb_data(row) + tbl->row_len;
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (i > 0) *to++ = FIELD_SEPARATOR;
    to = copy_text(to, memdb_get_field(tbl, row, i), row_end);
  }
  *to++ = '\n';
  return to;
}

// Field by field, so that a row of any length is stored whole.
bool write_long_row(const memdb_tbl *tbl, const memdb_row *row, block_writer *out) {
  for (uint32_t i = 0; i < tbl->col_cnt; i++)
    if ((i > 0 && !out->put(FIELD_SEPARATOR)) || !out->put(memdb_get_field(tbl, row, i)))
      return false;
  return out->put('\n');
}

// Rows lie in memory in the order of their making as a rule, but the processor can't know: the next
// one is fetched while this one is copied.
void prefetch_row(const memdb_tbl *tbl, const memdb_row *row) {
  constexpr size_t CACHE_LINE = 64;
  constexpr size_t MOST = 8 * CACHE_LINE;
  const size_t size = std::min(sizeof(memdb_row) + size_t{tbl->row_len}, MOST);
  for (size_t at = 0; at < size; at += CACHE_LINE)
    __builtin_prefetch(reinterpret_cast<const char *>(row) + at);
}

bool write_rows(const memdb_tbl *tbl, block_writer *out) {
  // Each text's terminator makes room for the separator or line feed behind it; a table without
  // columns has the line feed alone.
  const size_t room = size_t{tbl->row_len} + 1 + CHUNK;
  const bool long_rows = room > block_writer::SIZE;
  for (const memdb_row *row = tbl->last; row != nullptr; row = row->prev) {
    if (long_rows) {
      if (!write_long_row(tbl, row, out)) return false;
      continue;
    }
    if (row->prev != nullptr) prefetch_row(tbl, row->prev);
    char *const line = out->room(room);
    if (line == nullptr) return false;
    out->took_up_to(copy_row(line, tbl, row));
  }
  // The port functions show the buffer for a word that names no map; log filters know that line
  // with what the process stored last in it.
  if (tbl->first != nullptr) row_image(tbl, tbl->first, query_buf);
  return out->flush();
}

constexpr size_t VERSION_LINE = sizeof(TABLE_FILE_VERSION);  // the terminator's place is the feed's

void note_main_file(const tarn_tbl *table, int32_t rows, uint64_t bytes) {
  set_count(table, &table_counts::file_rows, static_cast<uint64_t>(rows));
  set_count(table, &table_counts::file_bytes, bytes);
}

bool write_table(const tarn_tbl *table, FILE *file) NEEDS_LOCK(table->lock) {
  block_writer out(file);
  if (!write_version(file) || !write_rows(table->tbl, &out)) return false;
  note_main_file(table, table->row_count, VERSION_LINE + out.written());
  return true;
}

// The rights that the main file has or is to have again. Without one, those of its last text.
file_access main_file_access(const main_path &path, const backup_path &backup) {
  return access_of_first(
      {path.text, backup.text, refused_path(path.text).text, refused_path(backup.text).text});
}

bool written_or_told(bool written, const char *path) {
  if (!written) LM_ERR("Could not write to file '%s'\n", path);
  return written;
}

bool store_cleared(tarn_tbl *table) NEEDS_LOCK(table->lock) {
  LM_DBG("Table '%s' was cleared. Saving changes to file\n", table->table_name);
  const main_path path(table);
  const backup_path backup(table);
  const file_access access = main_file_access(path, backup);
  if (!clear_file(path.text, access) || !clear_file(backup.text, access)) return false;
  note_main_file(table, 0, VERSION_LINE);
  set_tbl_state(table, TBL_UNCHANGED);
  return true;
}

// A main file while it is written. It is closed at the end of the scope, behind the lock: the close
// flushes what is left, and nobody has to wait for that.
class main_file_at_work {
 public:
  // Null, logged, if the file can't be opened.
  FILE *open(tarn_tbl *table, const char *path, const file_access &access) {
    store_.emplace(table);
    LM_DBG("Saving file '%s'\n", path);
    return file_.emplace(open_with_access(path, access)).get();
  }

 private:
  std::optional<open_store> store_;
  std::optional<file_handle> file_;
};

bool store_changed(tarn_tbl *table, main_file_at_work *main_file) NEEDS_LOCK(table->lock) {
  const main_path path(table);
  const backup_path backup(table);
  LM_DBG("Table '%s' was changed. Saving changes to file\n", table->table_name);
  const file_access access = main_file_access(path, backup);
  LM_DBG("Saving backup file '%s'\n", backup.text);
  // Fails for the first store of all and between file systems; the old backup then stays. It also
  // stays where the main file was cut off by a process's end: it is the last whole text then.
  if (names_file(path.text) && table->main_file_cut == 0) rename(path.text, backup.text);
  FILE *const file = main_file->open(table, path.text, access);
  if (file == nullptr || !written_or_told(write_table(table, file), path.text)) return false;
  set_tbl_state(table, TBL_UNCHANGED);
  table->main_file_cut = 0;
  return true;
}

bool store_if_changed(tarn_tbl *table) {
  LM_DBG("Storing table '%s' to file '%s'\n", table->table_name, table->file_name);
  main_file_at_work main_file;
  const lock_scope lock(table->lock);
  if (is_being_reloaded(table)) {
    LM_WARN("Table '%s' was being reloaded when the server stopped. Its files stay as they are\n",
            table->table_name);
    return true;
  }
  switch (get_tbl_state(table)) {
    case TBL_UNCHANGED:
      LM_DBG("Table '%s' was not changed\n", table->table_name);
      return true;
    case TBL_CLEARED:
      return store_cleared(table);
    default:
      return store_changed(table, &main_file);
  }
}

}  // namespace

bool clear_file(const char *path, const file_access &access) {
  file_handle file(open_with_access(path, access));
  if (!file) {
    if (names_file(path)) remove(path);
    return false;
  }
  if (written_or_told(write_version(file.get()), path)) return true;
  file.close();
  remove(path);
  return false;
}

bool store_table(tarn_tbl *table) {
  if (store_if_changed(table)) return true;
  count_for(table, &table_counts::failed_stores);
  LM_ERR("Could not store table '%s' to file '%s'\n", table->table_name, table->file_name);
  return false;
}

void store_table_mngt(unsigned int, void *) {
  const host_log_scope log;
  LM_DBG("Looking all tables for changes\n");
  renew_folder_mark();
  for (tarn_tbl &table : all_tarn_tbls()) store_table(&table);
  settle_retired_rows();
}
