// The engine beside plain chains: random operations on small tables whose buckets become
// directories, parts and chains again, and after each the same results.
#pragma once

#include <cstdlib>
#include <random>

#include "memdb/index/directory.h"
#include "tests/support/bucket_rows.h"
#include "tests/unit/memdb/plain_chains.h"

namespace engine_test {

// What the runs so far have met, so that a test can tell that they meet everything.
struct differential_sums {
  size_t directories;  // buckets seen as one table
  size_t parts;        // as parts
  size_t dissolved;    // that an overwrite made chains of
  size_t missing;      // entries that were reported
  size_t hidden;       // rows that a select by their text doesn't give
  size_t refused;      // allocations beside those of rows
};

class engine_differential {
 public:
  static inline differential_sums sums;

  // One run of so many operations. Sets the engine's hooks and leaves them set.
  explicit engine_differential(uint32_t seed) : random_(seed) {
    present_ = this;
    reports_ = 0;
    live_ = 0;
    memdb_malloc = [](size_t size) { return give(size, malloc); };
    memdb_calloc = [](size_t count, size_t size) {
      return give(count * size, [](size_t all) { return calloc(1, all); });
    };
    memdb_free = take_back;
    memdb_retire = take_back;
    memdb_log_err = [](const char *) { reports_++; };
    memdb_log_sink = say_nothing;
    memdb_directories = {one_of({0u, 0u, 10u, 40u}), one_of({1u, 3u, 12u}),
                         one_of({32u, 64u, 128u, 65536u})};
    memdb_idx_len = one_of({1u, 1u, 2u, 5u});
    const size_t count = 1 + below(3);
    for (size_t i = 0; i < count; i++) columns_.push_back({one_of({2u, 9u, 25u}), below(4) != 0});
    columns_[below(count)].flag = MEMDB_COL_INDEXED;
    texts_ = one_of({6u, 60u, 600u});
    overwrites_ = one_of({0u, 0u, 2u, 10u});
    shortage_ = one_of({0u, 0u, 1u, 30u, 100u});
    ending_ = one_of({"", "@sip.example.org", "@a"});
  }

  // Empty if all was the same.
  std::string run(size_t steps) {
    table_ = memdb_create_tbl(columns_.data(), static_cast<uint32_t>(columns_.size()));
    plain_chains model(columns_, memdb_idx_len);
    model_ = &model;
    in_run_ = true;
    for (size_t step = 0; step < steps && deviation_.empty(); step++) {
      grows_ = step % 400 < 300;
      operate();
      if (deviation_.empty() && step % 64 == 63) look_at_all();
      if (!deviation_.empty()) deviation_ += " at step " + std::to_string(step);
    }
    in_run_ = false;
    memdb_destroy_tbl(table_);
    if (deviation_.empty() && live_ != 0) deviation_ = "blocks that weren't given back";
    memdb_directories = {};
    memdb_idx_len = 512;
    return deviation_;
  }

 private:
  using wanted_texts = std::vector<const char *>;

  static inline engine_differential *present_;
  static inline size_t reports_;
  static inline size_t live_;

  static void say_nothing(memdb_log_level, const memdb_log_site &, const char *, ...) {}
  static void *give(size_t size, void *(*source)(size_t)) {
    if (present_->refuses(size)) return nullptr;
    live_++;
    return source(size != 0 ? size : 1);
  }
  static void take_back(void *block) {
    if (block == nullptr) return;
    memset(block, 0xDD, sizeof(void *));
    live_--;
    free(block);
  }
  bool refuses(size_t size) {
    if (!in_run_) return false;
    if (size == table_->row_len + sizeof(memdb_row)) return refuses_row_;
    if (below(100) >= shortage_) return false;
    sums.refused++;
    return true;
  }

  uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
  template <typename Value>
  Value one_of(std::initializer_list<Value> values) {
    return values.begin()[below(values.size())];
  }
  std::string text() { return std::to_string(below(texts_)) + ending_; }
  std::vector<std::string> row_texts() {
    std::vector<std::string> out(columns_.size());
    for (std::string &field : out) field = text();
    return out;
  }
  static wanted_texts pointers(const std::vector<std::string> &fields) {
    wanted_texts out;
    for (const std::string &field : fields) out.push_back(field.c_str());
    return out;
  }
  bool indexed(size_t col) const { return (columns_[col].flag & MEMDB_COL_INDEXED) != 0; }
  plain_chains::row *any_row() { return model_->rows()[below(model_->rows().size())]; }

  void expect(bool same, const char *what) {
    if (!same && deviation_.empty()) deviation_ = what;
  }

  void operate() {
    const uint32_t choice = below(100);
    const size_t reports = reports_;
    size_t missing = 0;
    if (model_->rows().empty() || choice < (grows_ ? 55u : 20u))
      insert();
    else if (choice < 70)
      missing = remove(any_row());
    else if (choice < 90)
      missing = walk(some_wanted());
    else if (choice < 90 + overwrites_)
      overwrite(any_row());
    else if (below(400) == 0)
      clear();
    expect(reports_ - reports == missing, "reports of missing entries");
    sums.missing += missing;
  }

  void insert() {
    const std::vector<std::string> fields = row_texts();
    refuses_row_ = below(100) == 0;
    memdb_row *const row = memdb_insert(table_, pointers(fields).data());
    expect((row == nullptr) == refuses_row_, "an insert's success");
    if (row != nullptr) model_->insert(row, fields);
  }

  size_t remove(plain_chains::row *gone) {
    memdb_delete_row(table_, gone->twin);
    return model_->remove(gone);
  }

  void overwrite(plain_chains::row *row) {
    const size_t col = below(columns_.size());
    const std::string fresh = below(4) == 0 ? row->fields[col] : text();
    const size_t before = directories();
    memdb_set_field(table_, row->twin, static_cast<uint32_t>(col), fresh.c_str());
    model_->overwrite(row, col, fresh);
    sums.dissolved += before - directories();
  }

  void clear() {
    memdb_delete_all(table_);
    model_->clear();
  }

  std::vector<std::string> some_wanted() {
    kept_ = row_texts();
    if (below(2) == 0)
      for (size_t i = 0; i < kept_.size(); i++) kept_[i] = any_row()->fields[i];
    return kept_;
  }

  // Selects by some of the columns. Now and then what is found is overwritten before the next row
  // is asked for, as an update does, or deleted after it. Gives the number of missing entries.
  size_t walk(const std::vector<std::string> &fields) {
    wanted_texts wanted = pointers(fields);
    for (const char *&one : wanted)
      if (below(2) == 0) one = nullptr;
    const bool deletes = below(4) == 0;
    const bool overwrites = below(40) < overwrites_;
    size_t missing = 0;
    size_t met = 0;
    memdb_cursor cursor;
    memdb_row *row = memdb_select(table_, wanted.data(), &cursor);
    plain_chains::row *expected = model_->first(wanted);
    while (row != nullptr && expected != nullptr && row == expected->twin && met++ < 200) {
      if (overwrites) overwrite(expected);
      plain_chains::row *const last = expected;
      memdb_row *const last_row = row;
      row = memdb_select_next(&cursor);
      expected = model_->next(last, wanted);
      if (!deletes || met > 6) continue;
      memdb_delete_row(table_, last_row);
      missing += model_->remove(last);
    }
    expect(met > 200 || (row == nullptr && expected == nullptr), "what a select finds");
    return missing;
  }

  size_t directories() const {
    size_t sum = 0;
    for (size_t col = 0; col < columns_.size(); col++)
      for (uint32_t i = 0; i < table_->cols[col].idx_len; i++)
        if (!memdb_bucket_kind(table_->cols[col].idx[i]).is_chain()) sum++;
    return sum;
  }

  void look_at_all() {
    const std::vector<memdb_row *> rows = model_->newest_first();
    memdb_row *newer = nullptr;
    size_t count = 0;
    for (memdb_row *row = table_->first; row != nullptr; newer = row, row = row->next, count++)
      expect(count < rows.size() && row == rows[count] && row->prev == newer, "the list");
    expect(count == rows.size() && table_->last == newer, "the list's end");
    for (size_t col = 0; col < columns_.size(); col++)
      if (indexed(col)) look_at_index(col);
  }

  void look_at_index(size_t col) {
    const memdb_col &own = table_->cols[col];
    for (uint32_t i = 0; i < own.idx_len; i++) {
      const memdb_bucket_kind kind(own.idx[i]);
      if (kind.table() != nullptr) sums.directories++;
      if (kind.parts() != nullptr) sums.parts++;
      std::vector<memdb_row *> rows = bucket_rows(own, i);
      std::vector<memdb_row *> expected;
      for (const plain_chains::row *row = model_->chain(col, i); row != nullptr;
           row = row->links[col])
        expected.push_back(row->twin);
      if (!kind.is_chain()) {
        std::sort(rows.begin(), rows.end());
        std::sort(expected.begin(), expected.end());
      }
      expect(rows == expected, "what a bucket leads to");
    }
    for (plain_chains::row *row : model_->rows()) {
      if (below(8) != 0) continue;
      wanted_texts wanted(columns_.size(), nullptr);
      wanted[col] = row->fields[col].c_str();
      bool met = false;
      const std::vector<memdb_row *> expected = model_->matching(wanted);
      size_t count = 0;
      memdb_cursor cursor;
      for (memdb_row *at = memdb_select(table_, wanted.data(), &cursor);
           at != nullptr && count <= expected.size(); at = memdb_select_next(&cursor)) {
        expect(count < expected.size() && at == expected[count++], "what a text leads to");
        met = met || at == row->twin;
      }
      expect(count == expected.size(), "how many rows a text leads to");
      if (!met) sums.hidden++;
    }
  }

  std::mt19937 random_;
  std::vector<tbl_dcl> columns_;
  uint32_t texts_;
  uint32_t overwrites_;
  uint32_t shortage_;
  const char *ending_;
  memdb_tbl *table_ = nullptr;
  plain_chains *model_ = nullptr;
  std::vector<std::string> kept_;
  std::string deviation_;
  bool in_run_ = false;
  bool grows_ = true;
  bool refuses_row_ = false;
};

}  // namespace engine_test
