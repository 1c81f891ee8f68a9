// The directory of a bucket: what takes the place of its chain where that has grown long. Serves
// the index.
//
// A chain's order matters as long as texts were overwritten in it: then searches and deletions meet
// what the order makes them meet. In a chain that is sorted by the texts as they are now, all of
// this bucket, they meet the rows of one text, newest first, and nothing else depends on the order.
// Such a chain can become a directory: a hash table of the distinct texts, of which each leads to
// its newest row, and the rows' own links lead on through the rows of that text alone. Ahead of an
// overwrite of one of its texts, and when memory for a larger table is short, a directory becomes
// the sorted chain again that it stands for, so that all results are those of the chain.
//
// A bucket's word tells what it leads to, by its two lowest bits:
//
//   0   a chain: the address of its first row, or null
//   1   a table of slots
//   2   MEMDB_PARTS tables, chosen by the hash, where one would be so large that it couldn't be
//       enlarged in a short time
//
// Whoever searches beside the writer may miss a row in one case: on a chain while it becomes a
// directory. col->conversions is counted then, behind the word and ahead of the links, so that a
// search that has missed knows whether to look again.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "memdb/index/slots.h"

inline constexpr uint32_t MEMDB_PARTS = 256;

struct memdb_parts {
  void *given_back;  // as in memdb_slots
  uint64_t texts;    // of all parts; never too few
  uint64_t whole;    // see directory.cpp
  memdb_slots *parts[MEMDB_PARTS];
};

// From when on directories are made, and how. To be changed by tests only, for small ones.
struct memdb_directory_rules {
  uint32_t plain_rows = 1000;       // columns of up to so many rows have chains alone
  uint32_t plain_chain = 12;        // and so have chains of up to so many rows
  uint32_t slots_in_one = 1 << 15;  // a larger table is made in parts
};
extern memdb_directory_rules memdb_directories;

// What a bucket's word leads to.
class memdb_bucket_kind {
 public:
  explicit memdb_bucket_kind(const void *word) : word_(reinterpret_cast<uintptr_t>(word)) {}
  bool is_chain() const { return (word_ & 3) == 0; }
  // Null if it is another kind.
  memdb_slots *table() const {
    return (word_ & 3) == 1 ? reinterpret_cast<memdb_slots *>(word_ - 1) : nullptr;
  }
  memdb_parts *parts() const {
    return (word_ & 3) == 2 ? reinterpret_cast<memdb_parts *>(word_ - 2) : nullptr;
  }

 private:
  uintptr_t word_;
};

// The newest row of the text in the directory that the word leads to, or null. For searches, whose
// caller may hold no lock.
memdb_row *memdb_directory_find(memdb_bucket_kind kind, const memdb_col *col, const char *text);

// Sends for the slot of the text in the directory that the word leads to.
void memdb_directory_fetch(memdb_bucket_kind kind, const memdb_col *col, const char *text);

// The rest is for the writer, who holds the table's lock. bucket is one of col's, and leads to a
// directory if nothing else is said.

// Puts a row ahead of the others of its text. False, with nothing done, if there is no room and no
// memory for more: the bucket is to be dissolved then.
bool memdb_directory_insert(memdb_row **bucket, memdb_row *row, memdb_col *col);

// Takes a row out. False if it isn't in it. With its last row the directory goes.
bool memdb_directory_delete(memdb_row **bucket, memdb_row *row, memdb_col *col);

// True if the row is in it.
bool memdb_directory_has(memdb_row **bucket, const memdb_row *row, memdb_col *col);

// Makes a directory of a bucket's chain. If texts were overwritten so that it stays a chain, or
// memory is short, nothing is done but that col->made_not_before tells for how many inserts not to
// try again.
void memdb_directory_make(memdb_row **bucket, memdb_col *col);

// Makes the chain of it that it stands for. Needs no memory, but takes ten times as long without
// 16 bytes a text meanwhile.
void memdb_directory_dissolve(memdb_row **bucket, memdb_col *col);

// Gives the blocks of a directory back that no word leads to any more; chains are left alone.
void memdb_directory_give_back(memdb_bucket_kind kind, void (*give_back)(void *block));

// Puts them ahead of a list of such blocks instead, linked by their first 8 bytes, which no reader
// needs; gives the new head.
void *memdb_directory_add_to(memdb_bucket_kind kind, void *blocks);
