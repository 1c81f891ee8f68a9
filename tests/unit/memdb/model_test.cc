// The engine against models of it, over thousands of seeded runs of random operations.
#include <algorithm>
#include <deque>
#include <random>
#include <set>

#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

constexpr int RUNS = 3000;

struct shape {
  std::vector<tbl_dcl> columns;

  bool indexed(size_t col) const { return (columns[col].flag & INDEXED) != 0; }
};

class random_source {
 public:
  explicit random_source(uint32_t seed) : engine_(seed) {}
  size_t below(size_t limit) { return static_cast<size_t>(engine_() % limit); }
  bool one_in(size_t n) { return below(n) == 0; }

  shape table() {
    shape out;
    const size_t count = 1 + below(4);
    for (size_t i = 0; i < count; i++)
      out.columns.push_back({static_cast<uint32_t>(below(6)), static_cast<uint32_t>(below(2))});
    return out;
  }

  // Few distinct texts, some longer than any column, some with bytes from 0x80 on.
  std::string text() {
    static const char *const some[] = {"",     "a",    "b",   "aa",    "ab",       "ba",
                                       "\xE4", "\xFF", "abc", "abcde", "abcdefgh", "a\xFF"};
    return some[below(std::size(some))];
  }

 private:
  std::mt19937 engine_;
};

// A row as the model sees it: its texts, and its engine row.
struct model_row {
  memdb_row *row;
  texts fields;
};

std::string cut(const std::string &text, uint32_t len) { return text.substr(0, len); }

values pointers(const std::vector<std::string> &row, const std::vector<bool> &given) {
  values out;
  for (size_t i = 0; i < row.size(); i++) out.push_back(given[i] ? row[i].c_str() : nullptr);
  return out;
}

// Rows newest first, and nothing else: right as long as no indexed text is overwritten.
class list_model {
 public:
  explicit list_model(const shape &columns) : shape_(columns) {}

  void add(memdb_row *row, const texts &fields) {
    texts kept;
    for (size_t i = 0; i < fields.size(); i++)
      kept.push_back(cut(fields[i], shape_.columns[i].len));
    rows.push_front({row, kept});
  }

  std::vector<memdb_row *> matching(const values &wanted) const {
    std::vector<memdb_row *> out;
    for (const model_row &row : rows) {
      bool all = true;
      for (size_t i = 0; i < wanted.size(); i++)
        if (wanted[i] != nullptr && row.fields[i] != wanted[i]) all = false;
      if (all) out.push_back(row.row);
    }
    return out;
  }

  void remove(const memdb_row *row) {
    std::erase_if(rows, [row](const model_row &at) { return at.row == row; });
  }

  model_row &at(const memdb_row *row) {
    return *std::find_if(rows.begin(), rows.end(),
                         [row](const model_row &entry) { return entry.row == row; });
  }

  std::deque<model_row> rows;

 private:
  const shape &shape_;
};

// The chains as lists: what an indexed search sees also after texts were overwritten in place.
class chain_model {
 public:
  chain_model(const shape &columns, uint32_t buckets) : shape_(columns), buckets_(buckets) {
    for (size_t i = 0; i < columns.columns.size(); i++)
      chains_.emplace_back(columns.indexed(i) ? buckets : 0);
  }

  void link(const list_model &list, memdb_row *row, const texts &fields) {
    for (size_t col = 0; col < chains_.size(); col++) {
      if (!shape_.indexed(col)) continue;
      std::vector<memdb_row *> &chain = chains_[col][bucket(fields[col])];
      const auto place = std::find_if(chain.begin(), chain.end(), [&](memdb_row *at) {
        return compare(fields[col], text_of(list, at, col)) <= 0;
      });
      chain.insert(place, row);
    }
  }

  // Returns how many of the row's columns a look-up by the present text misses.
  size_t unlink(memdb_row *row, const texts &fields) {
    size_t missed = 0;
    for (size_t col = 0; col < chains_.size(); col++) {
      if (!shape_.indexed(col)) continue;
      if (std::erase(chains_[col][bucket(fields[col])], row) != 0) continue;
      missed++;
      for (std::vector<memdb_row *> &chain : chains_[col]) std::erase(chain, row);
    }
    return missed;
  }

  std::vector<memdb_row *> matching(const list_model &list, const values &wanted) const {
    size_t key = 0;
    while (key < wanted.size() && (wanted[key] == nullptr || !shape_.indexed(key))) key++;
    if (key == wanted.size()) return list.matching(wanted);
    const std::vector<memdb_row *> &chain = chains_[key][bucket(wanted[key])];
    auto at = std::find_if(chain.begin(), chain.end(), [&](memdb_row *row) {
      return compare(wanted[key], text_of(list, row, key)) <= 0;
    });
    const std::vector<memdb_row *> by_value = list.matching(wanted);
    std::vector<memdb_row *> out;
    for (; at != chain.end() && text_of(list, *at, key) == wanted[key]; ++at)
      if (std::find(by_value.begin(), by_value.end(), *at) != by_value.end()) out.push_back(*at);
    return out;
  }

  const std::vector<memdb_row *> &chain(size_t col, size_t number) const {
    return chains_[col][number];
  }

 private:
  static int compare(const std::string &a, const std::string &b) {
    return strcmp(a.c_str(), b.c_str());
  }

  static const std::string &text_of(const list_model &list, const memdb_row *row, size_t col) {
    return const_cast<list_model &>(list).at(row).fields[col];
  }

  size_t bucket(const std::string &text) const { return memdb_hash1(text.c_str()) % buckets_; }

  const shape &shape_;
  uint32_t buckets_;
  std::vector<std::vector<std::vector<memdb_row *>>> chains_;
};

class ModelTest : public EngineTest {
 protected:
  static std::vector<memdb_row *> rows_found(memdb_tbl *table, const values &wanted) {
    std::vector<memdb_row *> out;
    memdb_cursor cursor;
    for (memdb_row *row = memdb_select(table, wanted.data(), &cursor); row != nullptr;
         row = memdb_select_next(&cursor))
      out.push_back(row);
    return out;
  }

  static void expect_same_list(const memdb_tbl *table, const list_model &model) {
    std::vector<memdb_row *> expected;
    for (const model_row &row : model.rows) {
      expected.push_back(row.row);
      for (uint32_t i = 0; i < table->col_cnt; i++)
        ASSERT_EQ(text(table, row.row, i), row.fields[i]);
    }
    std::vector<memdb_row *> forward;
    for (memdb_row *row = table->first; row != nullptr; row = row->next) forward.push_back(row);
    ASSERT_EQ(forward, expected);
    std::vector<memdb_row *> backward;
    for (memdb_row *row = table->last; row != nullptr; row = row->prev) backward.push_back(row);
    std::reverse(backward.begin(), backward.end());
    ASSERT_EQ(backward, expected);
  }

  static void expect_same_chains(const memdb_tbl *table, const chain_model &model) {
    for (uint32_t col = 0; col < table->col_cnt; col++)
      for (uint32_t i = 0; i < table->cols[col].idx_len; i++)
        ASSERT_EQ(chain(table->cols[col], i), model.chain(col, i));
  }

  // One run of random operations; overwrites tells which columns may be overwritten.
  void run(uint32_t seed, bool overwrite_indexed) {
    random_source random(seed);
    const shape columns = random.table();
    const size_t count = columns.columns.size();
    static const uint32_t lengths[] = {1, 2, 3, 7, 13};
    memdb_idx_len = random.one_in(20) ? 512 : lengths[random.below(std::size(lengths))];
    memdb_tbl *const table = memdb_create_tbl(columns.columns.data(), static_cast<uint32_t>(count));
    list_model list(columns);
    chain_model chains(columns, memdb_idx_len);
    const auto wanted_texts = [&](texts *kept) {
      std::vector<bool> given;
      kept->clear();
      for (size_t i = 0; i < count; i++) {
        kept->push_back(random.text());
        given.push_back(random.one_in(2));
      }
      return pointers(*kept, given);
    };
    texts kept;
    for (int step = 0; step < 60; step++) {
      seen_.reports.clear();
      size_t missed = 0;
      switch (random.below(6)) {
        case 0:
        case 1: {  // insert, sometimes with a null, sometimes without memory
          texts fields;
          std::vector<bool> given;
          for (size_t i = 0; i < count; i++) {
            fields.push_back(random.text());
            given.push_back(!random.one_in(30));
          }
          const values row_values = pointers(fields, given);
          seen_.allocations = 0;
          seen_.fail_at = random.one_in(20) ? 1 : 0;
          memdb_row *const row = memdb_insert(table, row_values.data());
          const bool complete = std::find(given.begin(), given.end(), false) == given.end();
          ASSERT_EQ(row != nullptr, complete && seen_.fail_at == 0);
          if (row != nullptr) {
            list.add(row, fields);
            chains.link(list, row, list.rows.front().fields);
          } else if (seen_.fail_at == 0) {
            const auto null_col =
                static_cast<size_t>(std::find(given.begin(), given.end(), false) - given.begin());
            for (size_t i = null_col; i < count; i++)
              if (columns.indexed(i)) missed++;
          }
          seen_.fail_at = 0;
          break;
        }
        case 2: {  // delete a random row
          if (list.rows.empty()) break;
          const model_row doomed = list.rows[random.below(list.rows.size())];
          memdb_delete_row(table, doomed.row);
          list.remove(doomed.row);
          missed = chains.unlink(doomed.row, doomed.fields);
          break;
        }
        case 3: {  // overwrite a field
          if (list.rows.empty()) break;
          model_row &row = list.rows[random.below(list.rows.size())];
          const size_t col = random.below(count);
          if (columns.indexed(col) && !overwrite_indexed) break;
          const std::string value = random.text();
          ASSERT_EQ(memdb_set_field(table, row.row, static_cast<uint32_t>(col), value.c_str()),
                    row.row);
          row.fields[col] = cut(value, columns.columns[col].len);
          break;
        }
        case 4: {  // search
          const values wanted = wanted_texts(&kept);
          const std::vector<memdb_row *> expected =
              overwrite_indexed ? chains.matching(list, wanted) : list.matching(wanted);
          ASSERT_EQ(rows_found(table, wanted), expected);
          break;
        }
        default: {  // search and delete what was found, now and then all
          if (random.one_in(40)) {
            for (const model_row &row : list.rows) chains.unlink(row.row, row.fields);
            memdb_delete_all(table);
            list.rows.clear();
            break;
          }
          if (!random.one_in(4)) break;
          const values wanted = wanted_texts(&kept);
          memdb_cursor cursor;
          for (memdb_row *row = memdb_select(table, wanted.data(), &cursor); row != nullptr;) {
            memdb_row *const next = memdb_select_next(&cursor);
            memdb_delete_row(table, row);
            missed += chains.unlink(row, list.at(row).fields);
            list.remove(row);
            row = next;
          }
          break;
        }
      }
      ASSERT_EQ(seen_.reports.size(), missed) << "step " << step;
      if (step % 5 != 4) continue;
      expect_same_list(table, list);
      expect_same_chains(table, chains);
      if (HasFatalFailure()) return;
    }
    memdb_destroy_tbl(table);
    ASSERT_TRUE(seen_.live.empty());
    seen_.warnings.clear();
    seen_.errors.clear();
  }
};

TEST_F(ModelTest, RandomOperationsGiveWhatAPlainListWouldGive) {
  for (uint32_t seed = 0; seed < RUNS; seed++) {
    run(seed, false);
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
}

TEST_F(ModelTest, RandomOverwritesOfIndexedTextsGiveWhatTheChainsSay) {
  for (uint32_t seed = RUNS; seed < 2 * RUNS; seed++) {
    run(seed, true);
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace engine_test
