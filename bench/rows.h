// The rows that every store under comparison holds: the same texts in the same order, in every run.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

struct row {
  std::string key;
  std::string group;
  std::string value;
};

// What all keys of a set of rows end in. The engine's buckets go by a text's last characters.
enum class key_ending { own, common };

// count rows with keys of their own, in an order that no store's layout follows. The n-th row is
// the same for every count, so that rows from count on are new to a store of count rows.
std::vector<row> make_rows(size_t count, key_ending ending = key_ending::own);

// Places 0 to count - 1, each once, shuffled: an order of access unlike the order of the rows.
std::vector<size_t> shuffled_places(size_t count);

}  // namespace bench
