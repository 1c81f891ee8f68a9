// Finding texts in directories, and rows that come and go.
#include "memdb/index/directory.h"

#include <atomic>

#include "memdb/index/directory_blocks.h"
#include "memdb/layout/hooks.h"

namespace {

// The table that a hash goes to, and where that is replaced.
struct table_place {
  memdb_slots *table;
  memdb_slots **part;  // null for a directory of one table
};

table_place place_of(memdb_bucket_kind kind, uint64_t hash) {
  if (memdb_slots *const table = kind.table()) return {table, nullptr};
  memdb_slots **const part = &kind.parts()->parts[memdb_part_of(hash)];
  return {std::atomic_ref(*part).load(std::memory_order_acquire), part};
}

// Where memory was short, the next few texts do without another try.
bool is_worth_a_try(const memdb_slots *table) {
  return table->used % ((table->mask + 1) / 16) == 0;
}

// For a table that is crowded.
bool enlarge(memdb_row **bucket, table_place place, memdb_col *col) {
  if (!is_worth_a_try(place.table)) return false;
  const uint64_t texts = uint64_t{place.table->texts} + 1;
  return place.part != nullptr ? memdb_replace_part(place.part, col, texts)
                               : memdb_replace_directory(bucket, col, texts);
}

// A table of which this small a share leads to rows is replaced. Where memory was short, it is
// tried again when some more texts have gone.
bool is_sparse(uint64_t texts, uint64_t slots) {
  return texts * 4 <= slots && texts % (slots / 32) == 0;
}

// What a text leaves behind that has gone from the table at place.
void text_has_gone(memdb_row **bucket, table_place place, memdb_col *col) {
  const memdb_bucket_kind kind(*bucket);
  const memdb_slots *const table = place.table;
  memdb_parts *const parts = kind.parts();
  const uint64_t texts = parts != nullptr ? --parts->texts : table->texts;
  if (texts == 0) {
    memdb_publish(bucket, nullptr);
    memdb_directory_give_back(kind, memdb_retire);
  } else if (parts != nullptr && is_sparse(texts, memdb_directories.slots_in_one)) {
    memdb_replace_directory(bucket, col, texts);
  } else if (is_sparse(table->texts, uint64_t{table->mask} + 1) &&
             memdb_slots_for(table->texts) <= table->mask) {
    if (place.part != nullptr)
      memdb_replace_part(place.part, col, table->texts);
    else
      memdb_replace_directory(bucket, col, texts);
  }
}

}  // namespace

memdb_row *memdb_directory_find(memdb_bucket_kind kind, const memdb_col *col, const char *text) {
  const uint64_t hash = memdb_slot_hash(col, text);
  return memdb_slots_find(place_of(kind, hash).table, col, hash, text);
}

void memdb_directory_fetch(memdb_bucket_kind kind, const memdb_col *col, const char *text) {
  const uint64_t hash = memdb_slot_hash(col, text);
  const memdb_slots *const table = place_of(kind, hash).table;
  __builtin_prefetch(&memdb_slots_of(table)[hash & table->mask]);
}

bool memdb_directory_insert(memdb_row **bucket, memdb_row *row, memdb_col *col) {
  memdb_make_whole(memdb_bucket_kind(*bucket), col);
  const uint64_t hash = memdb_slot_hash(col, memdb_text_of(row, col));
  table_place place = place_of(memdb_bucket_kind(*bucket), hash);
  memdb_slot_place slot = memdb_slots_look(place.table, col, hash, row);
  if (slot.newest == nullptr && memdb_slots_crowded(place.table)) {
    if (enlarge(bucket, place, col)) {
      place = place_of(memdb_bucket_kind(*bucket), hash);
      slot = memdb_slots_look(place.table, col, hash, row);
    } else if (*slot.slot == MEMDB_SLOT_FREE && memdb_slots_full(place.table)) {
      return false;
    }
  }
  memdb_write_link(memdb_link_of(row, col), slot.newest);
  memdb_parts *const parts = memdb_bucket_kind(*bucket).parts();
  if (slot.newest == nullptr && parts != nullptr) parts->texts++;
  memdb_slots_put(place.table, slot, hash, row);
  return true;
}

bool memdb_directory_delete(memdb_row **bucket, memdb_row *row, memdb_col *col) {
  const memdb_bucket_kind kind(*bucket);
  memdb_make_whole(kind, col);
  const uint64_t hash = memdb_slot_hash(col, memdb_text_of(row, col));
  const table_place place = place_of(kind, hash);
  const memdb_slot_place slot = memdb_slots_look(place.table, col, hash, row);
  memdb_row *const older = memdb_read_link(memdb_link_of(row, col));
  if (slot.newest == row) {
    memdb_slots_step(place.table, slot.slot, older);
    if (older == nullptr) text_has_gone(bucket, place, col);
    return true;
  }
  for (memdb_row *at = slot.newest; at != nullptr;) {
    char *const link = memdb_link_of(at, col);
    at = memdb_read_link(link);
    if (at != row) continue;
    memdb_write_link_beside_readers(link, older, col);
    return true;
  }
  return false;
}

bool memdb_directory_has(memdb_row **bucket, const memdb_row *row, memdb_col *col) {
  const memdb_bucket_kind kind(*bucket);
  memdb_make_whole(kind, col);
  const uint64_t hash = memdb_slot_hash(col, memdb_text_of(row, col));
  const memdb_row *at = memdb_slots_look(place_of(kind, hash).table, col, hash, row).newest;
  while (at != nullptr && at != row) at = memdb_read_link(memdb_link_of(at, col));
  return at != nullptr;
}
