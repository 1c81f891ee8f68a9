// Hash and chains of the column indexes.
#include "memdb/memdb_index.h"

#include <emmintrin.h>

#include <atomic>
#include <cstdint>
#include <cstring>

namespace {

// Chain links lie at any byte of a row, so they are moved as bytes.
memdb_row *read_link(const void *place) {
  memdb_row *row;
  memcpy(&row, place, sizeof(row));
  return row;
}

void write_link(void *place, memdb_row *row) { memcpy(place, &row, sizeof(row)); }

// The processor moves an aligned link as a whole, but one that isn't may be seen half written.
bool may_tear(const void *place) {
  return reinterpret_cast<uintptr_t>(place) % sizeof(memdb_row *) != 0;
}

// For searches, whose caller may hold no lock: reads an unaligned link until no change of one met
// it (a sequence lock: Lameter, "Effective Synchronization on Linux/NUMA Systems", 2005).
memdb_row *read_link_beside_writer(const void *place, const memdb_col *col) {
  if (!may_tear(place)) return read_link(place);
  const std::atomic_ref changes(const_cast<uint32_t &>(col->changes));
  for (;; _mm_pause()) {
    const uint32_t before = changes.load(std::memory_order_acquire);
    memdb_row *const row = read_link(place);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (before % 2 == 0 && changes.load(std::memory_order_relaxed) == before) return row;
  }
}

// For a link of a chain that readers may be in. The writer holds the table's lock.
void write_link_beside_readers(void *place, memdb_row *row, memdb_col *col) {
  // What the link leads to is complete before it can be met.
  std::atomic_thread_fence(std::memory_order_release);
  if (!may_tear(place)) {
    write_link(place, row);
    return;
  }
  const std::atomic_ref changes(col->changes);
  const uint32_t before = changes.load(std::memory_order_relaxed);
  changes.store(before + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  write_link(place, row);
  changes.store(before + 2, std::memory_order_release);
}

char *link_of(memdb_row *row, const memdb_col *col) {
  return memdb_data(row) + col->offset - sizeof(memdb_row *);
}

const char *link_of(const memdb_row *row, const memdb_col *col) {
  return memdb_data(row) + col->offset - sizeof(memdb_row *);
}

const char *field_of(const memdb_row *row, const memdb_col *col) {
  return memdb_data(row) + col->offset;
}

memdb_row **bucket_of(const memdb_col *col, const char *key) {
  return &col->idx[memdb_hash_str(key) % col->idx_len];
}

// Takes the row out of the chain that starts at place. False if it isn't in it.
bool unlink_from_chain(void *place, memdb_row *row, memdb_col *col) {
  for (memdb_row *at = read_link(place); at != nullptr; at = read_link(place)) {
    if (at == row) {
      write_link_beside_readers(place, read_link(link_of(row, col)), col);
      return true;
    }
    place = link_of(at, col);
  }
  return false;
}

}  // namespace

uint32_t memdb_hash1(const char *text) {
  uint32_t hash = 0x9D1C81C5;
  // Bytes count as signed: tables of all releases fill their buckets alike.
  const auto value = [](char c) { return static_cast<uint32_t>(static_cast<signed char>(c)); };
  // Two characters a step: the second's product doesn't wait for the first's sum.
  for (; text[0] != '\0'; text += 2) {
    if (text[1] == '\0') return hash * 130 + value(text[0]);
    hash = hash * (130 * 130) + (value(text[0]) * 130 + value(text[1]));
  }
  return hash;
}

void memdb_update_col_idx(memdb_row *row, memdb_col *col) {
  const char *const key = field_of(row, col);
  void *place = bucket_of(col, key);
  memdb_row *at = read_link(place);
  while (at != nullptr && strcmp(key, field_of(at, col)) > 0) {
    place = link_of(at, col);
    at = read_link(place);
  }
  write_link(link_of(row, col), at);
  write_link_beside_readers(place, row, col);
}

void memdb_delete_idx_entry(memdb_row *row, memdb_col *col) {
  if (unlink_from_chain(bucket_of(col, field_of(row, col)), row, col)) return;
  if (memdb_log_err != nullptr) memdb_log_err("Could not find the index entry to remove\n");
  // The text was overwritten since the row was linked. No chain may lead to a block that is about
  // to be freed, so the other buckets are searched as well.
  for (uint32_t i = 0; i < col->idx_len; i++)
    if (unlink_from_chain(&col->idx[i], row, col)) return;
}

memdb_row *memdb_idx_find(const memdb_col *col, const char *key) {
  memdb_row *row = *bucket_of(col, key);
  for (; row != nullptr; row = read_link_beside_writer(link_of(row, col), col)) {
    const int order = strcmp(key, field_of(row, col));
    if (order == 0) return row;
    if (order < 0) return nullptr;
  }
  return nullptr;
}

memdb_row *memdb_idx_next_res(const memdb_row *row, const memdb_col *col, const char *key) {
  memdb_row *const next = read_link_beside_writer(link_of(row, col), col);
  return next != nullptr && strcmp(key, field_of(next, col)) == 0 ? next : nullptr;
}
