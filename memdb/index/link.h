// The links that lead from row to row of an index, at any byte of a row. Serves the index.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "memdb/layout/layout.h"

inline char *memdb_link_of(memdb_row *row, const memdb_col *col) {
  return memdb_data(row) + col->offset - sizeof(memdb_row *);
}

inline const char *memdb_link_of(const memdb_row *row, const memdb_col *col) {
  return memdb_data(row) + col->offset - sizeof(memdb_row *);
}

inline const char *memdb_text_of(const memdb_row *row, const memdb_col *col) {
  return memdb_data(row) + col->offset;
}

// As bytes, since links are unaligned. For the writer, and for links that no one else can meet.
inline memdb_row *memdb_read_link(const void *place) {
  memdb_row *row;
  memcpy(&row, place, sizeof(row));
  return row;
}

inline void memdb_write_link(void *place, memdb_row *row) { memcpy(place, &row, sizeof(row)); }

// An aligned link, which is moved as a whole.
inline std::atomic_ref<memdb_row *> memdb_aligned_link(const void *place) {
  return std::atomic_ref(*static_cast<memdb_row **>(const_cast<void *>(place)));
}

// The processor moves an aligned link as a whole, but one that isn't may be seen half written. So
// the writer of such a link first tells the column which one it writes and what, in aligned words,
// and counts the change when it begins and when it ends. A search that meets a change takes what
// was told for that link and any other link as it is: it needs no end of the change, which never
// comes if the writer has been killed. The counting is that of a sequence lock (Lameter, "Effective
// Synchronization on Linux/NUMA Systems", 2005).
inline bool memdb_link_may_tear(const void *place) {
  return reinterpret_cast<uintptr_t>(place) % sizeof(memdb_row *) != 0;
}

// For searches, whose caller may hold no lock. Looks again only where another change has begun or
// ended meanwhile.
inline memdb_row *memdb_read_link_beside_writer(const void *place, const memdb_col *col) {
  if (!memdb_link_may_tear(place)) return memdb_aligned_link(place).load(std::memory_order_acquire);
  auto &shared = const_cast<memdb_col &>(*col);
  const std::atomic_ref changes(shared.changes);
  for (;;) {
    const uint32_t before = changes.load(std::memory_order_acquire);
    memdb_row *row = memdb_read_link(place);
    if (before % 2 != 0) {
      const void *const changing = std::atomic_ref(shared.changing).load(std::memory_order_relaxed);
      memdb_row *const to = std::atomic_ref(shared.changing_to).load(std::memory_order_relaxed);
      if (changing == place) row = to;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (changes.load(std::memory_order_relaxed) == before) return row;
  }
}

// For a link that readers may be at. The writer holds the table's lock.
void memdb_write_link_beside_readers(void *place, memdb_row *row, memdb_col *col);
