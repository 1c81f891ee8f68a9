// Looking for the longest entry.
#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "memdb/prefix/hash.h"
#include "memdb/prefix/prefix.h"
#include "memdb/prefix/slots.h"

namespace {

// The columns that have a value, bit by bit. Tables with look-ups have no more columns than bits.
uint32_t given_columns(const memdb_tbl *tbl, const char *const *values) {
  uint32_t given = 0;
  for (uint32_t i = 0; i < tbl->col_cnt; i++)
    if (values[i] != nullptr) given |= uint32_t{1} << i;
  return given;
}

template <typename T>
T load(const T &shared, std::memory_order order = std::memory_order_acquire) {
  return std::atomic_ref(const_cast<T &>(shared)).load(order);
}

const memdb_prefix_form *find_form(const memdb_tbl *tbl, uint32_t main, uint32_t given) {
  for (const memdb_prefix_form &form : tbl->prefixes)
    if (load(form.main) == static_cast<int32_t>(main) && form.given == given) return &form;
  return nullptr;
}

const memdb_prefix_form *find_form(const memdb_tbl *tbl, const memdb_prefix_search &search) {
  if (load(tbl->prefixes[0].main) == MEMDB_NO_COL) return nullptr;
  return find_form(tbl, search.main, given_columns(tbl, search.values));
}

struct met_row {
  const memdb_row *row;
  uint64_t age;
};

enum class slot_kind { free, other, equal };

// What a slot holds, seen from a hash: the row, as its writer put it in, if it is one of that hash.
slot_kind read_slot(memdb_prefix_slot *slot, uint32_t hash, met_row *met) {
  const std::atomic_ref shared_tag(slot->tag);
  for (;;) {
    const uint64_t tag = shared_tag.load(std::memory_order_acquire);
    if (tag == MEMDB_PREFIX_FREE) return slot_kind::free;
    if (tag >> 32 != hash) return slot_kind::other;
    const uint64_t word = std::atomic_ref(slot->row).load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (shared_tag.load(std::memory_order_relaxed) != tag) continue;
    const memdb_prefix_slot read{tag, word};
    *met = {memdb_prefix_row_of(read), memdb_prefix_age_of(read)};
    return slot_kind::equal;
  }
}

// The rows met so far, oldest first.
class rows_by_age {
 public:
  size_t count() const { return count_; }

  // False if there is no room.
  bool add(const met_row &met) {
    if (count_ == rows_.size()) return false;
    size_t at = count_++;
    for (; at > 0 && rows_[at - 1].age > met.age; at--) rows_[at] = rows_[at - 1];
    rows_[at] = met;
    return true;
  }

  void give_newest_first(std::span<const memdb_row *> found) const {
    for (size_t i = 0; i < count_; i++) found[i] = rows_[count_ - 1 - i].row;
  }

 private:
  std::array<met_row, MEMDB_PREFIX_MOST_EQUAL> rows_;
  size_t count_ = 0;
};

bool has_given_texts(const memdb_tbl *tbl, const memdb_row *row, uint32_t given,
                     const char *const *values) {
  for (; given != 0; given &= given - 1) {
    const auto col = static_cast<uint32_t>(std::countr_zero(given));
    if (strcmp(values[col], memdb_get_field(tbl, row, col)) != 0) return false;
  }
  return true;
}

// A beginning of the key that may be an entry.
struct candidate {
  uint32_t hash;
  uint32_t length;
};

class prefix_walk {
 public:
  prefix_walk(const memdb_tbl *tbl, const memdb_prefix_search &search,
              const memdb_prefix_form &form, const memdb_prefix_slots *table)
      : tbl_(tbl), search_(search), given_(form.given), table_(table) {}

  // False if only a walk of the rows can tell.
  bool find(rows_by_age *met) {
    if (!hash_beginnings()) return false;
    for (size_t i = count_; i > 0 && met->count() == 0; i--)
      if (!gather(candidates_[i - 1], met)) return false;
    return true;
  }

 private:
  // Finds those beginnings of the key whose length any entry has, shortest first, and has their
  // slots fetched, which lie anywhere.
  bool hash_beginnings() {
    uint64_t hash = memdb_prefix_hash_given(
        given_, [this](uint32_t col) { return std::string_view(search_.values[col]); });
    const uint32_t longest =
        std::atomic_ref(const_cast<uint32_t &>(table_->longest)).load(std::memory_order_acquire);
    for (uint32_t length = 0;; length++) {
      if (length > MEMDB_PREFIX_LONGEST) return !has_entries(length);
      if (has_entries(length)) {
        const uint32_t end = memdb_prefix_hash_end(hash);
        memdb_prefix_probe(table_, end).fetch();
        candidates_[count_++] = {end, length};
      }
      if (length == longest || search_.key[length] == '\0') return true;
      hash = memdb_prefix_hash_char(hash, search_.key[length]);
    }
  }

  bool has_entries(uint32_t length) const {
    auto &count = const_cast<uint32_t &>(table_->lengths[length]);
    return std::atomic_ref(count).load(std::memory_order_acquire) != 0;
  }

  bool is_met(const memdb_row *row, uint32_t length) const {
    const char *const entry = memdb_get_field(tbl_, row, search_.main);
    return strncmp(entry, search_.key, length) == 0 && entry[length] == '\0' &&
           has_given_texts(tbl_, row, given_, search_.values);
  }

  bool gather(const candidate &wanted, rows_by_age *met) const {
    for (memdb_prefix_probe probe(table_, wanted.hash);; probe.go_on()) {
      met_row one;
      switch (read_slot(&probe.slot(), wanted.hash, &one)) {
        case slot_kind::free:
          return true;
        case slot_kind::other:
          break;
        case slot_kind::equal:
          if (is_met(one.row, wanted.length) && !met->add(one)) return false;
      }
    }
  }

  const memdb_tbl *tbl_;
  const memdb_prefix_search &search_;
  uint32_t given_;
  const memdb_prefix_slots *table_;
  std::array<candidate, MEMDB_PREFIX_LONGEST + 1> candidates_;
  size_t count_ = 0;
};

}  // namespace

bool memdb_lacks_prefixes(const memdb_tbl *tbl, const memdb_prefix_search &search,
                          uint32_t *given) {
  const uint32_t rows = load(tbl->row_cnt);
  if (rows <= memdb_prefixes.rows || tbl->col_cnt > MEMDB_PREFIX_MOST_COLUMNS ||
      search.main >= tbl->col_cnt || memdb_is_indexed(tbl->cols[search.main]) || search.most < 0 ||
      static_cast<uint32_t>(search.most) < rows ||
      load(tbl->prefixes[MEMDB_PREFIX_FORMS - 1].main) != MEMDB_NO_COL)
    return false;
  *given = given_columns(tbl, search.values) & ~(uint32_t{1} << search.main);
  return find_form(tbl, search.main, *given) == nullptr;
}

int32_t memdb_longest_prefix(const memdb_tbl *tbl, const memdb_prefix_search &search,
                             std::span<const memdb_row *> found) {
  const memdb_prefix_form *const form = find_form(tbl, search);
  if (form == nullptr) return MEMDB_PREFIX_UNKNOWN;
  const uint32_t overwrites = load(tbl->overwrites);
  const memdb_prefix_slots *const table = load(form->slots);
  if (overwrites % 2 != 0 || table == nullptr || search.most < 0 ||
      static_cast<uint32_t>(search.most) < load(tbl->row_cnt))
    return MEMDB_PREFIX_UNKNOWN;
  rows_by_age met;
  if (!prefix_walk(tbl, search, *form, table).find(&met)) return MEMDB_PREFIX_UNKNOWN;
  // A row that has gone from one entry to another meanwhile may have been missed at both.
  std::atomic_thread_fence(std::memory_order_acquire);
  if (load(tbl->overwrites, std::memory_order_relaxed) != overwrites) return MEMDB_PREFIX_UNKNOWN;
  met.give_newest_first(found);
  return static_cast<int32_t>(met.count());
}
