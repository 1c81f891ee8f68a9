// What a row is compared by where duplicates are refused.
#pragma once

#include "host/memory.h"
#include "query/query_input.h"
#include "tables/tarn_tbl.h"

// The texts that a stored row must have to count as equal to the query: those of columns 1 to 3
// where the table holds ports, of all but column 0 where it generates an index, else of all.
//
// Where columns are left out the texts are copies in slots of 32 bytes. Slots are filled in
// ascending order, so that a value of 32 bytes or more is spoilt by the next one and compares
// unequal: such rows pass the check, and callers count on their being let in.
class duplicate_key {
 public:
  static constexpr size_t SLOT = 32;

  // The query outlives the key.
  duplicate_key(const tarn_tbl *table, const query_in *in);

  // False if memory is short.
  explicit operator bool() const { return wanted_ != nullptr; }

  // True for the columns that count.
  static bool compares(const tarn_tbl *table, uint32_t col);

  // One text for each column, null where it isn't compared; what memdb_select takes.
  const char *const *wanted() const { return wanted_; }

 private:
  void copy_compared(const tarn_tbl *table, const query_in *in);
  void copy(uint32_t col, const char *value);

  uint32_t count_;
  size_t size_;
  pkg_owner<char> block_;  // pointers, then the slots; null where the query's own texts serve
  const char *const *wanted_;
};
