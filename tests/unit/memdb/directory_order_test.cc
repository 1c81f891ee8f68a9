// The chain that a directory becomes ahead of an overwrite is in the order of the texts, whatever
// they look like, with memory for a sort and without.
#include <algorithm>
#include <random>

#include "memdb/index/text_order.h"
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

constexpr uint32_t LONGEST = 40;

std::string numbered(const char *beginning, size_t number, const char *ending = "") {
  return beginning + std::to_string(number) + ending;
}

class DirectoryOrderTest : public EngineTest {
 protected:
  DirectoryOrderTest() {
    memdb_log_err = nullptr;
    memdb_idx_len = 1;
    memdb_directories = {.plain_rows = 0, .plain_chain = 1, .slots_in_one = 4096};
  }

  // The rows of these texts, inserted in a random order, in the order of the chain that they
  // become.
  void expect_order(texts all, bool has_memory) {
    SCOPED_TRACE(has_memory ? "with memory" : "without memory");
    memdb_tbl *const table = make({{7, PLAIN}, {LONGEST, INDEXED}});
    std::shuffle(all.begin(), all.end(), random_);
    std::vector<std::pair<std::string, memdb_row *>> expected;
    for (const std::string &key : all) expected.emplace_back(key, insert(table, {"", key.c_str()}));
    // Newest first, and by unsigned bytes, as a string's operator has it.
    std::reverse(expected.begin(), expected.end());
    std::stable_sort(expected.begin(), expected.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });

    memdb_col &col = table->cols[1];
    ASSERT_FALSE(memdb_bucket_kind(col.idx[0]).is_chain());
    seen_.allocations = 0;
    seen_.fail_at = has_memory ? 0 : 1;
    const size_t live = seen_.live.size();
    memdb_set_field(table, table->first, 1, "overwritten");
    EXPECT_EQ(seen_.allocations, 1);
    EXPECT_LT(seen_.live.size(), live);
    const std::vector<memdb_row *> rows = chain(col, 0);
    ASSERT_EQ(rows.size(), expected.size());
    for (size_t i = 0; i < rows.size(); i++)
      ASSERT_EQ(rows[i], expected[i].second) << "place " << i << ": " << expected[i].first;
    destroy(table);
  }
  void expect_order(const texts &all) {
    expect_order(all, true);
    expect_order(all, false);
  }

  std::string any_text(size_t length, unsigned char lowest, unsigned char highest) {
    std::string out(length, '\0');
    for (char &c : out) c = static_cast<char>(lowest + random_() % (highest - lowest + 1U));
    return out;
  }

  std::mt19937 random_{20250601};  // NOLINT(cert-msc51-cpp): the same texts in every run
};

TEST_F(DirectoryOrderTest, TextsOfACommonBeginning) {
  texts all;
  for (size_t i = 0; i < 10000; i++) all.push_back(numbered("sip:+4930", i * 977, "@x.example"));
  expect_order(all);
}

TEST_F(DirectoryOrderTest, FewTexts) {
  for (const size_t count : {16u, 63u, 64u, 65u, 66u, 129u, 511u}) {
    texts all;
    for (size_t i = 0; i < count; i++) all.push_back(numbered("", i));
    expect_order(all);
  }
}

TEST_F(DirectoryOrderTest, TextsThatEndWhereOthersGoOnAndTheEmptyText) {
  texts all;
  for (size_t i = 0; i <= LONGEST; i++)
    for (const char *ending : {"", "b"}) all.push_back(std::string(i, 'a') + ending);
  all.resize(all.size() - 1);
  expect_order(all);
  for (std::string &one : all)
    one.insert(0, "a beginning").resize(std::min<size_t>(one.size(), 40));
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  expect_order(all);
}

TEST_F(DirectoryOrderTest, BytesOfAllValues) {
  texts all;
  for (size_t i = 0; i < 5000; i++) all.push_back(any_text(LONGEST, 1, 255));
  for (size_t i = 0; i < 5000; i++) all.push_back(any_text(1 + i % 12, 126, 129));
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  expect_order(all);
}

TEST_F(DirectoryOrderTest, TextsThatAreAlikeFarBeyondTheirBeginning) {
  texts all;
  for (size_t i = 0; i < 40; i++)
    for (size_t k = 0; k < 100; k++)
      all.push_back(numbered("", i, "aaaaaaaaaaaaaaaaaaaaaaaa") +
                    numbered("", k, k % 2 ? "" : "b"));
  expect_order(all);
}

TEST_F(DirectoryOrderTest, TextsThatFillTheirColumn) {
  texts all;
  for (size_t i = 0; i < 3000; i++) {
    std::string text(LONGEST, i % 3 == 0 ? 'x' : 'y');
    const std::string number = std::to_string(i);
    all.push_back(text.replace(LONGEST - number.size(), number.size(), number));
  }
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  expect_order(all);
}

// Among so many others that a look at some of them doesn't tell.
TEST_F(DirectoryOrderTest, AFewTextsOfAnotherBeginning) {
  constexpr size_t COUNT = 12800;
  memdb_tbl *const table = make({{7, PLAIN}, {LONGEST, INDEXED}});
  texts all;
  for (size_t i = 0; i < COUNT; i++) {
    const bool is_other = i % 100 == 50;
    const char *const other = i % 300 == 50 ? "tel:+" : i % 300 == 150 ? "\xE4" : "sip:";
    all.push_back(numbered(is_other ? other : "sip:user", i * 7919 % COUNT));
  }
  std::vector<uint64_t> rows;
  for (const std::string &key : all)
    rows.push_back(reinterpret_cast<uintptr_t>(insert(table, {"", key.c_str()})));
  std::vector<uint64_t> spare(COUNT);
  memdb_order_by_text(rows, spare, &table->cols[1]);
  std::sort(all.begin(), all.end());
  for (size_t i = 0; i < COUNT; i++)
    ASSERT_EQ(text(table, memdb_row_at(rows[i]), 1), all[i]) << "place " << i;
}

TEST_F(DirectoryOrderTest, SeveralRowsOfEachText) {
  texts all;
  for (size_t i = 0; i < 400; i++)
    for (size_t twin = 0; twin <= i % 7 * (i % 3); twin++) all.push_back(numbered("user", i));
  expect_order(all);
}

}  // namespace
}  // namespace engine_test
