// Making directories, and replacing them by larger and smaller ones.
#include "memdb/index/directory_blocks.h"

#include <atomic>

#include "memdb/layout/hooks.h"

namespace {

// A row's text is far away, and is asked for so many slots ahead.
constexpr uint64_t AHEAD = 8;

void *word_of(memdb_slots *table) { return reinterpret_cast<char *>(table) + 1; }
void *word_of(memdb_parts *parts) { return reinterpret_cast<char *>(parts) + 2; }

memdb_parts *new_parts(uint64_t texts) {
  auto *const parts = static_cast<memdb_parts *>(memdb_calloc_extra(sizeof(memdb_parts)));
  if (parts == nullptr) return nullptr;
  parts->whole = 1;
  for (memdb_slots *&part : parts->parts) {
    part = memdb_make_slots(memdb_slots_for(texts / MEMDB_PARTS));
    if (part != nullptr) continue;
    memdb_directory_give_back(memdb_bucket_kind(word_of(parts)), memdb_free);
    return nullptr;
  }
  return parts;
}

bool take_over(memdb_bucket_kind fresh, uint64_t hash, uint64_t slot) {
  if (memdb_parts *const parts = fresh.parts()) {
    parts->texts++;
    return memdb_slots_take_over(parts->parts[memdb_part_of(hash)], hash, slot);
  }
  memdb_slots *const table = fresh.table();
  return table != nullptr && memdb_slots_take_over(table, hash, slot);
}

// Puts the texts of a table into a fresh directory.
bool take_all_over(memdb_bucket_kind fresh, const memdb_slots *from, const memdb_col *col) {
  const uint64_t *const slots = memdb_slots_of(from);
  const memdb_slots *const table = fresh.table();
  const bool rows_are_needed = table == nullptr || table->mask > MEMDB_HASH_IN_SLOT;
  for (uint64_t i = 0; i <= from->mask; i++) {
    if (rows_are_needed) {
      const memdb_row *const later = memdb_row_of_slot(slots[(i + AHEAD) & from->mask]);
      if (later != nullptr) __builtin_prefetch(memdb_text_of(later, col));
    }
    const memdb_row *const newest = memdb_row_of_slot(slots[i]);
    if (newest == nullptr) continue;
    const uint64_t hash = rows_are_needed ? memdb_slot_hash(col, memdb_text_of(newest, col))
                                          : slots[i] >> MEMDB_ADDRESS_BITS;
    if (!take_over(fresh, hash, slots[i])) return false;
  }
  return true;
}

}  // namespace

memdb_directory_rules memdb_directories;

void *memdb_new_directory(uint64_t texts) {
  const uint32_t count = memdb_slots_for(texts);
  if (count > memdb_directories.slots_in_one) {
    memdb_parts *const parts = new_parts(texts);
    return parts != nullptr ? word_of(parts) : nullptr;
  }
  memdb_slots *const table = memdb_make_slots(count);
  if (table == nullptr) return nullptr;
  table->whole = 1;
  return word_of(table);
}

bool memdb_fill_directory(memdb_bucket_kind fresh, memdb_row *newest, memdb_col *col) {
  const uint64_t hash = memdb_slot_hash(col, memdb_text_of(newest, col));
  return take_over(fresh, hash, memdb_slot_word(hash, newest));
}

void memdb_directory_is_whole(memdb_bucket_kind kind, bool whole) {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (memdb_slots *const table = kind.table())
    table->whole = whole;
  else if (memdb_parts *const parts = kind.parts())
    parts->whole = whole;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void memdb_publish(memdb_row **bucket, void *word) {
  std::atomic_ref(*bucket).store(static_cast<memdb_row *>(word), std::memory_order_release);
}

bool memdb_replace_directory(memdb_row **bucket, memdb_col *col, uint64_t texts) {
  void *const word = memdb_new_directory(texts);
  if (word == nullptr) return false;
  const memdb_bucket_kind fresh(word);
  const memdb_bucket_kind former(*bucket);
  bool complete = true;
  memdb_each_table(former, [&](const memdb_slots *table) {
    complete = complete && take_all_over(fresh, table, col);
  });
  if (!complete) {
    memdb_directory_give_back(fresh, memdb_free);
    return false;
  }
  memdb_publish(bucket, word);
  memdb_directory_give_back(former, memdb_retire);
  return true;
}

bool memdb_replace_part(memdb_slots **part, memdb_col *col, uint64_t texts) {
  memdb_slots *const fresh = memdb_make_slots(memdb_slots_for(texts));
  if (fresh == nullptr) return false;
  memdb_slots *const former = *part;
  if (!take_all_over(memdb_bucket_kind(word_of(fresh)), former, col)) {
    memdb_free(fresh);
    return false;
  }
  std::atomic_ref(*part).store(fresh, std::memory_order_release);
  memdb_retire(former);
  return true;
}

void memdb_directory_give_back(memdb_bucket_kind kind, void (*give_back)(void *block)) {
  memdb_each_table(kind, give_back);
  if (memdb_parts *const parts = kind.parts()) give_back(parts);
}

void *memdb_directory_add_to(memdb_bucket_kind kind, void *blocks) {
  const auto add = [&blocks](auto *block) {
    block->given_back = blocks;
    blocks = block;
  };
  memdb_each_table(kind, add);
  if (memdb_parts *const parts = kind.parts()) add(parts);
  return blocks;
}
