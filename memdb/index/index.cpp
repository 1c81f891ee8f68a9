// Hash and chains of the column indexes.
#include "memdb/index/index.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include "memdb/index/directory.h"
#include "memdb/index/link.h"
#include "memdb/layout/hooks.h"

namespace {

memdb_row **bucket_of(const memdb_col *col, const char *key) {
  return &col->idx[memdb_hash_str(key) % col->idx_len];
}

// Puts the row into the chain of its bucket, and tells how many rows are ahead of it.
uint32_t link_into_chain(void *place, memdb_row *row, memdb_col *col) {
  const char *const key = memdb_text_of(row, col);
  uint32_t ahead = 0;
  memdb_row *at = memdb_read_link(place);
  for (; at != nullptr && strcmp(key, memdb_text_of(at, col)) > 0; at = memdb_read_link(place)) {
    place = memdb_link_of(at, col);
    ahead++;
  }
  memdb_write_link(memdb_link_of(row, col), at);
  memdb_write_link_beside_readers(place, row, col);
  return ahead;
}

bool is_long(const memdb_row *chain, const memdb_col *col) {
  uint32_t rows = 0;
  for (; chain != nullptr && rows <= memdb_directories.plain_chain; rows++)
    chain = memdb_read_link(memdb_link_of(chain, col));
  return rows > memdb_directories.plain_chain;
}

// Whether the chain in which so many rows are ahead of the new one is to become a directory. Rows
// that come in falling order have none ahead of them, so now and then the chain is looked at whole.
bool wants_directory(const memdb_row *chain, uint32_t ahead, memdb_col *col) {
  constexpr uint32_t LOOKED_AT_ONCE_IN = 8;
  if (col->linked <= memdb_directories.plain_rows) return false;
  if (col->made_not_before > 0) {
    col->made_not_before--;
    return false;
  }
  return ahead > memdb_directories.plain_chain ||
         (col->linked % LOOKED_AT_ONCE_IN == 0 && is_long(chain, col));
}

// Takes the row out of the chain that starts at place. False if it isn't in it.
bool unlink_from_chain(void *place, memdb_row *row, memdb_col *col) {
  for (memdb_row *at = memdb_read_link(place); at != nullptr; at = memdb_read_link(place)) {
    if (at == row) {
      memdb_write_link_beside_readers(place, memdb_read_link(memdb_link_of(row, col)), col);
      return true;
    }
    place = memdb_link_of(at, col);
  }
  return false;
}

bool unlink_from_bucket(memdb_row **bucket, memdb_row *row, memdb_col *col) {
  return memdb_bucket_kind(*bucket).is_chain() ? unlink_from_chain(bucket, row, col)
                                               : memdb_directory_delete(bucket, row, col);
}

// For searches, whose caller may hold no lock.
memdb_row *find_in_chain(memdb_row *row, const memdb_col *col, const char *key) {
  for (; row != nullptr; row = memdb_read_link_beside_writer(memdb_link_of(row, col), col)) {
    const int order = strcmp(key, memdb_text_of(row, col));
    if (order == 0) return row;
    if (order < 0) return nullptr;
  }
  return nullptr;
}

}  // namespace

uint32_t memdb_hash1(const char *text) {
  uint32_t hash = 0x9D1C81C5;
  // Bytes count as signed, as in the hash of plain chars that reads such tables from outside.
  const auto value = [](char c) { return static_cast<uint32_t>(static_cast<signed char>(c)); };
  // Two characters a step: the second's product doesn't wait for the first's sum.
  for (; text[0] != '\0'; text += 2) {
    if (text[1] == '\0') return hash * 130 + value(text[0]);
    hash = hash * (130 * 130) + (value(text[0]) * 130 + value(text[1]));
  }
  return hash;
}

void memdb_update_col_idx(memdb_row *row, memdb_col *col) {
  memdb_row **const bucket = bucket_of(col, memdb_text_of(row, col));
  col->linked++;
  if (!memdb_bucket_kind(*bucket).is_chain()) {
    if (memdb_directory_insert(bucket, row, col)) return;
    memdb_directory_dissolve(bucket, col);
  }
  const uint32_t ahead = link_into_chain(bucket, row, col);
  if (wants_directory(*bucket, ahead, col)) memdb_directory_make(bucket, col);
}

void memdb_fetch_col_idx(const memdb_col *col, const char *text) {
  if (col->linked <= memdb_directories.plain_rows) return;
  const memdb_bucket_kind kind(*bucket_of(col, text));
  if (!kind.is_chain()) memdb_directory_fetch(kind, col, text);
}

void memdb_delete_idx_entry(memdb_row *row, memdb_col *col) {
  if (col->linked > 0) col->linked--;
  memdb_row **const bucket = bucket_of(col, memdb_text_of(row, col));
  if (unlink_from_bucket(bucket, row, col)) return;
  memdb_report_missing_entry();
  // The text was overwritten since the row was linked. No chain may lead to a block that is about
  // to be freed, so the other buckets are searched as well, but for those whose rows all have the
  // texts that lead there.
  for (uint32_t i = 0; i < col->idx_len; i++)
    if (memdb_bucket_kind(col->idx[i]).is_chain() && unlink_from_chain(&col->idx[i], row, col))
      return;
}

void memdb_expect_overwrite(memdb_row *row, memdb_col *col) {
  memdb_row **const bucket = bucket_of(col, memdb_text_of(row, col));
  if (!memdb_bucket_kind(*bucket).is_chain() && memdb_directory_has(bucket, row, col))
    memdb_directory_dissolve(bucket, col);
}

void *memdb_empty_idx(memdb_col *col, void *blocks) {
  if (col->idx == nullptr) return blocks;
  for (uint32_t i = 0; i < col->idx_len; i++) {
    const memdb_bucket_kind kind(col->idx[i]);
    std::atomic_ref(col->idx[i]).store(nullptr, std::memory_order_relaxed);
    blocks = memdb_directory_add_to(kind, blocks);
  }
  col->linked = 0;
  col->made_not_before = 0;
  return blocks;
}

void memdb_report_missing_entry() {
  if (memdb_log_err != nullptr) memdb_log_err("Could not find the index entry to remove\n");
}

memdb_row *memdb_idx_find(const memdb_col *col, const char *key) {
  memdb_row **const bucket = bucket_of(col, key);
  const std::atomic_ref conversions(const_cast<memdb_col *>(col)->conversions);
  for (;;) {
    const uint32_t before = conversions.load(std::memory_order_acquire);
    memdb_row *const word = std::atomic_ref(*bucket).load(std::memory_order_acquire);
    const memdb_bucket_kind kind(word);
    memdb_row *const row =
        kind.is_chain() ? find_in_chain(word, col, key) : memdb_directory_find(kind, col, key);
    if (row != nullptr) return row;
    std::atomic_thread_fence(std::memory_order_acquire);
    // A chain that became a directory meanwhile may have ended too early.
    if (conversions.load(std::memory_order_relaxed) == before) return nullptr;
  }
}

memdb_row *memdb_idx_next_res(const memdb_row *row, const memdb_col *col, const char *key) {
  memdb_row *const next = memdb_read_link_beside_writer(memdb_link_of(row, col), col);
  return next != nullptr && strcmp(key, memdb_text_of(next, col)) == 0 ? next : nullptr;
}
