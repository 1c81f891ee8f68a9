// Deleting rows: list, chains, order of the steps, and rows whose indexed text was overwritten.
#include <algorithm>

#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

using DeleteTest = EngineTest;

constexpr char MISSED[] = "Could not find the index entry to remove\n";

TEST_F(DeleteTest, TheOnlyRowLeavesAnEmptyTable) {
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_delete_row(table, insert(table, {"a"}));
  EXPECT_EQ(table->first, nullptr);
  EXPECT_EQ(table->last, nullptr);
  EXPECT_EQ(found(table, {"a"}), texts{});
  EXPECT_EQ(found(table, {ANY}), texts{});
}

TEST_F(DeleteTest, FirstMiddleAndLastRowLeaveTheOthersLinked) {
  memdb_tbl *const table = make({{5, PLAIN}});
  for (const char *key : {"a", "b", "c", "d", "e"}) insert(table, {key});
  memdb_delete_row(table, table->first);
  EXPECT_EQ(listed(table), (texts{"d", "c", "b", "a"}));
  memdb_delete_row(table, table->last);
  EXPECT_EQ(listed(table), (texts{"d", "c", "b"}));
  memdb_delete_row(table, table->first->next);
  EXPECT_EQ(listed(table), (texts{"d", "b"}));
}

TEST_F(DeleteTest, ARowIsOneFree) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  memdb_row *const row = insert(table, {"a", "b"});
  seen_.frees = 0;
  memdb_delete_row(table, row);
  EXPECT_EQ(seen_.frees, 1);
}

TEST_F(DeleteTest, HeadMiddleAndTailOfAChainAreTakenOut) {
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const a = insert(table, {"a"});
  memdb_row *const b = insert(table, {"b"});
  memdb_row *const c = insert(table, {"c"});
  memdb_row *const d = insert(table, {"d"});
  memdb_delete_row(table, b);
  EXPECT_EQ(chain(table->cols[0], 0), (std::vector<memdb_row *>{a, c, d}));
  memdb_delete_row(table, a);
  EXPECT_EQ(chain(table->cols[0], 0), (std::vector<memdb_row *>{c, d}));
  memdb_delete_row(table, d);
  EXPECT_EQ(chain(table->cols[0], 0), std::vector<memdb_row *>{c});
  EXPECT_TRUE(seen_.reports.empty());
}

TEST_F(DeleteTest, AmongEqualKeysTheRowItselfGoes) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  insert(table, {"k", "1"});
  memdb_row *const second = insert(table, {"k", "2"});
  insert(table, {"k", "3"});
  memdb_delete_row(table, second);
  EXPECT_EQ(found(table, {"k", ANY}), (texts{"k|3", "k|1"}));
}

TEST_F(DeleteTest, TheRowLeavesItsChainsBeforeTheListAndThenIsFreed) {
  static memdb_tbl *watched;
  static memdb_row *doomed;
  static std::vector<bool> on_list;
  static bool listed_when_freed;
  watched = make({{5, INDEXED}});
  insert(watched, {"a"});
  doomed = insert(watched, {"b"});
  on_list.clear();
  listed_when_freed = true;
  memdb_log_err = [](const char *) { on_list.push_back(watched->first == doomed); };
  memdb_free = [](void *block) {
    if (block == doomed) listed_when_freed = watched->first == doomed;
    test_free(block);
  };
  memdb_set_field(watched, doomed, 0, "x");
  memdb_delete_row(watched, doomed);
  EXPECT_EQ(on_list, std::vector<bool>{true});
  EXPECT_FALSE(listed_when_freed);
  memdb_free = test_free;
}

TEST_F(DeleteTest, UnlinkingARowThatIsNoLongerInTheChainReports) {
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const row = insert(table, {"a"});
  memdb_delete_idx_entry(row, &table->cols[0]);
  EXPECT_TRUE(seen_.reports.empty());
  memdb_delete_idx_entry(row, &table->cols[0]);
  EXPECT_EQ(seen_.reports, texts{MISSED});
}

TEST_F(DeleteTest, AnOverwrittenRowIsReportedAndNoChainLeadsToItsBlock) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  insert(table, {"k", "1"});
  memdb_row *const row = insert(table, {"k", "2"});
  insert(table, {"k", "3"});
  memdb_set_field(table, row, 0, "new");
  memdb_delete_row(table, row);
  EXPECT_EQ(seen_.reports, texts{MISSED});
  EXPECT_EQ(listed(table), (texts{"k|3", "k|1"}));
  EXPECT_EQ(found(table, {"k", ANY}), (texts{"k|3", "k|1"}));
  EXPECT_EQ(found(table, {"new", ANY}), texts{});
  insert(table, {"k", "4"});
  EXPECT_EQ(found(table, {"k", ANY}), (texts{"k|4", "k|3", "k|1"}));
  EXPECT_EQ(chained(table->cols[0]), 3u);
  EXPECT_EQ(chained(table->cols[1]), 3u);
}

TEST_F(DeleteTest, AnOverwrittenRowIsTakenOutOfEveryPlaceInItsChain) {
  memdb_idx_len = 2;
  for (int place = 0; place < 4; place++) {
    memdb_tbl *const table = make({{5, INDEXED}});
    const values keys = {"a", "c", "e", "g"};  // one bucket: their codes are all odd
    std::vector<memdb_row *> rows;
    for (const char *key : keys) rows.push_back(insert(table, {key}));
    ASSERT_EQ(chain(table->cols[0], memdb_hash1("a") % 2).size(), 4u);
    memdb_set_field(table, rows[static_cast<size_t>(place)], 0, "b");
    memdb_delete_row(table, rows[static_cast<size_t>(place)]);
    EXPECT_EQ(chained(table->cols[0]), 3u);
    EXPECT_EQ(chain(table->cols[0], memdb_hash1("b") % 2).size(), 0u);
  }
  EXPECT_EQ(seen_.reports.size(), 4u);
}

TEST_F(DeleteTest, AnOverwrittenRowInTheSameBucketIsFoundAndNotReported) {
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const row = insert(table, {"a"});
  insert(table, {"b"});
  memdb_set_field(table, row, 0, "z");
  memdb_delete_row(table, row);
  EXPECT_TRUE(seen_.reports.empty());
  EXPECT_EQ(chained(table->cols[0]), 1u);
}

TEST_F(DeleteTest, EachOverwrittenColumnReports) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}, {5, INDEXED}});
  memdb_row *const row = insert(table, {"a", "b", "c"});
  memdb_set_field(table, row, 0, "x");
  memdb_set_field(table, row, 2, "y");
  memdb_delete_row(table, row);
  EXPECT_EQ(seen_.reports, (texts{MISSED, MISSED}));
  for (const memdb_col &col : memdb_cols(table)) EXPECT_EQ(chained(col), 0u);
}

TEST_F(DeleteTest, DeletingAllEmptiesListAndChainsWithoutAReport) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  const size_t own = seen_.live.size();
  for (const char *key : {"a", "b", "a", "c"}) insert(table, {key, key});
  memdb_set_field(table, table->first, 0, "moved");
  memdb_delete_all(table);
  EXPECT_TRUE(seen_.reports.empty());
  EXPECT_EQ(table->first, nullptr);
  EXPECT_EQ(table->last, nullptr);
  EXPECT_EQ(seen_.live.size(), own);
  EXPECT_EQ(chained(table->cols[0]), 0u);
  EXPECT_EQ(chained(table->cols[1]), 0u);
  memdb_delete_all(table);
  insert(table, {"a", "z"});
  EXPECT_EQ(found(table, {"a", ANY}), texts{"a|z"});
}

TEST_F(DeleteTest, DeletingAllGivesRowsBackNewestFirstAndDirectoriesBehindThem) {
  static std::vector<const void *> given_back;
  memdb_directories.plain_rows = 10;
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}});
  std::vector<const void *> rows;
  for (int i = 0; i < 40; i++) rows.push_back(insert(table, {std::to_string(i).c_str()}));
  EXPECT_FALSE(memdb_bucket_kind(table->cols[0].idx[0]).is_chain());
  given_back.clear();
  memdb_retire = [](void *block) {
    given_back.push_back(block);
    memdb_free(block);
  };
  memdb_delete_all(table);
  memdb_retire = [](void *block) { memdb_free(block); };
  ASSERT_EQ(given_back.size(), rows.size() + 1);
  EXPECT_TRUE(std::equal(rows.rbegin(), rows.rend(), given_back.begin()));
}

TEST_F(DeleteTest, ALoopThatTakesTheSuccessorFirstVisitsEveryRow) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  for (const char *key : {"a", "b", "c", "d"}) {
    insert(table, {"k", key});
    insert(table, {"other", key});
  }
  const values wanted = {"k", ANY};
  texts visited;
  memdb_cursor cursor;
  for (memdb_row *row = memdb_select(table, wanted.data(), &cursor); row != nullptr;) {
    visited.push_back(image(table, row));
    memdb_row *const next = memdb_select_next(&cursor);
    memdb_delete_row(table, row);
    row = next;
  }
  EXPECT_EQ(visited, (texts{"k|d", "k|c", "k|b", "k|a"}));
  EXPECT_EQ(listed(table).size(), 4u);
  EXPECT_EQ(found(table, {"k", ANY}), texts{});
}

}  // namespace
}  // namespace engine_test
