// Keeping look-ups in step with their table.
#include "memdb/prefix/prefix.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <string_view>

#include "memdb/layout/hooks.h"
#include "memdb/prefix/hash.h"
#include "memdb/prefix/slots.h"

namespace {

// Where the ages of a new look-up begin. The rows that are there already have lower ones.
constexpr uint64_t FIRST_AGE = uint64_t{1} << 40;
constexpr uint64_t NOT_IN = 0;

uint32_t bit_of(uint32_t col) { return uint32_t{1} << col; }

bool goes_by(const memdb_prefix_form &form, uint32_t col) {
  return form.main == static_cast<int32_t>(col) || (form.given & bit_of(col)) != 0;
}

// The column whose chains a walk goes along, MEMDB_NO_COL for the list.
int32_t leading_col(const memdb_tbl *tbl, const memdb_prefix_form &form) {
  for (uint32_t given = form.given; given != 0; given &= given - 1) {
    const int col = std::countr_zero(given);
    if (memdb_is_indexed(tbl->cols[col])) return col;
  }
  return MEMDB_NO_COL;
}

void set_slots(memdb_prefix_form *form, memdb_prefix_slots *table) {
  memdb_prefix_slots *const before = form->slots;
  std::atomic_ref(form->slots).store(table, std::memory_order_release);
  memdb_prefix_give_back(before, memdb_retire);
}

void do_without(memdb_prefix_form *form) {
  set_slots(form, nullptr);
  form->given_up = true;
}

// The entry of a row with the texts that text_of(column) gives.
template <typename TextOf>
memdb_prefix_entry entry_with(const memdb_prefix_form &form, memdb_row *row, TextOf text_of) {
  uint64_t hash = memdb_prefix_hash_given(form.given, text_of);
  const std::string_view entry = text_of(static_cast<uint32_t>(form.main));
  for (const char c : entry) hash = memdb_prefix_hash_char(hash, c);
  return {row, NOT_IN, memdb_prefix_hash_end(hash), static_cast<uint32_t>(entry.size())};
}

memdb_prefix_entry entry_of(const memdb_tbl *tbl, const memdb_prefix_form &form, memdb_row *row) {
  return entry_with(form, row, [tbl, row](uint32_t col) {
    return std::string_view(memdb_get_field(tbl, row, col));
  });
}

// Makes room for one more row of the hash among so many. False if memory is short.
bool enlarge(memdb_prefix_form *form, uint32_t hash, uint32_t rows) {
  if (!memdb_prefix_wants_more_parts(form->slots, rows))
    return memdb_prefix_fit_part(form->slots, hash, memdb_retire);
  memdb_prefix_slots *const larger = memdb_prefix_copy_slots(form->slots, rows);
  if (larger == nullptr) return false;
  set_slots(form, larger);
  return true;
}

// Makes the slots fewer where so many rows that are left need few, if memory isn't short.
void shrink(memdb_prefix_form *form, uint32_t hash, uint32_t left) {
  if (memdb_prefix_wants_one_part(form->slots, left)) {
    memdb_prefix_slots *const smaller = memdb_prefix_copy_slots(form->slots, left);
    if (smaller != nullptr) set_slots(form, smaller);
  } else if (memdb_prefix_is_wide(form->slots, hash)) {
    memdb_prefix_fit_part(form->slots, hash, memdb_retire);
  }
}

// Puts the entry in, where there is room and an end of it; else there is no look-up any more.
void put_or_do_without(memdb_tbl *tbl, memdb_prefix_form *form, const memdb_prefix_entry &entry) {
  const bool has_room =
      !memdb_prefix_is_full(form->slots, entry.hash) || enlarge(form, entry.hash, tbl->row_cnt);
  if (!has_room || !memdb_prefix_put(form->slots, entry)) do_without(form);
}

void take_or_do_without(memdb_prefix_form *form, memdb_prefix_entry *entry, uint32_t left) {
  if (memdb_prefix_take(form->slots, entry))
    shrink(form, entry->hash, left);
  else
    do_without(form);
}

// Fills slots that nobody meets yet with all rows. False if memory is short or some entry has too
// many.
bool fill(memdb_prefix_slots *table, const memdb_tbl *tbl, const memdb_prefix_form &form) {
  uint64_t age = FIRST_AGE;
  table->next_age = FIRST_AGE;
  for (memdb_row *row = tbl->first; row != nullptr; row = row->next) {
    memdb_prefix_entry entry = entry_of(tbl, form, row);
    entry.age = --age;
    if (memdb_prefix_is_full(table, entry.hash) &&
        !memdb_prefix_fit_part(table, entry.hash, memdb_free))
      return false;
    if (!memdb_prefix_put(table, entry)) return false;
  }
  return true;
}

void make(const memdb_tbl *tbl, memdb_prefix_form *form) {
  const int32_t leading = leading_col(tbl, *form);
  const bool in_order = leading == MEMDB_NO_COL || !tbl->cols[leading].overwritten;
  memdb_prefix_slots *const table = in_order ? memdb_prefix_make_slots(tbl->row_cnt) : nullptr;
  if (table != nullptr && fill(table, tbl, *form)) {
    set_slots(form, table);
    return;
  }
  memdb_prefix_give_back(table, memdb_free);
  form->given_up = true;
}

void make_if_large(const memdb_tbl *tbl, memdb_prefix_form *form) {
  if (tbl->row_cnt > memdb_prefixes.rows && !form->given_up) make(tbl, form);
}

// The forms that were asked for.
std::span<memdb_prefix_form> forms(memdb_tbl *tbl) {
  size_t count = 0;
  while (count < MEMDB_PREFIX_FORMS && tbl->prefixes[count].main != MEMDB_NO_COL) count++;
  return {tbl->prefixes, count};
}

// Sets the entries of those forms that have slots, by make_entry(form), and has the slots fetched.
template <typename MakeEntry>
void hash_and_fetch(memdb_tbl *tbl, memdb_prefix_entry *entry, MakeEntry make_entry) {
  for (const memdb_prefix_form &form : forms(tbl)) {
    if (form.slots != nullptr) {
      *entry = make_entry(form);
      memdb_prefix_probe(form.slots, entry->hash).fetch();
    }
    entry++;
  }
}

void set_overwrites(memdb_tbl *tbl, uint32_t count) {
  // What is done before the count is odd, and what after it is even, isn't seen amid it.
  std::atomic_ref(tbl->overwrites).store(count, std::memory_order_release);
  std::atomic_thread_fence(std::memory_order_release);
}

// A writer that was killed has left a row in a wrong place or in none.
void take_over(memdb_tbl *tbl) {
  const bool overwriting = tbl->overwrites % 2 != 0;
  for (memdb_prefix_form &form : forms(tbl)) {
    if (!overwriting && !form.changing) continue;
    do_without(&form);
    form.changing = false;
  }
  if (overwriting) set_overwrites(tbl, tbl->overwrites + 1);
}

void set_changing(memdb_tbl *tbl, bool changing) {
  // For whoever comes after a killed writer, so that it is the order of the instructions that
  // counts.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  for (memdb_prefix_form &form : forms(tbl))
    std::atomic_ref(form.changing).store(changing, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void begin_again(memdb_tbl *tbl) {
  for (memdb_prefix_form &form : forms(tbl)) {
    set_slots(&form, nullptr);
    form.given_up = false;
  }
}

void forget_overwritten(memdb_tbl *tbl) {
  for (memdb_col &col : memdb_cols(tbl)) col.overwritten = false;
}

// True if the value, cut to the column, is what the row has.
bool is_same(const memdb_tbl *tbl, const memdb_row *row, uint32_t col, const char *value) {
  return strncmp(memdb_get_field(tbl, row, col), value, tbl->cols[col].size - 1) == 0;
}

}  // namespace

void memdb_begin_prefixes(memdb_tbl *tbl) {
  tbl->row_cnt = 0;
  tbl->overwrites = 0;
  for (memdb_prefix_form &form : tbl->prefixes) form = {MEMDB_NO_COL, false, false, 0, nullptr};
  forget_overwritten(tbl);
}

bool memdb_want_prefixes(memdb_tbl *tbl, uint32_t main, uint32_t given) {
  if (tbl->col_cnt > MEMDB_PREFIX_MOST_COLUMNS || main >= tbl->col_cnt ||
      memdb_is_indexed(tbl->cols[main]))
    return false;
  given &= ~bit_of(main);
  if (tbl->col_cnt < MEMDB_PREFIX_MOST_COLUMNS && given >> tbl->col_cnt != 0) return false;
  const std::span<memdb_prefix_form> present = forms(tbl);
  for (const memdb_prefix_form &form : present)
    if (form.main == static_cast<int32_t>(main) && form.given == given) return false;
  if (present.size() == MEMDB_PREFIX_FORMS) return false;
  memdb_prefix_form &form = tbl->prefixes[present.size()];
  form = {MEMDB_NO_COL, false, false, given, nullptr};
  // Searches that run beside know the form by this, and then read the rest.
  std::atomic_ref(form.main).store(static_cast<int16_t>(main), std::memory_order_release);
  make_if_large(tbl, &form);
  return true;
}

void memdb_unwant_prefixes(memdb_tbl *tbl) {
  const std::span<memdb_prefix_form> present = forms(tbl);
  if (present.empty()) return;
  set_slots(&present.back(), nullptr);
  present.back().main = MEMDB_NO_COL;
}

void memdb_prefix_join::prepare(const char *const *values) {
  take_over(tbl_);
  hash_and_fetch(tbl_, entries_, [tbl = tbl_, values](const memdb_prefix_form &form) {
    return entry_with(form, nullptr, [tbl, values](uint32_t col) {
      return values[col] != nullptr
                 ? std::string_view(values[col], strnlen(values[col], tbl->cols[col].size - 1))
                 : std::string_view("");
    });
  });
}

void memdb_prefix_join::begin_change(memdb_row *row) {
  row_ = row;
  set_changing(tbl_, true);
}

void memdb_prefix_join::end_change() {
  memdb_prefix_entry *entry = entries_;
  for (memdb_prefix_form &form : forms(tbl_)) {
    if (form.slots == nullptr) {
      make_if_large(tbl_, &form);
    } else {
      entry->row = row_;
      entry->age = form.slots->next_age++;
      put_or_do_without(tbl_, &form, *entry);
    }
    entry++;
  }
  set_changing(tbl_, false);
}

void memdb_prefix_leave::begin_change(memdb_row *row) {
  take_over(tbl_);
  hash_and_fetch(tbl_, entries_, [tbl = tbl_, row](const memdb_prefix_form &form) {
    return entry_of(tbl, form, row);
  });
  set_changing(tbl_, true);
}

void memdb_prefix_leave::end_change() {
  const uint32_t left = std::max(tbl_->row_cnt, 1U) - 1;
  if (left <= memdb_prefixes.rows / 2) begin_again(tbl_);
  memdb_prefix_entry *entry = entries_;
  for (memdb_prefix_form &form : forms(tbl_)) {
    if (form.slots != nullptr) take_or_do_without(&form, entry, left);
    entry++;
  }
  set_changing(tbl_, false);
}

void memdb_prefix_leave::all_have_gone() { forget_overwritten(tbl_); }

void memdb_empty_prefixes(memdb_tbl *tbl) {
  take_over(tbl);
  for (memdb_prefix_form &form : forms(tbl)) do_without(&form);
}

void memdb_renew_prefixes(memdb_tbl *tbl) {
  begin_again(tbl);
  forget_overwritten(tbl);
}

void memdb_end_prefixes(memdb_tbl *tbl) {
  for (memdb_prefix_form &form : forms(tbl)) memdb_prefix_give_back(form.slots, memdb_free);
}

memdb_prefix_overwrite::memdb_prefix_overwrite(memdb_tbl *tbl, memdb_row *row, uint32_t col,
                                               const char *value)
    : tbl_(nullptr), row_(row), ages_{} {
  const bool indexed = memdb_is_indexed(tbl->cols[col]);
  const std::span<memdb_prefix_form> all = forms(tbl);
  const auto concerned = [col](const memdb_prefix_form &form) {
    return form.slots != nullptr && goes_by(form, col);
  };
  const bool concerns = std::any_of(all.begin(), all.end(), concerned);
  if ((!indexed && !concerns) || is_same(tbl, row, col, value)) return;
  if (indexed) tbl->cols[col].overwritten = true;
  if (!concerns) return;
  take_over(tbl);
  tbl_ = tbl;
  set_overwrites(tbl, tbl->overwrites + 1);
  for (size_t i = 0; i < all.size(); i++) {
    if (!concerned(all[i])) continue;
    memdb_prefix_entry entry = entry_of(tbl, all[i], row);
    if (leading_col(tbl, all[i]) == static_cast<int32_t>(col) ||
        !memdb_prefix_take(all[i].slots, &entry))
      do_without(&all[i]);
    else
      ages_[i] = entry.age;
  }
}

memdb_prefix_overwrite::~memdb_prefix_overwrite() {
  if (tbl_ == nullptr) return;
  const std::span<memdb_prefix_form> all = forms(tbl_);
  for (size_t i = 0; i < all.size(); i++) {
    if (ages_[i] == NOT_IN) continue;
    memdb_prefix_entry entry = entry_of(tbl_, all[i], row_);
    entry.age = ages_[i];
    put_or_do_without(tbl_, &all[i], entry);
  }
  set_overwrites(tbl_, tbl_->overwrites + 1);
}
