// Making, filling and emptying slots.
#include "memdb/prefix/slots.h"

#include <algorithm>
#include <cstdint>

#include "memdb/layout/hooks.h"

namespace {

constexpr uint32_t FEWEST_SLOTS = 64;
// So that the size of a part fits its word.
constexpr uint32_t MOST_SLOTS = UINT16_MAX * memdb_prefix_part_word::UNIT;

memdb_prefix_slot slot_of(const memdb_prefix_entry &entry) {
  return {uint64_t{entry.hash} << 32 | (entry.age & UINT32_MAX),
          (entry.age >> 32) << MEMDB_PREFIX_ADDRESS_BITS | reinterpret_cast<uintptr_t>(entry.row)};
}

// Of a part; too many if they can't be had.
uint32_t slots_for(uint32_t rows) {
  const uint32_t wanted = std::max(2 * std::min(rows, MOST_SLOTS), FEWEST_SLOTS);
  return (wanted + memdb_prefix_part_word::UNIT - 1) & ~(memdb_prefix_part_word::UNIT - 1);
}

uint32_t part_bits_for(uint32_t rows) {
  return slots_for(rows) > memdb_prefixes.slots_in_one ? memdb_prefixes.part_bits : 0;
}

// Sets a part without rows, with room for twice so many. False if there is none.
bool make_part(memdb_prefix_place *place, uint32_t rows) {
  const uint32_t slot_cnt = slots_for(rows);
  if (slot_cnt > MOST_SLOTS) return false;
  const auto *const part = static_cast<memdb_prefix_part *>(
      memdb_calloc_extra(sizeof(memdb_prefix_part) + size_t{slot_cnt} * sizeof(memdb_prefix_slot)));
  if (part == nullptr) return false;
  *place = {memdb_prefix_part_word(part, slot_cnt).word(), 0, 0};
  return true;
}

memdb_prefix_part_word part_of(const memdb_prefix_place &place) {
  return memdb_prefix_part_word(place.part);
}

// A row's length is counted for as long as readers may meet it.
void count_length(memdb_prefix_slots *table, uint32_t length, bool comes) {
  length = std::min(length, MEMDB_PREFIX_LONGEST + 1);
  if (length > table->longest)
    std::atomic_ref(table->longest).store(length, std::memory_order_relaxed);
  const std::atomic_ref count(table->lengths[length]);
  const uint32_t before = count.load(std::memory_order_relaxed);
  count.store(comes ? before + 1 : before - 1, std::memory_order_release);
}

// Puts a slot that holds a row into a part that isn't full and that readers don't meet yet.
void add(memdb_prefix_place *place, uint32_t rest, const memdb_prefix_slot &slot) {
  memdb_prefix_probe probe(part_of(*place), rest);
  while (probe.slot().tag != MEMDB_PREFIX_FREE) probe.go_on();
  probe.slot() = slot;
  place->used++;
  place->rows++;
}

// Calls visit for each slot of a part that holds a row, until it gives false.
template <typename Visit>
bool each_row(memdb_prefix_part_word part, Visit visit) {
  const memdb_prefix_slot *const slots = memdb_prefix_slots_of(part.part());
  for (uint32_t i = 0; i < part.slot_cnt(); i++)
    if (slots[i].tag > MEMDB_PREFIX_LEFT && !visit(slots[i])) return false;
  return true;
}

// Frees a marked slot that no probe goes on behind, and those ahead of it of which that is true
// then.
void free_end_of_run(memdb_prefix_place *place, memdb_prefix_probe probe) {
  probe.go_on();
  if (probe.slot().tag != MEMDB_PREFIX_FREE) return;
  for (probe.go_back(); probe.slot().tag == MEMDB_PREFIX_LEFT; probe.go_back()) {
    std::atomic_ref(probe.slot().tag).store(MEMDB_PREFIX_FREE, std::memory_order_release);
    place->used--;
  }
}

}  // namespace

memdb_prefix_rules memdb_prefixes;

memdb_prefix_slots *memdb_prefix_make_slots(uint32_t rows) {
  const uint32_t part_bits = part_bits_for(rows);
  auto *const table = static_cast<memdb_prefix_slots *>(
      memdb_calloc_extra(sizeof(memdb_prefix_slots) + (sizeof(memdb_prefix_place) << part_bits)));
  if (table == nullptr) return nullptr;
  table->part_bits = part_bits;
  for (memdb_prefix_place &place : memdb_prefix_places(table)) {
    if (make_part(&place, rows >> part_bits)) continue;
    memdb_prefix_give_back(table, memdb_free);
    return nullptr;
  }
  return table;
}

memdb_prefix_slots *memdb_prefix_copy_slots(const memdb_prefix_slots *table, uint32_t rows) {
  memdb_prefix_slots *const copy = memdb_prefix_make_slots(rows);
  if (copy == nullptr) return nullptr;
  copy->next_age = table->next_age;
  copy->longest = table->longest;
  std::copy(std::begin(table->lengths), std::end(table->lengths), std::begin(copy->lengths));
  const auto take_over = [copy](const memdb_prefix_slot &slot) {
    const uint32_t hash = memdb_prefix_hash_of(slot);
    if (memdb_prefix_is_full(copy, hash) && !memdb_prefix_fit_part(copy, hash, memdb_free))
      return false;
    add(memdb_prefix_place_of(copy, hash), memdb_prefix_rest_of(copy, hash), slot);
    return true;
  };
  for (const memdb_prefix_place &place : memdb_prefix_places(table)) {
    if (each_row(part_of(place), take_over)) continue;
    memdb_prefix_give_back(copy, memdb_free);
    return nullptr;
  }
  return copy;
}

void memdb_prefix_give_back(memdb_prefix_slots *table, void (*give_back)(void *block)) {
  if (table == nullptr) return;
  for (const memdb_prefix_place &place : memdb_prefix_places(table))
    if (memdb_prefix_part *const part = part_of(place).part()) give_back(part);
  give_back(table);
}

bool memdb_prefix_wants_more_parts(const memdb_prefix_slots *table, uint32_t rows) {
  return part_bits_for(rows) > table->part_bits;
}

bool memdb_prefix_wants_one_part(const memdb_prefix_slots *table, uint32_t rows) {
  return table->part_bits != 0 && uint64_t{rows} * 4 < memdb_prefixes.slots_in_one;
}

bool memdb_prefix_is_full(const memdb_prefix_slots *table, uint32_t hash) {
  const memdb_prefix_place &place = *memdb_prefix_place_of(table, hash);
  return (uint64_t{place.used} + 1) * 4 > uint64_t{part_of(place).slot_cnt()} * 3;
}

bool memdb_prefix_is_wide(const memdb_prefix_slots *table, uint32_t hash) {
  const memdb_prefix_place &place = *memdb_prefix_place_of(table, hash);
  const uint64_t slot_cnt = part_of(place).slot_cnt();
  return slot_cnt > FEWEST_SLOTS && uint64_t{place.rows} * 8 < slot_cnt * 3;
}

bool memdb_prefix_fit_part(memdb_prefix_slots *table, uint32_t hash, void (*give_back)(void *)) {
  memdb_prefix_place *const place = memdb_prefix_place_of(table, hash);
  const memdb_prefix_part_word former = part_of(*place);
  memdb_prefix_place fresh;
  if (!make_part(&fresh, place->rows + 1)) return false;
  each_row(former, [table, &fresh](const memdb_prefix_slot &slot) {
    add(&fresh, memdb_prefix_rest_of(table, memdb_prefix_hash_of(slot)), slot);
    return true;
  });
  std::atomic_ref(place->part).store(fresh.part, std::memory_order_release);
  place->used = fresh.used;
  place->rows = fresh.rows;
  give_back(former.part());
  return true;
}

bool memdb_prefix_put(memdb_prefix_slots *table, const memdb_prefix_entry &entry) {
  memdb_prefix_place *const place = memdb_prefix_place_of(table, entry.hash);
  memdb_prefix_probe probe(table, entry.hash);
  memdb_prefix_slot *left = nullptr;
  size_t equal = 0;
  for (; probe.slot().tag != MEMDB_PREFIX_FREE; probe.go_on()) {
    if (probe.slot().tag == MEMDB_PREFIX_LEFT) {
      if (left == nullptr) left = &probe.slot();
    } else if (memdb_prefix_hash_of(probe.slot()) == entry.hash) {
      equal++;
    }
  }
  if (equal >= MEMDB_PREFIX_MOST_EQUAL) return false;
  if (left == nullptr) place->used++;
  place->rows++;
  count_length(table, entry.length, true);
  memdb_prefix_slot &slot = left != nullptr ? *left : probe.slot();
  const memdb_prefix_slot filled = slot_of(entry);
  // A reader that meets the row here finds no tag of a row that was here before.
  std::atomic_thread_fence(std::memory_order_release);
  std::atomic_ref(slot.row).store(filled.row, std::memory_order_relaxed);
  std::atomic_ref(slot.tag).store(filled.tag, std::memory_order_release);
  return true;
}

bool memdb_prefix_take(memdb_prefix_slots *table, memdb_prefix_entry *entry) {
  memdb_prefix_place *const place = memdb_prefix_place_of(table, entry->hash);
  memdb_prefix_probe probe(table, entry->hash);
  for (; probe.slot().tag != MEMDB_PREFIX_FREE; probe.go_on()) {
    memdb_prefix_slot &slot = probe.slot();
    if (memdb_prefix_hash_of(slot) != entry->hash || memdb_prefix_row_of(slot) != entry->row)
      continue;
    entry->age = memdb_prefix_age_of(slot);
    std::atomic_ref(slot.tag).store(MEMDB_PREFIX_LEFT, std::memory_order_release);
    count_length(table, entry->length, false);
    place->rows--;
    free_end_of_run(place, probe);
    return true;
  }
  return false;
}
