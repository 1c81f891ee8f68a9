// The slots of one look-up for prefixes. Serves prefix.cpp.
//
// Open addressing with linear probing (Knuth, "The Art of Computer Programming", volume 3, section
// 6.4, algorithm L). A slot holds a row, the hash of its entry and of the texts that searches give
// beside it, and the row's age, by which rows of one entry are told newest first. Places grow with
// the hash, so that a table of another size is filled from one end to the other.
//
// Readers may be in a table while its writer changes it, and need no end of a change. A slot's row
// is written ahead of its tag, and a reader that finds the tag as it was behind the row has read
// both as they belong together. Of a row that goes, the slot is marked, so that probes go on behind
// it. A table that has been replaced stays as it is.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

#include "memdb/prefix/prefix.h"

inline constexpr uint32_t MEMDB_PREFIX_LONGEST = 64;  // characters of an entry that can be searched

struct memdb_prefix_slot {
  uint64_t tag;  // hash, and below it the lower 32 bits of the age; or one of the two below
  uint64_t row;  // upper 16 bits of the age, and below them the row's address
};

inline constexpr uint64_t MEMDB_PREFIX_FREE = 0;
inline constexpr uint64_t MEMDB_PREFIX_LEFT = 1;  // a row was here

inline constexpr int MEMDB_PREFIX_ADDRESS_BITS = 48;

// Of a slot that holds a row.
inline uint32_t memdb_prefix_hash_of(const memdb_prefix_slot &slot) {
  return static_cast<uint32_t>(slot.tag >> 32);
}
inline uint64_t memdb_prefix_age_of(const memdb_prefix_slot &slot) {
  return slot.row >> MEMDB_PREFIX_ADDRESS_BITS << 32 | (slot.tag & UINT32_MAX);
}
inline memdb_row *memdb_prefix_row_of(const memdb_prefix_slot &slot) {
  return reinterpret_cast<memdb_row *>(slot.row & ((uint64_t{1} << MEMDB_PREFIX_ADDRESS_BITS) - 1));
}

// The head of the block. The counts are never too low, not even when a writer was killed.
struct memdb_prefix_slots {
  void *given_back;   // left free for whoever keeps the block until no reader can be in it
  uint32_t slot_cnt;  // at least a quarter of them free
  uint32_t used;      // slots that aren't free
  uint64_t next_age;  // of 48 bits, which last for years at a million insertions a second
  uint32_t lengths[MEMDB_PREFIX_LONGEST + 2];  // rows by length of their entry; last: longer ones
};
// No slot lies in two cache lines if the block doesn't begin at an odd place.
static_assert(sizeof(memdb_prefix_slots) % sizeof(memdb_prefix_slot) == 0);

inline memdb_prefix_slot *memdb_prefix_slots_of(const memdb_prefix_slots *table) {
  return reinterpret_cast<memdb_prefix_slot *>(const_cast<memdb_prefix_slots *>(table + 1));
}

// Where the probing for a hash begins; sending for that slot; and the slot behind one.
inline uint32_t memdb_prefix_home(const memdb_prefix_slots *table, uint32_t hash) {
  return static_cast<uint32_t>(uint64_t{hash} * table->slot_cnt >> 32);
}
inline void memdb_prefix_fetch(const memdb_prefix_slots *table, uint32_t hash) {
  __builtin_prefetch(&memdb_prefix_slots_of(table)[memdb_prefix_home(table, hash)]);
}
inline uint32_t memdb_prefix_next(const memdb_prefix_slots *table, uint32_t slot) {
  return slot + 1 != table->slot_cnt ? slot + 1 : 0;
}

// Hashing: the given texts first, then the entry character by character, so that one pass over a
// key gives the hash of each of its beginnings.

inline constexpr uint64_t MEMDB_PREFIX_HASH_BEGIN = 0x9E3779B97F4A7C15;

// Multiplies in as Fowler, Noll and Vo's hash FNV-1a does.
inline uint64_t memdb_prefix_hash_word(uint64_t hash, uint64_t word) {
  return (hash ^ word) * 0xD6E8FEB86659FD93;
}

inline uint64_t memdb_prefix_hash_char(uint64_t hash, char c) {
  return memdb_prefix_hash_word(hash, static_cast<unsigned char>(c));
}

inline uint64_t memdb_prefix_hash_text(uint64_t hash, const char *text) {
  size_t left = strlen(text);
  hash = memdb_prefix_hash_word(hash, left);
  for (;; text += sizeof(uint64_t), left -= sizeof(uint64_t)) {
    uint64_t word = 0;
    if (left <= sizeof(word)) {
      memcpy(&word, text, left);
      hash = memdb_prefix_hash_word(hash, word);
      return hash ^ hash >> 32;
    }
    memcpy(&word, text, sizeof(word));
    hash = memdb_prefix_hash_word(hash, word);
    hash ^= hash >> 32;
  }
}

// The slots' part of it, never 0 (the last steps of Steele's SplitMix64, "Fast Splittable
// Pseudorandom Number Generators", 2014).
inline uint32_t memdb_prefix_hash_end(uint64_t hash) {
  hash = (hash ^ hash >> 30) * 0xBF58476D1CE4E5B9;
  hash = (hash ^ hash >> 27) * 0x94D049BB133111EB;
  const auto end = static_cast<uint32_t>(hash >> 32);
  return end != 0 ? end : 1;
}

// The hash of texts in the columns of the bits in given; text_of(column) gives each.
template <typename TextOf>
uint64_t memdb_prefix_hash_given(uint32_t given, TextOf text_of) {
  uint64_t hash = MEMDB_PREFIX_HASH_BEGIN;
  for (; given != 0; given &= given - 1)
    hash = memdb_prefix_hash_text(hash, text_of(static_cast<uint32_t>(std::countr_zero(given))));
  return hash;
}

// A block without rows, with room for twice so many. Null if memory is short.
memdb_prefix_slots *memdb_prefix_make_slots(uint32_t rows);

// The same with the rows of a table in it.
memdb_prefix_slots *memdb_prefix_copy_slots(const memdb_prefix_slots *table, uint32_t rows);

// True if one more row needs a larger block, or one without the marks of rows that went.
bool memdb_prefix_is_full(const memdb_prefix_slots *table);

// True if the block is much too large for so many rows.
bool memdb_prefix_is_wide(const memdb_prefix_slots *table, uint32_t rows);

// Puts the entry into a slot of a table that isn't full. False if there are already
// MEMDB_PREFIX_MOST_EQUAL rows of its hash.
bool memdb_prefix_put(memdb_prefix_slots *table, const memdb_prefix_entry &entry);

// Takes the row of the entry out of its slot, which hash and length lead to, and sets its age.
// False if it isn't there.
bool memdb_prefix_take(memdb_prefix_slots *table, memdb_prefix_entry *entry);
