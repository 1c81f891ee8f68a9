// The slots of one look-up for prefixes. Serves prefix.cpp.
//
// Open addressing with linear probing (Knuth, "The Art of Computer Programming", volume 3, section
// 6.4, algorithm L). A slot holds a row, the hash of its entry and of the texts that searches give
// beside it, and the row's age, by which rows of one entry are told newest first. Many slots are
// made in parts, chosen by the hash, none of which takes long to be enlarged. Parts, and places in
// them, grow with the hash, so that others are filled from one end to the other.
//
// Readers may be in a part while its writer changes it, and need no end of a change. A slot's row
// is written ahead of its tag, and a reader that finds the tag as it was behind the row has read
// both as they belong together. Of a row that goes, the slot is marked, so that probes go on behind
// it. A part that has been replaced stays as it is.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

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

// The head of a part's block; its slots follow. They don't lie in two cache lines each if the block
// doesn't begin at an odd place.
struct alignas(sizeof(memdb_prefix_slot)) memdb_prefix_part {
  void *given_back;  // left free for whoever keeps the block until no reader can be in it
};

inline memdb_prefix_slot *memdb_prefix_slots_of(const memdb_prefix_part *part) {
  return reinterpret_cast<memdb_prefix_slot *>(const_cast<memdb_prefix_part *>(part + 1));
}

// Address and size of a part in one word, which readers have whole and without a look at the part.
class memdb_prefix_part_word {
 public:
  static constexpr uint32_t UNIT = 16;  // slot counts are multiples of it

  explicit memdb_prefix_part_word(uint64_t word) : word_(word) {}
  memdb_prefix_part_word(const memdb_prefix_part *part, uint32_t slot_cnt)
      : word_(uint64_t{slot_cnt / UNIT} << MEMDB_PREFIX_ADDRESS_BITS |
              reinterpret_cast<uintptr_t>(part)) {}
  uint64_t word() const { return word_; }
  memdb_prefix_part *part() const {
    return reinterpret_cast<memdb_prefix_part *>(word_ &
                                                 ((uint64_t{1} << MEMDB_PREFIX_ADDRESS_BITS) - 1));
  }
  uint32_t slot_cnt() const {
    return static_cast<uint32_t>(word_ >> MEMDB_PREFIX_ADDRESS_BITS) * UNIT;
  }

 private:
  uint64_t word_;
};

// A part's place in the look-up.
struct memdb_prefix_place {
  uint64_t part;  // a memdb_prefix_part_word; at least a quarter of its slots are free
  uint32_t used;  // slots that aren't free
  uint32_t rows;
};

// The head of a look-up; the places of its parts follow. The counts, these and those of the parts,
// are never too low, not even when a writer was killed.
struct alignas(alignof(memdb_prefix_place)) memdb_prefix_slots {
  void *given_back;    // as above
  uint64_t next_age;   // of 48 bits, which last for years at a million insertions a second
  uint32_t part_bits;  // upper bits of a hash that choose the part
  uint32_t longest;    // no entry has more characters
  uint32_t lengths[MEMDB_PREFIX_LONGEST + 2];  // rows by length of their entry; last: longer ones
};

inline std::span<memdb_prefix_place> memdb_prefix_places(const memdb_prefix_slots *table) {
  auto *const behind = const_cast<memdb_prefix_slots *>(table + 1);
  return {reinterpret_cast<memdb_prefix_place *>(behind), size_t{1} << table->part_bits};
}

// The place of the part that a hash goes to, and what is left of the hash then.
inline memdb_prefix_place *memdb_prefix_place_of(const memdb_prefix_slots *table, uint32_t hash) {
  return &memdb_prefix_places(table)[uint64_t{hash} << table->part_bits >> 32];
}
inline uint32_t memdb_prefix_rest_of(const memdb_prefix_slots *table, uint32_t hash) {
  return hash << table->part_bits;
}

// Where the probing for a hash is.
class memdb_prefix_probe {
 public:
  memdb_prefix_probe(memdb_prefix_part_word part, uint32_t rest)
      : slots_(memdb_prefix_slots_of(part.part())),
        slot_cnt_(part.slot_cnt()),
        slot_(static_cast<uint32_t>(uint64_t{rest} * slot_cnt_ >> 32)) {}
  memdb_prefix_probe(const memdb_prefix_slots *table, uint32_t hash)
      : memdb_prefix_probe(
            memdb_prefix_part_word(std::atomic_ref(memdb_prefix_place_of(table, hash)->part)
                                       .load(std::memory_order_acquire)),
            memdb_prefix_rest_of(table, hash)) {}
  memdb_prefix_slot &slot() const { return slots_[slot_]; }
  void fetch() const { __builtin_prefetch(&slot()); }
  void go_on() { slot_ = slot_ + 1 != slot_cnt_ ? slot_ + 1 : 0; }
  void go_back() { slot_ = slot_ != 0 ? slot_ - 1 : slot_cnt_ - 1; }

 private:
  memdb_prefix_slot *slots_;
  uint32_t slot_cnt_;
  uint32_t slot_;
};

// Slots without rows, with room for twice so many. Null if memory is short.
memdb_prefix_slots *memdb_prefix_make_slots(uint32_t rows);

// The same with the rows of others in them.
memdb_prefix_slots *memdb_prefix_copy_slots(const memdb_prefix_slots *table, uint32_t rows);

// Gives all blocks of it back; null is ignored.
void memdb_prefix_give_back(memdb_prefix_slots *table, void (*give_back)(void *block));

// True if slots for so many rows would be in more parts, or in one in place of many.
bool memdb_prefix_wants_more_parts(const memdb_prefix_slots *table, uint32_t rows);
bool memdb_prefix_wants_one_part(const memdb_prefix_slots *table, uint32_t rows);

// True if one more row of this hash needs a larger part, or one without the marks of rows that
// went.
bool memdb_prefix_is_full(const memdb_prefix_slots *table, uint32_t hash);

// True if the part of this hash is much too large for its rows.
bool memdb_prefix_is_wide(const memdb_prefix_slots *table, uint32_t hash);

// Replaces the part of this hash by one that fits its rows and one more. False, with nothing done,
// if memory is short.
bool memdb_prefix_fit_part(memdb_prefix_slots *table, uint32_t hash, void (*give_back)(void *));

// Puts the entry into a slot of a part that isn't full. False if there are already
// MEMDB_PREFIX_MOST_EQUAL rows of its hash.
bool memdb_prefix_put(memdb_prefix_slots *table, const memdb_prefix_entry &entry);

// Takes the row of the entry out of its slot, which hash and length lead to, and sets its age.
// False if it isn't there.
bool memdb_prefix_take(memdb_prefix_slots *table, memdb_prefix_entry *entry);
