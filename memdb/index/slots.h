// A table of slots: the distinct texts of a column that a directory holds, or of one part of it, by
// their hash. Serves the directory.
//
// Open addressing with linear probing (Knuth, "The Art of Computer Programming", volume 3, section
// 6.4, algorithm L). A slot is one word: the address of the newest row of its text, 48 bits, and
// above them 16 bits of the text's hash, whose lower end is also where the probing begins. So up to
// 2^16 slots a larger table is filled from the words alone, without a look at any row.
//
// A slot is written as a whole, when what it leads to is complete. One whose text has gone is
// marked, so that probes go on behind it. So a reader beside the writer finds each text that was
// there all the while, in this table or, once another has taken its place, in that.
#pragma once

#include <atomic>
#include <cstdint>

#include "memdb/index/link.h"
#include "memdb/index/text_hash.h"

// The head of the block; the slots follow.
struct memdb_slots {
  void *given_back;  // left free for whoever keeps the block until no reader can be in it
  uint32_t mask;     // number of slots, a power of two, less one
  uint32_t used;     // slots that aren't free, marked ones included; never too few
  uint32_t texts;    // slots that lead to rows
  uint32_t whole;    // see directory.cpp
};

// What a slot holds that leads to no row.
inline constexpr uint64_t MEMDB_SLOT_FREE = 0;
inline constexpr uint64_t MEMDB_SLOT_LEFT = 1;

inline constexpr int MEMDB_ADDRESS_BITS = 48;
inline constexpr uint32_t MEMDB_HASH_IN_SLOT = 0xFFFF;

inline uint64_t *memdb_slots_of(const memdb_slots *table) {
  return reinterpret_cast<uint64_t *>(const_cast<memdb_slots *>(table + 1));
}

// The row of a slot's word, or null.
inline memdb_row *memdb_row_of_slot(uint64_t slot) {
  const uint64_t address = slot & ((uint64_t{1} << MEMDB_ADDRESS_BITS) - 1);
  return address > MEMDB_SLOT_LEFT ? reinterpret_cast<memdb_row *>(address) : nullptr;
}

// The word of a slot that leads to the row.
inline uint64_t memdb_slot_word(uint64_t hash, memdb_row *row) {
  return hash << MEMDB_ADDRESS_BITS | reinterpret_cast<uintptr_t>(row);
}

// The hash of a text of the column. Columns differ in it, so that texts made to collide in one
// don't in another.
inline uint64_t memdb_slot_hash(const memdb_col *col, const char *text) {
  return memdb_text_hash(text, strlen(text), reinterpret_cast<uintptr_t>(col->idx));
}

// A place for a text: the slot that leads to its rows and the newest of them, or, with no row, the
// slot that would take it.
struct memdb_slot_place {
  uint64_t *slot;
  memdb_row *newest;
};

// Slots for a table of so many texts, such that some more go in before it is crowded. Fewer than
// three slots a text, beyond the least table.
uint32_t memdb_slots_for(uint64_t texts);

// A table of so many slots, a power of two, without texts; null if memory is short.
memdb_slots *memdb_make_slots(uint32_t count);

// The newest row of the text, or null. For searches, whose caller may hold no lock.
memdb_row *memdb_slots_find(const memdb_slots *table, const memdb_col *col, uint64_t hash,
                            const char *text);

// The rest is for the writer, who holds the table's lock.

// The place of a row's text, whose hash that is.
memdb_slot_place memdb_slots_look(memdb_slots *table, const memdb_col *col, uint64_t hash,
                                  const memdb_row *row);

// True if a text more makes the table crowded: probes get long, and it had better be larger.
bool memdb_slots_crowded(const memdb_slots *table);

// True if no text may go in any more.
bool memdb_slots_full(const memdb_slots *table);

// Puts a row in front of its text's others. place is what memdb_slots_look gave, the row's own link
// has been written. A table that is full takes no text that it doesn't hold.
void memdb_slots_put(memdb_slots *table, memdb_slot_place place, uint64_t hash, memdb_row *row);

// Lets the slot of a text lead to the next older row, or to none.
void memdb_slots_step(memdb_slots *table, uint64_t *slot, memdb_row *older);

// Puts the word of another table's slot into this one, in which its text isn't yet and which isn't
// met by readers yet. hash needs only the bits that a slot has where the table has no more slots
// than they tell apart. False if there is no room.
bool memdb_slots_take_over(memdb_slots *table, uint64_t hash, uint64_t slot);
