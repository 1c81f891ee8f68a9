// Ground for tests of the look-ups for prefixes: the walk of the rows that they stand for, by the
// rules of the best-match selects.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "memdb/prefix/prefix.h"
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {

using found_rows = std::vector<const memdb_row *>;

// What the walk does wrongly on purpose, so that a comparison has to notice.
enum class walk_fault { none, oldest_first, first_alone, first_length, no_default, any_text };
inline walk_fault planted_in_walk = walk_fault::none;

// The rows with the longest entry that begins the key, in the order in which a walk meets them. It
// ends after so many rows, or once it has met 512 with the best entry so far.
inline found_rows walk_for_prefix(memdb_tbl *table, const memdb_prefix_search &search) {
  const walk_fault fault = planted_in_walk;
  found_rows best;
  size_t longest = 0;
  memdb_cursor cursor;
  int32_t visited = 0;
  const std::vector<const char *> none(table->col_cnt);
  const char *const *const wanted = fault == walk_fault::any_text ? none.data() : search.values;
  for (const memdb_row *row = memdb_select(table, wanted, &cursor);
       row != nullptr && visited < search.most && best.size() < 512;
       row = memdb_select_next(&cursor, row), visited++) {
    const char *const entry = memdb_get_field(table, row, search.main);
    // An entry may be overwritten meanwhile, so no character is read twice.
    size_t len = 0;
    char c;
    while ((c = entry[len]) != '\0' && c == search.key[len]) len++;
    if (c != '\0' || len < longest) continue;
    if (fault == walk_fault::no_default && len == 0) continue;
    if (fault == walk_fault::first_length && !best.empty() && len != longest) continue;
    if (len > longest) best.clear();
    longest = len;
    best.push_back(row);
  }
  if (fault == walk_fault::oldest_first) std::reverse(best.begin(), best.end());
  if (fault == walk_fault::first_alone && best.size() > 1) best.resize(1);
  return best;
}

// What the look-up answers, or nothing if it leaves that to a walk.
inline std::optional<found_rows> look_up_prefix(const memdb_tbl *table,
                                                const memdb_prefix_search &search) {
  std::array<const memdb_row *, MEMDB_PREFIX_MOST_EQUAL> found{};
  const int32_t count = memdb_longest_prefix(table, search, found);
  if (count == MEMDB_PREFIX_UNKNOWN) return std::nullopt;
  return found_rows(found.begin(), found.begin() + count);
}

// Look-ups are made for tables of any size unless a test says otherwise.
class PrefixTest : public EngineTest {
 protected:
  PrefixTest() { memdb_prefixes.rows = 0; }
  ~PrefixTest() override { memdb_prefixes = as_built_; }

  static std::optional<found_rows> look_up(const memdb_tbl *table, uint32_t main, const char *key,
                                           const values &given, int32_t most = INT32_MAX) {
    return look_up_prefix(table, {main, key, given.data(), most});
  }

  // The images of the rows that the look-up finds; one text where it leaves them to a walk.
  static texts answer(const memdb_tbl *table, uint32_t main, const char *key, const values &given,
                      int32_t most = INT32_MAX) {
    const std::optional<found_rows> found = look_up(table, main, key, given, most);
    if (!found) return {"left to a walk"};
    texts out;
    for (const memdb_row *row : *found) out.push_back(image(table, row));
    return out;
  }

  const memdb_prefix_rules as_built_ = memdb_prefixes;
};

}  // namespace engine_test
