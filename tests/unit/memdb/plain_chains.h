// What the engine's results are to be, by its plainest form: a list of rows, and for each indexed
// column buckets of sorted chains, whatever their length. No row moves when it is overwritten.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "memdb/index/index.h"
#include "memdb/memdb.h"

namespace engine_test {

// What a model does wrongly on purpose, so that a comparison has to notice.
enum class planted_fault {
  none,
  equal_texts_oldest_first,
  overwritten_rows_move,
  nothing_is_hidden,
  other_texts_are_passed,
  no_entry_is_missing
};

class plain_chains {
 public:
  static inline planted_fault fault = planted_fault::none;

  struct row {
    memdb_row *twin;  // the engine's
    std::vector<std::string> fields;
    std::vector<row *> links;
    size_t place;  // in rows()
  };

  plain_chains(const std::vector<tbl_dcl> &columns, uint32_t buckets)
      : columns_(columns), heads_(columns.size(), std::vector<row *>(buckets)) {}

  // In no order that means anything; list_ is the order.
  const std::vector<row *> &rows() const { return rows_; }
  const std::vector<memdb_row *> newest_first() const {
    std::vector<memdb_row *> out;
    for (auto at = list_.rbegin(); at != list_.rend(); ++at)
      if (*at != nullptr) out.push_back((*at)->twin);
    return out;
  }

  void insert(memdb_row *twin, const std::vector<std::string> &fields) {
    owned_.push_back(std::make_unique<row>());
    row *const added = owned_.back().get();
    *added = {twin, fields, std::vector<row *>(columns_.size()), rows_.size()};
    for (size_t col = 0; col < columns_.size(); col++) {
      added->fields[col].resize(std::min<size_t>(fields[col].size(), columns_[col].len));
      if (!indexed(col)) continue;
      link(added, col);
    }
    rows_.push_back(added);
    at_[twin] = added;
    numbers_[added] = list_.size();
    list_.push_back(added);
  }

  // Tells how many missing entries it meets.
  size_t remove(row *gone) {
    size_t missing = 0;
    for (size_t col = 0; col < columns_.size(); col++) {
      if (!indexed(col) || unlink(&head(col, gone->fields[col]), gone, col)) continue;
      missing++;
      for (row *&first : heads_[col])
        if (unlink(&first, gone, col)) break;
    }
    rows_.back()->place = gone->place;
    std::swap(rows_[gone->place], rows_.back());
    rows_.pop_back();
    at_.erase(gone->twin);
    list_[numbers_[gone]] = nullptr;
    numbers_.erase(gone);
    return fault == planted_fault::no_entry_is_missing ? 0 : missing;
  }

  void clear() {
    for (auto &heads : heads_) std::fill(heads.begin(), heads.end(), nullptr);
    rows_.clear();
    at_.clear();
    list_.clear();
    numbers_.clear();
    owned_.clear();
  }

  void overwrite(row *changed, size_t col, const std::string &text) {
    const bool moves = fault == planted_fault::overwritten_rows_move && indexed(col);
    if (moves) unlink(&head(col, changed->fields[col]), changed, col);
    changed->fields[col] = text.substr(0, columns_[col].len);
    if (moves) link(changed, col);
  }

  row *of(memdb_row *twin) const { return at_.at(twin); }

  // The first row that a select gives, or null; a null in wanted matches any text.
  row *first(const std::vector<const char *> &wanted) const {
    const size_t key = key_of(wanted);
    if (key == wanted.size()) return listed_from(list_.size(), wanted);
    row *at = heads_[key][memdb_hash1(wanted[key]) % heads_[key].size()];
    const bool goes_on = fault == planted_fault::nothing_is_hidden;
    while (at != nullptr &&
           (goes_on ? at->fields[key] != wanted[key] : at->fields[key] < wanted[key]))
      at = at->links[key];
    return chained_from(at, key, wanted);
  }

  // The one behind a row that it gave, whatever has been written to that meanwhile.
  row *next(row *last, const std::vector<const char *> &wanted) const {
    const size_t key = key_of(wanted);
    return key == wanted.size() ? listed_from(numbers_.at(last), wanted)
                                : chained_from(last->links[key], key, wanted);
  }

  std::vector<memdb_row *> matching(const std::vector<const char *> &wanted) const {
    std::vector<memdb_row *> out;
    for (row *at = first(wanted); at != nullptr; at = next(at, wanted)) out.push_back(at->twin);
    return out;
  }

  const row *chain(size_t col, size_t bucket) const { return heads_[col][bucket]; }

 private:
  size_t key_of(const std::vector<const char *> &wanted) const {
    size_t key = 0;
    while (key < wanted.size() && (wanted[key] == nullptr || !indexed(key))) key++;
    return key;
  }

  row *chained_from(row *at, size_t key, const std::vector<const char *> &wanted) const {
    const bool passes = fault == planted_fault::other_texts_are_passed;
    for (; at != nullptr && (passes || at->fields[key] == wanted[key]); at = at->links[key])
      if (matches(*at, wanted)) return at;
    return nullptr;
  }

  // The newest that is older than the one of that number.
  row *listed_from(size_t number, const std::vector<const char *> &wanted) const {
    while (number-- > 0)
      if (list_[number] != nullptr && matches(*list_[number], wanted)) return list_[number];
    return nullptr;
  }

  bool indexed(size_t col) const { return (columns_[col].flag & MEMDB_COL_INDEXED) != 0; }

  row *&head(size_t col, const std::string &text) {
    return heads_[col][memdb_hash1(text.c_str()) % heads_[col].size()];
  }

  void link(row *added, size_t col) {
    const std::string &text = added->fields[col];
    const bool behind_equals = fault == planted_fault::equal_texts_oldest_first;
    row **at = &head(col, text);
    while (*at != nullptr &&
           (behind_equals ? text >= (*at)->fields[col] : text > (*at)->fields[col]))
      at = &(*at)->links[col];
    added->links[col] = *at;
    *at = added;
  }

  static bool unlink(row **at, row *gone, size_t col) {
    for (; *at != nullptr; at = &(*at)->links[col]) {
      if (*at != gone) continue;
      *at = gone->links[col];
      return true;
    }
    return false;
  }

  static bool matches(const row &at, const std::vector<const char *> &wanted) {
    for (size_t i = 0; i < wanted.size(); i++)
      if (wanted[i] != nullptr && at.fields[i] != wanted[i]) return false;
    return true;
  }

  const std::vector<tbl_dcl> &columns_;
  std::vector<std::vector<row *>> heads_;
  std::vector<row *> rows_;
  std::vector<row *> list_;  // oldest first, null where a row has gone
  std::unordered_map<row *, size_t> numbers_;
  std::unordered_map<memdb_row *, row *> at_;
  std::vector<std::unique_ptr<row>> owned_;
};

}  // namespace engine_test
