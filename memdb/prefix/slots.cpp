// Making, filling and emptying slots.
#include "memdb/prefix/slots.h"

#include <algorithm>

#include "memdb/layout/hooks.h"

namespace {

constexpr uint32_t FEWEST_SLOTS = 64;
constexpr uint32_t MOST_ROWS = UINT32_MAX / 2;

memdb_prefix_slot slot_of(const memdb_prefix_entry &entry) {
  return {uint64_t{entry.hash} << 32 | (entry.age & UINT32_MAX),
          (entry.age >> 32) << MEMDB_PREFIX_ADDRESS_BITS | reinterpret_cast<uintptr_t>(entry.row)};
}

uint32_t *length_count(memdb_prefix_slots *table, uint32_t length) {
  return &table->lengths[std::min(length, MEMDB_PREFIX_LONGEST + 1)];
}

// A row's length is counted for as long as readers may meet it.
void count_length(memdb_prefix_slots *table, uint32_t length, bool comes) {
  const std::atomic_ref count(*length_count(table, length));
  const uint32_t before = count.load(std::memory_order_relaxed);
  count.store(comes ? before + 1 : before - 1, std::memory_order_release);
}

void copy_slot(memdb_prefix_slots *table, const memdb_prefix_slot &slot) {
  memdb_prefix_slot *const slots = memdb_prefix_slots_of(table);
  uint32_t at = memdb_prefix_home(table, memdb_prefix_hash_of(slot));
  while (slots[at].tag != MEMDB_PREFIX_FREE) at = memdb_prefix_next(table, at);
  slots[at] = slot;
  table->used++;
}

// Frees a marked slot that no probe goes on behind, and those ahead of it of which that is true
// then.
void free_end_of_run(memdb_prefix_slots *table, uint32_t at) {
  memdb_prefix_slot *const slots = memdb_prefix_slots_of(table);
  if (slots[memdb_prefix_next(table, at)].tag != MEMDB_PREFIX_FREE) return;
  while (slots[at].tag == MEMDB_PREFIX_LEFT) {
    std::atomic_ref(slots[at].tag).store(MEMDB_PREFIX_FREE, std::memory_order_release);
    table->used--;
    at = at != 0 ? at - 1 : table->slot_cnt - 1;
  }
}

}  // namespace

memdb_prefix_slots *memdb_prefix_make_slots(uint32_t rows) {
  if (rows > MOST_ROWS) return nullptr;
  const uint32_t slot_cnt = std::max(2 * rows, FEWEST_SLOTS);
  auto *const table = static_cast<memdb_prefix_slots *>(
      memdb_calloc(1, sizeof(memdb_prefix_slots) + size_t{slot_cnt} * sizeof(memdb_prefix_slot)));
  if (table != nullptr) table->slot_cnt = slot_cnt;
  return table;
}

memdb_prefix_slots *memdb_prefix_copy_slots(const memdb_prefix_slots *table, uint32_t rows) {
  memdb_prefix_slots *const copy = memdb_prefix_make_slots(rows);
  if (copy == nullptr) return nullptr;
  copy->next_age = table->next_age;
  memcpy(copy->lengths, table->lengths, sizeof(copy->lengths));
  const memdb_prefix_slot *const slots = memdb_prefix_slots_of(table);
  for (uint32_t i = 0; i < table->slot_cnt; i++)
    if (slots[i].tag > MEMDB_PREFIX_LEFT) copy_slot(copy, slots[i]);
  return copy;
}

bool memdb_prefix_is_full(const memdb_prefix_slots *table) {
  return uint64_t{table->used} + 1 > uint64_t{table->slot_cnt} * 3 / 4;
}

bool memdb_prefix_is_wide(const memdb_prefix_slots *table, uint32_t rows) {
  return table->slot_cnt > FEWEST_SLOTS && uint64_t{rows} * 3 < table->slot_cnt;
}

bool memdb_prefix_put(memdb_prefix_slots *table, const memdb_prefix_entry &entry) {
  memdb_prefix_slot *const slots = memdb_prefix_slots_of(table);
  memdb_prefix_slot *left = nullptr;
  size_t equal = 0;
  uint32_t at = memdb_prefix_home(table, entry.hash);
  for (; slots[at].tag != MEMDB_PREFIX_FREE; at = memdb_prefix_next(table, at)) {
    if (slots[at].tag == MEMDB_PREFIX_LEFT) {
      if (left == nullptr) left = &slots[at];
    } else if (memdb_prefix_hash_of(slots[at]) == entry.hash) {
      equal++;
    }
  }
  if (equal >= MEMDB_PREFIX_MOST_EQUAL) return false;
  if (left == nullptr) table->used++;
  count_length(table, entry.length, true);
  memdb_prefix_slot &slot = left != nullptr ? *left : slots[at];
  const memdb_prefix_slot filled = slot_of(entry);
  // A reader that meets the row here finds no tag of a row that was here before.
  std::atomic_thread_fence(std::memory_order_release);
  std::atomic_ref(slot.row).store(filled.row, std::memory_order_relaxed);
  std::atomic_ref(slot.tag).store(filled.tag, std::memory_order_release);
  return true;
}

bool memdb_prefix_take(memdb_prefix_slots *table, memdb_prefix_entry *entry) {
  memdb_prefix_slot *const slots = memdb_prefix_slots_of(table);
  uint32_t at = memdb_prefix_home(table, entry->hash);
  for (; slots[at].tag != MEMDB_PREFIX_FREE; at = memdb_prefix_next(table, at)) {
    memdb_prefix_slot &slot = slots[at];
    if (memdb_prefix_hash_of(slot) != entry->hash || memdb_prefix_row_of(slot) != entry->row)
      continue;
    entry->age = memdb_prefix_age_of(slot);
    std::atomic_ref(slot.tag).store(MEMDB_PREFIX_LEFT, std::memory_order_release);
    count_length(table, entry->length, false);
    free_end_of_run(table, at);
    return true;
  }
  return false;
}
