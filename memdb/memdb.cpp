// Tables and rows: making, filling, overwriting and deleting.
#include "memdb/memdb.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "memdb/index/index.h"
#include "memdb/prefix/prefix.h"

void *(*memdb_malloc)(size_t size) = malloc;
void *(*memdb_calloc)(size_t count, size_t size) = calloc;
void (*memdb_free)(void *block) = free;
bool (*memdb_may_take)(size_t size) = nullptr;
void (*memdb_retire)(void *block) = [](void *block) { memdb_free(block); };
uint32_t (*memdb_hash_str)(const char *text) = memdb_hash1;
void (*memdb_log_err)(const char *message) = nullptr;
uint32_t memdb_idx_len = 512;

namespace {

constexpr uint32_t LINK_SIZE = sizeof(memdb_row *);

// False if a column's capacity or the whole row would pass 32 bits.
bool layout_fits(const tbl_dcl *columns, uint32_t col_cnt) {
  uint64_t total = sizeof(memdb_row);
  for (uint32_t i = 0; i < col_cnt; i++) {
    total += uint64_t{columns[i].len} + 1;
    if (columns[i].flag & MEMDB_COL_INDEXED) total += LINK_SIZE;
    if (total > std::numeric_limits<uint32_t>::max()) return false;
  }
  return true;
}

void free_columns(memdb_tbl *tbl) {
  for (memdb_col &col : memdb_cols(tbl)) memdb_free(col.idx);
  memdb_free(tbl->cols);
}

// Rows and blocks of indexes that no one finds any more.
struct taken_out {
  memdb_row *newest;
  void *blocks;  // linked by their first 8 bytes
};

// Takes out all rows. With every row going, emptying the buckets does what unlinking row by row
// would do, without walking a chain per row and column.
taken_out take_all(memdb_tbl *tbl) {
  taken_out out = {tbl->first, nullptr};
  tbl->first = nullptr;
  tbl->last = nullptr;
  for (memdb_col &col : memdb_cols(tbl)) out.blocks = memdb_empty_idx(&col, out.blocks);
  return out;
}

// Rows are given back from the newest on, and ahead of what is large: an allocator that looks for
// the place of a large free block among all of them has fewer to look at.
void give_back(const taken_out &out) {
  for (memdb_row *row = out.newest; row != nullptr;) memdb_retire(std::exchange(row, row->next));
  for (void *block = out.blocks; block != nullptr;) {
    void *next;
    memcpy(&next, block, sizeof(next));
    memdb_retire(std::exchange(block, next));
  }
}

// Writes value, cut to the column's size, into the field. All that can be done ahead of the copy or
// after it is: readers without a lock may look at the field, and a writer may be killed.
void write_field(char *field, const memdb_col &col, const char *value) {
  const size_t len = strnlen(value, col.size);
  const size_t kept = std::min<size_t>(len, col.size - 1);
  memcpy(field, value, kept);
  field[kept] = '\0';
  if (len == kept) return;
  MEMDB_LOG(warn, "Value '%s' too long. It will be truncated to fit field size (%d bytes)\n", value,
            static_cast<int>(col.size - 1));
}

// True if the field's text is what write_field makes of the value.
bool is_text_of(const char *field, const memdb_col &col, const char *value) {
  const size_t kept = strnlen(value, col.size - 1);
  return memcmp(field, value, kept) == 0 && field[kept] == '\0';
}

// False at the first value that is null. The columns from there on are reported as columns that the
// row is missing in, as if it had been taken out of them.
bool fill_row(const memdb_tbl *tbl, memdb_row *row, const char *const *values) {
  const std::span<memdb_col> cols = memdb_cols(tbl);
  for (size_t i = 0; i < cols.size(); i++) {
    if (values[i] == nullptr) {
      for (const memdb_col &col : cols.subspan(i))
        if (memdb_is_indexed(col)) memdb_report_missing_entry();
      return false;
    }
    write_field(memdb_data(row) + cols[i].offset, cols[i], values[i]);
  }
  return true;
}

void count_rows(memdb_tbl *tbl, uint32_t count) {
  std::atomic_ref(tbl->row_cnt).store(count, std::memory_order_relaxed);
}

// Puts a row that is filled at the head of the list and into the chains. Whoever is killed in
// between leaves a list that is whole in the one direction or in both.
void link_row(memdb_tbl *tbl, memdb_row *row) {
  memdb_row *const older = tbl->first;
  row->next = older;
  // A reader without a lock meets the row with its texts and its link.
  std::atomic_ref(tbl->first).store(row, std::memory_order_release);
  if (older != nullptr)
    older->prev = row;
  else
    tbl->last = row;
  for (memdb_col &col : memdb_cols(tbl))
    if (memdb_is_indexed(col)) memdb_update_col_idx(row, &col);
}

void unlink_row(memdb_tbl *tbl, memdb_row *row) {
  const memdb_prefix_leave leave(tbl, row);
  for (memdb_col &col : memdb_cols(tbl))
    if (memdb_is_indexed(col)) memdb_delete_idx_entry(row, &col);
  if (tbl->first == row) tbl->first = row->next;
  if (tbl->last == row) tbl->last = row->prev;
  if (row->next != nullptr) row->next->prev = row->prev;
  if (row->prev != nullptr) row->prev->next = row->next;
}

}  // namespace

memdb_tbl *memdb_create_tbl(const tbl_dcl *columns, uint32_t col_cnt) {
  if (!layout_fits(columns, col_cnt)) return nullptr;
  auto *const tbl = static_cast<memdb_tbl *>(memdb_malloc(sizeof(memdb_tbl)));
  if (tbl == nullptr) {
    MEMDB_LOG(err, "Fail to allocate memory to the table\n");
    return nullptr;
  }
  tbl->col_cnt = col_cnt;
  tbl->cols = static_cast<memdb_col *>(memdb_malloc(size_t{col_cnt} * sizeof(memdb_col)));
  if (tbl->cols == nullptr) {
    MEMDB_LOG(err, "Fail to allocate memory to the columns\n");
    memdb_free(tbl);
    return nullptr;
  }
  for (memdb_col &col : memdb_cols(tbl)) col = {};

  uint32_t total = 0;
  for (memdb_col &col : memdb_cols(tbl)) {
    const tbl_dcl &declared = *columns++;
    col.flags = declared.flag;
    if (memdb_is_indexed(col)) {
      total += LINK_SIZE;
      col.idx_len = memdb_idx_len;
      col.idx = static_cast<memdb_row **>(memdb_calloc(memdb_idx_len, sizeof(memdb_row *)));
      if (col.idx == nullptr) {
        MEMDB_LOG(err, "Fail to allocate memory to the hash table buckets\n");
        free_columns(tbl);
        memdb_free(tbl);
        return nullptr;
      }
    }
    col.offset = total;
    col.size = declared.len + 1;
    total += col.size;
  }
  tbl->row_len = total;
  tbl->first = nullptr;
  tbl->last = nullptr;
  memdb_begin_prefixes(tbl);
  return tbl;
}

void memdb_destroy_tbl(memdb_tbl *tbl) {
  if (tbl == nullptr) return;
  memdb_end_prefixes(tbl);
  give_back(take_all(tbl));
  free_columns(tbl);
  memdb_free(tbl);
}

memdb_row *memdb_insert(memdb_tbl *tbl, const char *const *values) {
  memdb_prefix_join join(tbl, values);
  for (uint32_t i = 0; i < tbl->col_cnt; i++)
    if (memdb_is_indexed(tbl->cols[i]) && values[i] != nullptr)
      memdb_fetch_col_idx(&tbl->cols[i], values[i]);
  auto *const row =
      static_cast<memdb_row *>(memdb_calloc(1, size_t{tbl->row_len} + sizeof(memdb_row)));
  if (row == nullptr) {
    MEMDB_LOG(err, "Fail to allocate memory to the row\n");
    return nullptr;
  }
  if (!fill_row(tbl, row, values)) {
    memdb_free(row);
    return nullptr;
  }
  count_rows(tbl, tbl->row_cnt + 1);
  join.begin(row);
  link_row(tbl, row);
  return row;
}

void memdb_delete_row(memdb_tbl *tbl, memdb_row *row) {
  unlink_row(tbl, row);
  count_rows(tbl, std::max(tbl->row_cnt, 1U) - 1);
  memdb_retire(row);
}

void memdb_delete_all(memdb_tbl *tbl) {
  memdb_empty_prefixes(tbl);
  const taken_out all = take_all(tbl);
  count_rows(tbl, 0);
  memdb_renew_prefixes(tbl);
  give_back(all);
}

void memdb_mend_list(memdb_tbl *tbl) {
  memdb_row *newer = nullptr;
  for (memdb_row *row = tbl->first; row != nullptr; row = row->next) {
    row->prev = newer;
    newer = row;
  }
  tbl->last = newer;
}

memdb_row *memdb_set_field(memdb_tbl *tbl, memdb_row *row, uint32_t col, const char *value) {
  memdb_col &target = tbl->cols[col];
  char *const field = memdb_data(row) + target.offset;
  if (memdb_is_indexed(target) && !is_text_of(field, target, value))
    memdb_expect_overwrite(row, &target);
  const memdb_prefix_overwrite overwrite(tbl, row, col, value);
  write_field(field, target, value);
  // Whatever may have been written beyond the text, the field ends within its size.
  field[target.size - 1] = '\0';
  return row;
}
