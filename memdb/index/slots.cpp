// Probing, filling and emptying tables of slots.
#include "memdb/index/slots.h"

#include <algorithm>
#include <bit>

#include "memdb/layout/hooks.h"

namespace {

constexpr uint32_t LEAST_SLOTS = 32;

bool may_be(uint64_t slot, uint64_t hash) {
  return slot >> MEMDB_ADDRESS_BITS == (hash & MEMDB_HASH_IN_SLOT);
}

// A reader that meets the word meets what it leads to.
void write_slot(uint64_t *slot, uint64_t word) {
  std::atomic_ref(*slot).store(word, std::memory_order_release);
}

}  // namespace

uint32_t memdb_slots_for(uint64_t texts) {
  return static_cast<uint32_t>(
      std::max<uint64_t>(std::bit_ceil(texts + texts * 3 / 8 + 2), LEAST_SLOTS));
}

memdb_slots *memdb_make_slots(uint32_t count) {
  auto *const table = static_cast<memdb_slots *>(
      memdb_calloc_extra(sizeof(memdb_slots) + size_t{count} * sizeof(uint64_t)));
  if (table != nullptr) table->mask = count - 1;
  return table;
}

memdb_row *memdb_slots_find(const memdb_slots *table, const memdb_col *col, uint64_t hash,
                            const char *text) {
  uint64_t *const slots = memdb_slots_of(table);
  for (uint64_t at = hash & table->mask;; at = (at + 1) & table->mask) {
    const uint64_t slot = std::atomic_ref(slots[at]).load(std::memory_order_acquire);
    if (slot == MEMDB_SLOT_FREE) return nullptr;
    if (!may_be(slot, hash)) continue;
    memdb_row *const row = memdb_row_of_slot(slot);
    if (row != nullptr && strcmp(text, memdb_text_of(row, col)) == 0) return row;
  }
}

memdb_slot_place memdb_slots_look(memdb_slots *table, const memdb_col *col, uint64_t hash,
                                  const memdb_row *row) {
  const char *const text = memdb_text_of(row, col);
  uint64_t *const slots = memdb_slots_of(table);
  uint64_t *left = nullptr;
  for (uint64_t at = hash & table->mask;; at = (at + 1) & table->mask) {
    const uint64_t slot = slots[at];
    if (slot == MEMDB_SLOT_FREE) return {left != nullptr ? left : &slots[at], nullptr};
    if (slot == MEMDB_SLOT_LEFT) {
      if (left == nullptr) left = &slots[at];
      continue;
    }
    if (!may_be(slot, hash)) continue;
    memdb_row *const newest = memdb_row_of_slot(slot);
    if (newest == row || strcmp(text, memdb_text_of(newest, col)) == 0) return {&slots[at], newest};
  }
}

bool memdb_slots_crowded(const memdb_slots *table) {
  return uint64_t{table->used} * 4 >= (uint64_t{table->mask} + 1) * 3;
}

bool memdb_slots_full(const memdb_slots *table) {
  return uint64_t{table->used} * 16 >= (uint64_t{table->mask} + 1) * 15;
}

void memdb_slots_put(memdb_slots *table, memdb_slot_place place, uint64_t hash, memdb_row *row) {
  if (place.newest == nullptr) {
    // Counted first: a table of a writer that was killed in between may look fuller than it is,
    // but probes in it end.
    if (*place.slot == MEMDB_SLOT_FREE) table->used++;
    table->texts++;
    std::atomic_signal_fence(std::memory_order_release);
  }
  write_slot(place.slot, memdb_slot_word(hash, row));
}

void memdb_slots_step(memdb_slots *table, uint64_t *slot, memdb_row *older) {
  if (older != nullptr) {
    write_slot(slot, memdb_slot_word(*slot >> MEMDB_ADDRESS_BITS, older));
    return;
  }
  uint64_t *const slots = memdb_slots_of(table);
  const auto at = static_cast<uint64_t>(slot - slots);
  // Counted last, as it was counted first: a directory isn't taken for empty too soon.
  const auto count_it = [table] {
    std::atomic_signal_fence(std::memory_order_release);
    table->texts--;
  };
  if (slots[(at + 1) & table->mask] != MEMDB_SLOT_FREE) {
    write_slot(slot, MEMDB_SLOT_LEFT);
    count_it();
    return;
  }
  // No probe goes on behind this one, and so none behind marked ones ahead of it.
  uint64_t last = at;
  do {
    write_slot(&slots[last], MEMDB_SLOT_FREE);
    std::atomic_signal_fence(std::memory_order_release);
    table->used--;
    last = (last - 1) & table->mask;
  } while (slots[last] == MEMDB_SLOT_LEFT);
  count_it();
}

bool memdb_slots_take_over(memdb_slots *table, uint64_t hash, uint64_t slot) {
  if (memdb_slots_full(table)) return false;
  uint64_t *const slots = memdb_slots_of(table);
  uint64_t at = hash & table->mask;
  while (slots[at] != MEMDB_SLOT_FREE) at = (at + 1) & table->mask;
  slots[at] = slot;
  table->used++;
  table->texts++;
  return true;
}
