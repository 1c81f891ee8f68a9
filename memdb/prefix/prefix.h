// Look-ups for the longest entry of a column that begins a key, so that such a search needn't visit
// every row.
//
// A look-up belongs to one form of searches: the column of the entries, and the columns that
// searches give beside it, by which they filter. The embedder names the forms that it will use. The
// engine makes the look-up of each once a table is large, keeps it in step with the rows, and does
// without, silently, where memory is short or where a walk of the rows could tell anything else:
//
//   - rows in a chain whose texts were overwritten no longer stand newest first;
//   - a walk ends once it has met more than MEMDB_PREFIX_MOST_EQUAL rows of the best entry, even
//     with a longer one ahead.
//
// It comes back when the table has been emptied or has become small. A look-up is a table of
// slots, one per row, in blocks of its own, see slots.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "memdb/layout/layout.h"

// From when on look-ups are made, and how. To be changed by tests only.
struct memdb_prefix_rules {
  uint32_t rows = 64;               // of larger tables; a look-up goes when half of them are left
  uint32_t slots_in_one = 1 << 15;  // more are made in parts
  uint32_t part_bits = 8;           // 2 to the power of this is their number
};
extern memdb_prefix_rules memdb_prefixes;

// Most rows that a look-up holds of one entry, with equal texts in all columns that are given.
inline constexpr size_t MEMDB_PREFIX_MOST_EQUAL = 511;

// Most columns of a table that has look-ups.
inline constexpr uint32_t MEMDB_PREFIX_MOST_COLUMNS = 32;

// A search for the rows with the longest entry that begins the key.
struct memdb_prefix_search {
  uint32_t main;              // the column of the entries
  const char *key;            // not empty
  const char *const *values;  // one per column, null for any text, as it is for main
  int32_t most;               // rows that a walk would visit at the most
};

inline constexpr int32_t MEMDB_PREFIX_UNKNOWN = -1;

// How many rows a walk of all rows that match values would find to have the longest entry, entries
// of no characters included, and these rows in found, newest first; found has room for
// MEMDB_PREFIX_MOST_EQUAL. Or MEMDB_PREFIX_UNKNOWN, if only a walk can tell. May run beside a
// writer on the conditions of memdb_select, and finds what that would.
int32_t memdb_longest_prefix(const memdb_tbl *tbl, const memdb_prefix_search &search,
                             std::span<const memdb_row *> found);

// True if a large table has no look-up for such searches because nobody has asked for it, and could
// have one; *given is then what to ask for. The search's key isn't read, and main may have a value.
// May run beside a writer.
bool memdb_lacks_prefixes(const memdb_tbl *tbl, const memdb_prefix_search &search, uint32_t *given);

// Asks for look-ups for searches in the column main that give the columns of the bits in given as
// well, and makes the first if the table is large already. Does nothing for an indexed column, for
// one that the table hasn't, or where there are MEMDB_PREFIX_FORMS already. For whoever may change
// the table. True if these weren't asked for before.
bool memdb_want_prefixes(memdb_tbl *tbl, uint32_t main, uint32_t given);

// Takes back what was asked for last.
void memdb_unwant_prefixes(memdb_tbl *tbl);

// What the engine calls. Whoever does may change the table.

// Of a new table: nothing is wanted.
void memdb_begin_prefixes(memdb_tbl *tbl);

// Gives all look-ups back, ahead of the rows of a table that is being emptied; and, of one that has
// become empty, lets new ones come.
void memdb_empty_prefixes(memdb_tbl *tbl);
void memdb_renew_prefixes(memdb_tbl *tbl);

// Frees all look-ups of a table that nobody else is at.
void memdb_end_prefixes(memdb_tbl *tbl);

// True if look-ups were asked for: writes of other tables pay nothing for them.
inline bool memdb_wants_prefixes(const memdb_tbl *tbl) {
  return tbl->prefixes[0].main != MEMDB_NO_COL;
}

// What a slot is told of its row.
struct memdb_prefix_entry {
  memdb_row *row;
  uint64_t age;
  uint32_t hash;
  uint32_t length;  // of the entry
};

// The time in which a row is made of values, of which some may be null, and becomes the newest one:
// the look-ups have it in the end. Its slots, which lie anywhere, are fetched meanwhile.
class memdb_prefix_join {
 public:
  memdb_prefix_join(memdb_tbl *tbl, const char *const *values) : tbl_(tbl), row_(nullptr) {
    if (memdb_wants_prefixes(tbl)) prepare(values);
  }
  // To be called with the row, filled and counted, ahead of the first link to it; without that the
  // look-ups stay as they are.
  void begin(memdb_row *row) {
    if (memdb_wants_prefixes(tbl_)) begin_change(row);
  }
  ~memdb_prefix_join() {
    if (row_ != nullptr) end_change();
  }
  memdb_prefix_join(const memdb_prefix_join &) = delete;
  memdb_prefix_join &operator=(const memdb_prefix_join &) = delete;

 private:
  void prepare(const char *const *values);
  void begin_change(memdb_row *row);
  void end_change();

  memdb_tbl *tbl_;
  memdb_row *row_;
  memdb_prefix_entry entries_[MEMDB_PREFIX_FORMS];  // of those forms that have slots
};

// The time in which a row is taken out of list and chains, still counted and not given back yet:
// the look-ups don't have it in the end.
class memdb_prefix_leave {
 public:
  memdb_prefix_leave(memdb_tbl *tbl, memdb_row *row) : tbl_(tbl) {
    if (memdb_wants_prefixes(tbl)) begin_change(row);
  }
  ~memdb_prefix_leave() {
    if (memdb_wants_prefixes(tbl_)) end_change();
    if (tbl_->row_cnt <= 1) all_have_gone();
  }
  memdb_prefix_leave(const memdb_prefix_leave &) = delete;
  memdb_prefix_leave &operator=(const memdb_prefix_leave &) = delete;

 private:
  void begin_change(memdb_row *row);
  void end_change();
  void all_have_gone();

  memdb_tbl *tbl_;
  memdb_prefix_entry entries_[MEMDB_PREFIX_FORMS];
};

// The time in which a text is overwritten. Searches that run or begin meanwhile are left to a walk,
// which meets the row in any case; the row then has its new place and its old age.
class memdb_prefix_overwrite {
 public:
  memdb_prefix_overwrite(memdb_tbl *tbl, memdb_row *row, uint32_t col, const char *value);
  ~memdb_prefix_overwrite();
  memdb_prefix_overwrite(const memdb_prefix_overwrite &) = delete;
  memdb_prefix_overwrite &operator=(const memdb_prefix_overwrite &) = delete;

 private:
  memdb_tbl *tbl_;  // null if no look-up goes by the column, or the text stays
  memdb_row *row_;
  uint64_t ages_[MEMDB_PREFIX_FORMS];  // of the row in each look-up that it has to go back to
};
