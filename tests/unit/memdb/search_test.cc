// The cursor search: which column leads, which rows match, in which order they come.
#include "memdb/search.h"

#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

class SearchTest : public EngineTest {
 protected:
  int32_t key_col(memdb_tbl *table, const values &wanted) {
    memdb_cursor cursor;
    memdb_select(table, wanted.data(), &cursor);
    EXPECT_EQ(cursor.tbl, table);
    EXPECT_EQ(cursor.values, wanted.data());
    return cursor.key_col;
  }
};

TEST_F(SearchTest, AllWildcardsOnAnEmptyTableFindNothingAndClearTheCursor) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  const values wanted = {ANY, ANY};
  memdb_row stray{};
  memdb_cursor cursor{&stray, nullptr, nullptr, 77};
  EXPECT_EQ(memdb_select(table, wanted.data(), &cursor), nullptr);
  EXPECT_EQ(cursor.row, nullptr);
  EXPECT_EQ(cursor.key_col, -1);
}

TEST_F(SearchTest, TheFirstIndexedColumnWithAValueLeads) {
  memdb_tbl *const table = make({{5, PLAIN}, {5, PLAIN}, {5, INDEXED}, {5, INDEXED}});
  EXPECT_EQ(key_col(table, {"a", ANY, "b", ANY}), 2);
  EXPECT_EQ(key_col(table, {"a", "a", "b", "c"}), 2);
  EXPECT_EQ(key_col(table, {ANY, ANY, ANY, "c"}), 3);
  EXPECT_EQ(key_col(table, {"a", "b", ANY, "c"}), 3);
}

TEST_F(SearchTest, WithoutAnIndexedValueTheFirstValueLeads) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}, {5, PLAIN}});
  EXPECT_EQ(key_col(table, {ANY, "a", "b"}), 1);
  EXPECT_EQ(key_col(table, {ANY, ANY, "b"}), 2);
  EXPECT_EQ(key_col(table, {ANY, ANY, ANY}), -1);
  EXPECT_EQ(key_col(table, {ANY, "", "b"}), 1);
}

TEST_F(SearchTest, APlainColumnIsComparedWhereAnIndexedOneLeads) {
  memdb_tbl *const table = make({{5, PLAIN}, {5, PLAIN}, {5, INDEXED}});
  insert(table, {"a", "1", "k"});
  insert(table, {"b", "2", "k"});
  insert(table, {"a", "3", "k"});
  insert(table, {"a", "4", "other"});
  EXPECT_EQ(found(table, {"a", ANY, "k"}), (texts{"a|3|k", "a|1|k"}));
  EXPECT_EQ(found(table, {"c", ANY, "k"}), texts{});
}

TEST_F(SearchTest, EveryKindOfSearchGivesTheNewestFirst) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}, {5, PLAIN}});
  for (const char *number : {"1", "2", "3"}) insert(table, {"k", "p", number});
  const texts newest_first = {"k|p|3", "k|p|2", "k|p|1"};
  EXPECT_EQ(found(table, {ANY, ANY, ANY}), newest_first);
  EXPECT_EQ(found(table, {"k", ANY, ANY}), newest_first);
  EXPECT_EQ(found(table, {ANY, "p", ANY}), newest_first);
  EXPECT_EQ(found(table, {"k", "p", ANY}), newest_first);
}

TEST_F(SearchTest, TextsAreComparedWholeAndByCase) {
  memdb_tbl *const table = make({{7, INDEXED}, {7, PLAIN}});
  insert(table, {"abc", "abc"});
  EXPECT_EQ(found(table, {"ab", ANY}), texts{});
  EXPECT_EQ(found(table, {"abcd", ANY}), texts{});
  EXPECT_EQ(found(table, {"ABC", ANY}), texts{});
  EXPECT_EQ(found(table, {ANY, "ab"}), texts{});
  EXPECT_EQ(found(table, {ANY, "abcd"}), texts{});
  EXPECT_EQ(found(table, {"abc", "abc"}).size(), 1u);
}

TEST_F(SearchTest, AnEmptyWantedTextMatchesOnlyAnEmptyField) {
  memdb_tbl *const table = make({{7, INDEXED}, {7, PLAIN}});
  insert(table, {"a", ""});
  insert(table, {"", "b"});
  EXPECT_EQ(found(table, {"", ANY}), texts{"|b"});
  EXPECT_EQ(found(table, {ANY, ""}), texts{"a|"});
  EXPECT_EQ(found(table, {"", ""}), texts{});
}

TEST_F(SearchTest, AnIndexedSearchStopsAtTheFirstGreaterChainEntry) {
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}});
  insert(table, {"b"});
  memdb_row *const behind = insert(table, {"d"});
  EXPECT_EQ(found(table, {"c"}), texts{});
  // A walk that went on past "b" would now find the row behind it.
  memdb_set_field(table, behind, 0, "a");
  EXPECT_EQ(found(table, {"a"}), texts{});
  EXPECT_EQ(memdb_idx_find(&table->cols[0], "a"), nullptr);
  EXPECT_EQ(found(table, {ANY}), (texts{"a", "b"}));
}

TEST_F(SearchTest, AMissLeavesTheCursorsRow) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  insert(table, {"a", "b"});
  memdb_row stray{};
  for (const values &wanted : {values{"x", ANY}, values{ANY, "x"}, values{"a", "x"}}) {
    memdb_cursor cursor{&stray, nullptr, nullptr, 0};
    EXPECT_EQ(memdb_select(table, wanted.data(), &cursor), nullptr);
    EXPECT_EQ(cursor.row, &stray);
  }
}

TEST_F(SearchTest, TheEndOfASearchByValueLeavesTheCursorOnTheLastRow) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  memdb_row *const row = insert(table, {"a", "b"});
  insert(table, {"a2", "b2"});
  for (const values &wanted : {values{"a", ANY}, values{ANY, "b"}}) {
    memdb_cursor cursor;
    EXPECT_EQ(memdb_select(table, wanted.data(), &cursor), row);
    EXPECT_EQ(cursor.row, row);
    EXPECT_EQ(memdb_select_next(&cursor), nullptr);
    EXPECT_EQ(cursor.row, row);
    EXPECT_EQ(memdb_select_next(&cursor), nullptr);
  }
}

TEST_F(SearchTest, TheEndOfAFullScanClearsTheCursor) {
  memdb_tbl *const table = make({{5, PLAIN}});
  memdb_row *const older = insert(table, {"a"});
  memdb_row *const newer = insert(table, {"b"});
  const values wanted = {ANY};
  memdb_cursor cursor;
  EXPECT_EQ(memdb_select(table, wanted.data(), &cursor), newer);
  EXPECT_EQ(memdb_select_next(&cursor), older);
  EXPECT_EQ(cursor.row, older);
  EXPECT_EQ(memdb_select_next(&cursor), nullptr);
  EXPECT_EQ(cursor.row, nullptr);
}

TEST_F(SearchTest, SearchesAllocateNothing) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  for (const char *number : {"1", "2", "3"}) insert(table, {"k", number});
  seen_.allocations = 0;
  found(table, {"k", ANY});
  found(table, {ANY, "2"});
  found(table, {ANY, ANY});
  EXPECT_EQ(seen_.allocations, 0);
}

TEST_F(SearchTest, WantedTextsMayBeLongerThanTheColumn) {
  memdb_tbl *const table = make({{3, INDEXED}, {3, PLAIN}});
  insert(table, {"abcdef", "abcdef"});
  const std::string longer(5000, 'a');
  EXPECT_EQ(found(table, {longer.c_str(), ANY}), texts{});
  EXPECT_EQ(found(table, {ANY, "abcdef"}), texts{});
  EXPECT_EQ(found(table, {"abc", "abc"}).size(), 1u);
}

TEST_F(SearchTest, FindingAlongTheListStartsAtTheGivenRow) {
  memdb_tbl *const table = make({{5, PLAIN}});
  memdb_row *const oldest = insert(table, {"a"});
  insert(table, {"b"});
  memdb_row *const newest = insert(table, {"a"});
  const memdb_col *const col = &table->cols[0];
  EXPECT_EQ(memdb_find(table->first, col, "a"), newest);
  EXPECT_EQ(memdb_find(newest->next, col, "a"), oldest);
  EXPECT_EQ(memdb_find(oldest->next, col, "a"), nullptr);
  EXPECT_EQ(memdb_find(nullptr, col, "a"), nullptr);
  EXPECT_EQ(memdb_find(table->first, col, "c"), nullptr);
}

TEST_F(SearchTest, TheNextOfAChainEndsAtAnotherKeyOrTheChainsEnd) {
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const b = insert(table, {"b"});
  memdb_row *const a1 = insert(table, {"a"});
  memdb_row *const a2 = insert(table, {"a"});
  const memdb_col *const col = &table->cols[0];
  EXPECT_EQ(memdb_idx_find(col, "a"), a2);
  EXPECT_EQ(memdb_idx_next_res(a2, col, "a"), a1);
  EXPECT_EQ(memdb_idx_next_res(a1, col, "a"), nullptr);
  EXPECT_EQ(memdb_idx_next_res(b, col, "b"), nullptr);
  EXPECT_EQ(memdb_idx_find(col, "c"), nullptr);
}

TEST_F(SearchTest, MatchingPassesOverOneColumnAndWildcards) {
  memdb_tbl *const table = make({{5, PLAIN}, {5, INDEXED}, {5, PLAIN}});
  const memdb_row *const row = insert(table, {"a", "b", ""});
  const auto matches = [&](int32_t skipped, const values &wanted) {
    return memdb_row_match(table, row, skipped, wanted.data());
  };
  EXPECT_EQ(matches(-1, {"a", "b", ""}), 1);
  EXPECT_EQ(matches(-1, {ANY, ANY, ANY}), 1);
  EXPECT_EQ(matches(-1, {"x", ANY, ANY}), 0);
  EXPECT_EQ(matches(0, {"x", "b", ""}), 1);
  EXPECT_EQ(matches(1, {"a", "x", ANY}), 1);
  EXPECT_EQ(matches(2, {"a", "b", "x"}), 1);
  EXPECT_EQ(matches(2, {"a", "x", "x"}), 0);
  EXPECT_EQ(matches(-1, {"a", "b", "c"}), 0);
}

TEST_F(SearchTest, AFieldIsAViewIntoTheRow) {
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const row = insert(table, {"abc"});
  EXPECT_EQ(memdb_get_field(table, row, 0), memdb_data(row) + table->cols[0].offset);
}

}  // namespace
}  // namespace engine_test
