// Changing a link beside readers.
#include "memdb/index/link.h"

void memdb_write_link_beside_readers(void *place, memdb_row *row, memdb_col *col) {
  if (!memdb_link_may_tear(place)) {
    memdb_aligned_link(place).store(row, std::memory_order_release);
    return;
  }
  // What the link leads to is complete before it can be met, and the change before is over.
  std::atomic_thread_fence(std::memory_order_release);
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
  memdb_write_link(place, row);
  changes.store(begun + 1, std::memory_order_release);
}
