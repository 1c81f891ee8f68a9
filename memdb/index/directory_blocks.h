// The blocks of directories: making, filling, replacing and giving back. Serves the directory.
#pragma once

#include "memdb/index/directory.h"

// Which of the parts a text goes to, by bits that neither slot nor probing use.
inline uint32_t memdb_part_of(uint64_t hash) { return static_cast<uint32_t>(hash >> 56); }

// A directory without texts, with room for so many, as the word of a bucket; null if memory is
// short. Nothing leads to it yet.
void *memdb_new_directory(uint64_t texts);

// Puts a text with its rows into such a directory. False if there is no room.
bool memdb_fill_directory(memdb_bucket_kind fresh, memdb_row *newest, memdb_col *col);

// In directory_chain.cpp. Ends what a writer began that was killed while the links between
// texts were being cut or made, so that each text's last row leads nowhere again.
void memdb_make_whole(memdb_bucket_kind kind, memdb_col *col);

// Marks such a directory as one whose texts' last rows lead nowhere.
void memdb_directory_is_whole(memdb_bucket_kind kind, bool whole);

// Lets the bucket lead to another directory, chain or null, and readers find that.
void memdb_publish(memdb_row **bucket, void *word);

// Replaces the directory of a bucket, or the part of it that a hash goes to, by one with the same
// texts and room for so many in all. False, with nothing done, if memory is short.
bool memdb_replace_directory(memdb_row **bucket, memdb_col *col, uint64_t texts);
bool memdb_replace_part(memdb_slots **part, memdb_col *col, uint64_t texts);

// Calls visit for each table of the directory.
template <typename Visit>
void memdb_each_table(memdb_bucket_kind kind, Visit visit) {
  if (memdb_slots *const table = kind.table()) visit(table);
  if (memdb_parts *const parts = kind.parts())
    for (memdb_slots *const part : parts->parts)
      if (part != nullptr) visit(part);
}

// Calls visit for the newest row of each text that a table leads to.
template <typename Visit>
void memdb_each_text(const memdb_slots *table, Visit visit) {
  const uint64_t *const slots = memdb_slots_of(table);
  for (uint64_t i = 0; i <= table->mask; i++)
    if (memdb_row *const newest = memdb_row_of_slot(slots[i])) visit(newest);
}
