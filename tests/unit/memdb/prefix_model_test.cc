// Look-ups for prefixes against a walk of the rows, over thousands of seeded runs of random
// operations on random tables.
#include <random>

#include "tests/unit/memdb/prefix_fixture.h"

namespace engine_test {
namespace {

constexpr uint32_t RUNS = 1000;  // of each kind

struct run_kind {
  bool overwrites;  // of any column
  bool short_memory;
};

struct form {
  uint32_t main;
  uint32_t given;
};

class random_run {
 public:
  random_run(memdb_tbl *table, uint32_t seed) : table_(table), engine_(seed) {}

  size_t below(size_t limit) { return engine_() % limit; }
  bool one_in(size_t n) { return below(n) == 0; }

  // Few distinct entries and groups, so that there are ties; some are cut at their column's size.
  std::string text() {
    static const char *const some[] = {"",  "1",  "12", "121",  "1212",
                                       "2", "21", "11", "\xE4", "12121212121"};
    return some[below(std::size(some))];
  }

  texts row() {
    texts out;
    for (uint32_t i = 0; i < table_->col_cnt; i++) out.push_back(text());
    return out;
  }

  form form_of_table() {
    return {static_cast<uint32_t>(below(table_->col_cnt)),
            static_cast<uint32_t>(below(size_t{1} << table_->col_cnt))};
  }

  std::string key() {
    std::string out;
    for (size_t len = 1 + below(7); len > 0; len--) out += one_in(3) ? '2' : '1';
    return one_in(20) ? "\xE4" + out : out;
  }

  // A row's texts are searched for as often as random ones.
  std::string group(uint32_t col) {
    if (rows.empty() || one_in(2)) return text();
    return memdb_get_field(table_, rows[below(rows.size())], col);
  }

  std::vector<memdb_row *> rows;

 private:
  memdb_tbl *table_;
  std::mt19937 engine_;
};

class PrefixModelTest : public PrefixTest {
 protected:
  memdb_tbl *random_table(random_run *random) {
    std::vector<tbl_dcl> columns;
    for (size_t count = 1 + random->below(4); count > 0; count--)
      columns.push_back(
          {static_cast<uint32_t>(1 + random->below(5)), random->one_in(3) ? INDEXED : PLAIN});
    memdb_idx_len = random->one_in(2) ? 1 : 512;
    return memdb_create_tbl(columns.data(), static_cast<uint32_t>(columns.size()));
  }

  void change(memdb_tbl *table, random_run *random, const run_kind &kind) {
    const size_t what = random->below(20);
    if (what < 10 || random->rows.empty()) {
      if (kind.short_memory && random->one_in(8))
        seen_.fail_at = seen_.allocations + 1 + static_cast<int>(random->below(3));
      const texts texts_of_row = random->row();
      values fields;
      for (const std::string &text : texts_of_row) fields.push_back(text.c_str());
      memdb_row *const row = memdb_insert(table, fields.data());
      if (row != nullptr) random->rows.push_back(row);
    } else if (what < 15) {
      const size_t at = random->below(random->rows.size());
      memdb_delete_row(table, random->rows[at]);
      random->rows.erase(random->rows.begin() + static_cast<ptrdiff_t>(at));
    } else if (what < 19) {
      if (!kind.overwrites) return;
      memdb_row *const row = random->rows[random->below(random->rows.size())];
      memdb_set_field(table, row, static_cast<uint32_t>(random->below(table->col_cnt)),
                      random->text().c_str());
    } else if (random->one_in(4)) {
      memdb_delete_all(table);
      random->rows.clear();
    }
  }

  // Nothing if the look-up leaves it to the walk.
  std::optional<bool> agrees(memdb_tbl *table, random_run *random, const form &asked) {
    texts given(table->col_cnt);
    values fields(table->col_cnt, ANY);
    for (uint32_t i = 0; i < table->col_cnt; i++) {
      if (i == asked.main || (asked.given >> i & 1) == 0) continue;
      given[i] = random->group(i);
      fields[i] = given[i].c_str();
    }
    const std::string key = random->key();
    const int32_t most = random->one_in(10) ? static_cast<int32_t>(random->below(30)) : INT32_MAX;
    const memdb_prefix_search search{asked.main, key.c_str(), fields.data(), most};
    const std::optional<found_rows> found = look_up_prefix(table, search);
    asked_++;
    if (!found) return std::nullopt;
    answered_++;
    several_ += found->size() > 1 ? 1 : 0;
    return *found == walk_for_prefix(table, search);
  }

  // False if some answer isn't what the walk gives.
  bool all_agree(uint32_t seed, const run_kind &kind) {
    bool agree = true;
    memdb_tbl *table;
    {
      random_run first(nullptr, seed);
      memdb_prefixes.rows = first.one_in(2) ? 0 : static_cast<uint32_t>(first.below(24));
      memdb_prefixes.slots_in_one = first.one_in(2) ? as_built_.slots_in_one : 128;
      table = random_table(&first);
    }
    random_run random(table, seed + 1);
    std::vector<form> forms;
    // Some go on until slots grow and shrink.
    const size_t operations = random.one_in(10) ? 600 : 100;
    for (size_t i = 0; i < operations && agree; i++) {
      if (forms.size() < 2 && random.one_in(10)) {
        forms.push_back(random.form_of_table());
        memdb_want_prefixes(table, forms.back().main, forms.back().given);
      }
      change(table, &random, kind);
      seen_.fail_at = 0;
      for (const form &asked : forms)
        for (int search = 0; search < 2; search++)
          agree = agree && agrees(table, &random, asked).value_or(true);
    }
    memdb_destroy_tbl(table);
    return agree;
  }

  // STRESS_SEEDS asks for another number of runs.
  void run_all(const run_kind &kind) {
    const char *const asked_for = getenv("STRESS_SEEDS");
    const uint32_t runs = asked_for != nullptr ? static_cast<uint32_t>(atoi(asked_for)) : RUNS;
    for (uint32_t seed = 0; seed < runs; seed++)
      ASSERT_TRUE(all_agree(seed * 2, kind)) << "seed " << seed;
  }

  size_t asked_ = 0;
  size_t answered_ = 0;
  size_t several_ = 0;  // answers of more than one row
};

TEST_F(PrefixModelTest, LookUpsFindWhatAWalkFinds) {
  run_all({false, false});
  EXPECT_GT(answered_, asked_ / 3);
  EXPECT_GT(several_, asked_ / 20);
}

TEST_F(PrefixModelTest, LookUpsFindWhatAWalkFindsThoughTextsAreOverwritten) {
  run_all({true, false});
  EXPECT_GT(answered_, asked_ / 5);
  EXPECT_GT(several_, asked_ / 40);
}

TEST_F(PrefixModelTest, LookUpsFindWhatAWalkFindsThoughMemoryIsShort) {
  run_all({true, true});
  EXPECT_GT(answered_, asked_ / 20);
  EXPECT_EQ(seen_.reports.empty(), false) << "indexed texts are overwritten";
}

TEST_F(PrefixModelTest, EachFaultOfTheWalkIsNoticed) {
  for (const walk_fault fault :
       {walk_fault::oldest_first, walk_fault::first_alone, walk_fault::first_length,
        walk_fault::no_default, walk_fault::any_text}) {
    planted_in_walk = fault;
    bool agree = true;
    for (uint32_t seed = 0; seed < 100 && agree; seed++) agree = all_agree(seed * 2, {true, false});
    planted_in_walk = walk_fault::none;
    EXPECT_FALSE(agree) << static_cast<int>(fault);
  }
}

}  // namespace
}  // namespace engine_test
