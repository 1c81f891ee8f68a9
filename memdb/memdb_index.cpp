// Hash and chains of the column indexes.
#include "memdb/memdb_index.h"

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

// The processor moves an aligned link as a whole, but one that isn't may be seen half written. So
// the writer of such a link first tells the column which one it writes and what, in aligned words,
// and counts the change when it begins and when it ends. A search that meets a change takes what
// was told for that link and any other link as it is: it needs no end of the change, which never
// comes if the writer has been killed. The counting is that of a sequence lock (Lameter, "Effective
// Synchronization on Linux/NUMA Systems", 2005).
bool may_tear(const void *place) {
  return reinterpret_cast<uintptr_t>(place) % sizeof(memdb_row *) != 0;
}

// For searches, whose caller may hold no lock. Looks again only where another change has begun or
// ended meanwhile.
memdb_row *read_link_beside_writer(const void *place, const memdb_col *col) {
  if (!may_tear(place)) return read_link(place);
  auto &shared = const_cast<memdb_col &>(*col);
  const std::atomic_ref changes(shared.changes);
  for (;;) {
    const uint32_t before = changes.load(std::memory_order_acquire);
    memdb_row *row = read_link(place);
    if (before % 2 != 0) {
      const void *const changing = std::atomic_ref(shared.changing).load(std::memory_order_relaxed);
      memdb_row *const to = std::atomic_ref(shared.changing_to).load(std::memory_order_relaxed);
      if (changing == place) row = to;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (changes.load(std::memory_order_relaxed) == before) return row;
  }
}

// For a link of a chain that readers may be in. The writer holds the table's lock.
void write_link_beside_readers(void *place, memdb_row *row, memdb_col *col) {
  // What the link leads to is complete before it can be met, and the change before is over.
  std::atomic_thread_fence(std::memory_order_release);
  if (!may_tear(place)) {
    write_link(place, row);
    return;
  }
  const std::atomic_ref changes(col->changes);
  uint32_t begun = changes.load(std::memory_order_relaxed) + 1;
  // A writer that was killed has left the count odd: its change ends here, ahead of the next one.
  if (begun % 2 == 0) {
    changes.store(begun, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    begun++;
  }
  std::atomic_ref(col->changing).store(place, std::memory_order_relaxed);
  std::atomic_ref(col->changing_to).store(row, std::memory_order_relaxed);
  changes.store(begun, std::memory_order_release);
  std::atomic_thread_fence(std::memory_order_release);
  write_link(place, row);
  changes.store(begun + 1, std::memory_order_release);
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
  memdb_report_missing_entry();
  // The text was overwritten since the row was linked. No chain may lead to a block that is about
  // to be freed, so the other buckets are searched as well.
  for (uint32_t i = 0; i < col->idx_len; i++)
    if (unlink_from_chain(&col->idx[i], row, col)) return;
}

void memdb_report_missing_entry() {
  if (memdb_log_err != nullptr) memdb_log_err("Could not find the index entry to remove\n");
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
