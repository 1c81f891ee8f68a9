// A filter of bits (Bloom, "Space/time trade-offs in hash coding with allowable errors", 1970, with
// one hash) tells most rows apart in far less memory than a table of them would take. The few that
// it doesn't tell apart are sorted and compared.
#include "tools/common/equal_rows.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "memdb/search.h"
#include "tables/rows/duplicate_key.h"

namespace {

uint32_t hash_of_text(std::string_view text) {
  return static_cast<uint32_t>(std::hash<std::string_view>()(text) >> 16);
}

}  // namespace

equal_rows::equal_rows(const tarn_tbl *table) : table_(table), compares_all_(true) {
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++) {
    if (duplicate_key::compares(table, i))
      last_compared_ = i;
    else
      compares_all_ = false;
  }
}

// *is_spoilt tells that the check doesn't see the row's own values.
uint32_t equal_rows::hash_of(const memdb_row *row, bool *is_spoilt) const {
  uint32_t hash = 0;
  for (uint32_t i = 0; i < table_->tbl->col_cnt; i++) {
    if (!duplicate_key::compares(table_, i)) continue;
    const std::string_view text = memdb_get_field(table_->tbl, row, i);
    hash = hash * 0x9e3779b1 + hash_of_text(text);
    if (i != last_compared_ && text.size() >= duplicate_key::SLOT) *is_spoilt = true;
  }
  return hash;
}

bool equal_rows::are_equal(const memdb_row *a, const memdb_row *b) const {
  for (uint32_t i = 0; i < table_->tbl->col_cnt; i++)
    if (duplicate_key::compares(table_, i) &&
        strcmp(memdb_get_field(table_->tbl, a, i), memdb_get_field(table_->tbl, b, i)) != 0)
      return false;
  return true;
}

bool equal_rows::is_marked(uint32_t hash) const {
  return (marks_[hash / 64 & (marks_.size() - 1)] >> hash % 64 & 1) != 0;
}

void equal_rows::mark(uint32_t hash) {
  marks_[hash / 64 & (marks_.size() - 1)] |= uint64_t{1} << hash % 64;
}

void equal_rows::add(const memdb_row *row, std::string_view image, int line, bool is_cut) {
  bool is_spoilt = false;
  const uint32_t hash = compares_all_ ? hash_of_text(image) : hash_of(row, &is_spoilt);
  entries_.push_back({hash, is_cut || is_spoilt ? -line : line, row});
  if (is_spoilt && !is_cut) spoilt_.push_back(entries_.back());
}

// Leaves the rows that share their bit with another one, by hash, and those of one hash in the
// order of their lines.
void equal_rows::sort_suspects() {
  constexpr size_t BITS_PER_ROW = 8;
  marks_.resize(std::bit_ceil(entries_.size() * BITS_PER_ROW + 64) / 64);
  for (const entry &one : entries_) {
    if (is_marked(one.hash)) suspects_.push_back(one.hash);
    mark(one.hash);
  }
  std::ranges::fill(marks_, 0);
  for (const uint32_t hash : suspects_) mark(hash);
  std::erase_if(entries_, [this](const entry &one) { return !is_marked(one.hash); });
  std::ranges::stable_sort(entries_, {}, &entry::hash);
}

void equal_rows::compare_run(const entry *first, const entry *end, std::vector<pair> *found) {
  std::vector<const entry *> &different = different_;
  different.clear();
  for (const entry *one = first; one != end; one++) {
    const auto equal = std::find_if(different.begin(), different.end(), [&](const entry *earlier) {
      return are_equal(earlier->row, one->row);
    });
    if (equal == different.end())
      different.push_back(one);
    else if (one->line > 0)
      found->push_back({one->line, std::abs((*equal)->line)});
  }
}

// Calls use with the texts that the check looks for in the row's place, and their hash.
template <typename Use>
void equal_rows::with_wanted(const entry &asking, Use use) const {
  std::vector<char *> texts;
  for (uint32_t i = 0; i < table_->tbl->col_cnt; i++)
    texts.push_back(const_cast<char *>(memdb_get_field(table_->tbl, asking.row, i)));
  query_in in{};
  in.flds = texts.data();
  const duplicate_key key(table_, &in);
  if (!key) return;
  uint32_t hash = 0;
  for (uint32_t i = 0; i < table_->tbl->col_cnt; i++)
    if (key.wanted()[i] != nullptr) hash = hash * 0x9e3779b1 + hash_of_text(key.wanted()[i]);
  use(key.wanted(), hash);
}

// What the check sees instead of the row's values may be another row all the same.
void equal_rows::compare_spoilt(const entry &asking, std::vector<pair> *found) const {
  with_wanted(asking, [&](const char *const *wanted, uint32_t hash) {
    const auto by_hash = [](const entry &a, const entry &b) { return a.hash < b.hash; };
    const auto [first, end] =
        std::equal_range(entries_.begin(), entries_.end(), entry{hash, 0, nullptr}, by_hash);
    for (auto one = first; one != end; one++) {
      if (std::abs(one->line) >= asking.line ||
          memdb_row_match(table_->tbl, one->row, MEMDB_NO_COL, wanted) == 0)
        continue;
      found->push_back({asking.line, std::abs(one->line)});
      return;
    }
  });
}

std::vector<equal_rows::pair> equal_rows::find() {
  std::vector<pair> found;
  for (entry &asking : spoilt_) {
    asking.line = std::abs(asking.line);
    with_wanted(asking, [this](const char *const *, uint32_t hash) { suspects_.push_back(hash); });
  }
  sort_suspects();
  const entry *const end = entries_.data() + entries_.size();
  for (const entry *first = entries_.data(); first != end;) {
    const entry *next = first + 1;
    while (next != end && next->hash == first->hash) next++;
    if (next - first > 1) compare_run(first, next, &found);
    first = next;
  }
  for (const entry &asking : spoilt_) compare_spoilt(asking, &found);
  std::ranges::sort(found, {}, &pair::line);
  return found;
}
