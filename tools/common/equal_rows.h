// Finds rows of a file that the check for duplicates would have kept out.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "tables/tarn_tbl.h"

class equal_rows {
 public:
  struct pair {
    int line;
    int earlier;  // of the first row that is equal
  };

  explicit equal_rows(const tarn_tbl *table);

  // Remembers a row of the table, which outlives this. line counts from 1. is_cut tells that a
  // value was longer than its column: the check compares it whole, and finds it nowhere. image is
  // the row as one text.
  void add(const memdb_row *row, std::string_view image, int line, bool is_cut);

  // All rows that are equal to an earlier one, in the order of their lines. Once.
  std::vector<pair> find();

 private:
  struct entry {
    uint32_t hash;
    int line;  // negative for a row that other ones find, and that itself finds none as it stands
    const memdb_row *row;
  };

  uint32_t hash_of(const memdb_row *row, bool *is_spoilt) const;
  bool are_equal(const memdb_row *a, const memdb_row *b) const;
  bool is_marked(uint32_t hash) const;
  void mark(uint32_t hash);
  void sort_suspects();
  template <typename Use>
  void with_wanted(const entry &asking, Use use) const;
  void compare_run(const entry *first, const entry *end, std::vector<pair> *found);
  void compare_spoilt(const entry &asking, std::vector<pair> *found) const;

  const tarn_tbl *table_;
  bool compares_all_;
  uint32_t last_compared_ = 0;
  std::vector<entry> entries_;
  std::vector<uint64_t> marks_;           // a bit for some hashes each
  std::vector<uint32_t> suspects_;        // hashes whose bit another row has too
  std::vector<const entry *> different_;  // of a run, kept for the next one
  std::vector<entry> spoilt_;             // rows with values that the check spoils
};
