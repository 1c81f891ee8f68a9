// Overwriting a field in place, and what it does to searches by an indexed column.
#include "tests/unit/memdb/engine_fixture.h"

namespace engine_test {
namespace {

using SetFieldTest = EngineTest;

TEST_F(SetFieldTest, TheTextIsReplacedAndTheRowKeepsItsPlace) {
  memdb_tbl *const table = make({{5, PLAIN}, {5, PLAIN}});
  insert(table, {"a", "1"});
  memdb_row *const row = insert(table, {"b", "2"});
  insert(table, {"c", "3"});
  EXPECT_EQ(memdb_set_field(table, row, 1, "new"), row);
  EXPECT_EQ(listed(table), (texts{"c|3", "b|new", "a|1"}));
  EXPECT_EQ(found(table, {ANY, "new"}), texts{"b|new"});
  EXPECT_EQ(found(table, {ANY, "2"}), texts{});
}

TEST_F(SetFieldTest, AShorterAndAnEmptyTextReplaceTheWhole) {
  memdb_tbl *const table = make({{7, PLAIN}});
  memdb_row *const row = insert(table, {"1234567"});
  memdb_set_field(table, row, 0, "ab");
  EXPECT_EQ(text(table, row, 0), "ab");
  memdb_set_field(table, row, 0, "");
  EXPECT_EQ(text(table, row, 0), "");
  EXPECT_TRUE(seen_.warnings.empty());
}

TEST_F(SetFieldTest, ATextThatFitsExactlyGivesNoWarningAndALongerOneIsCut) {
  memdb_tbl *const table = make({{7, PLAIN}, {3, PLAIN}});
  memdb_row *const row = insert(table, {"x", "abc"});
  memdb_set_field(table, row, 0, "1234567");
  EXPECT_TRUE(seen_.warnings.empty());
  EXPECT_EQ(image(table, row), "1234567|abc");
  memdb_set_field(table, row, 0, "abcdefghij");
  EXPECT_EQ(image(table, row), "abcdefg|abc");
  EXPECT_EQ(
      seen_.warnings,
      texts{"Value 'abcdefghij' too long. It will be truncated to fit field size (7 bytes)\n"});
}

TEST_F(SetFieldTest, TheLastByteOfTheFieldIsATerminatorAfterwards) {
  memdb_tbl *const table = make({{7, PLAIN}, {3, PLAIN}});
  memdb_row *const row = insert(table, {"", "abc"});
  memdb_data(row)[7] = 'X';
  memdb_set_field(table, row, 0, "ab");
  EXPECT_EQ(memdb_data(row)[7], '\0');
  EXPECT_EQ(image(table, row), "ab|abc");
}

const char *watched;
std::string met;
void look_at_watched(memdb_log_level, const memdb_log_site &, const char *, ...) { met = watched; }

// What a log line costs isn't added to the time in which a reader may meet half a text.
TEST_F(SetFieldTest, ATextThatIsCutStandsBeforeThatIsTold) {
  memdb_tbl *const table = make({{7, PLAIN}});
  memdb_row *const row = insert(table, {"abc"});
  watched = memdb_get_field(table, row, 0);
  memdb_log_sink = look_at_watched;
  memdb_set_field(table, row, 0, "much too long");
  EXPECT_EQ(met, "much to");
}

TEST_F(SetFieldTest, NothingIsAllocated) {
  memdb_tbl *const table = make({{7, INDEXED}});
  memdb_row *const row = insert(table, {"abc"});
  seen_.allocations = 0;
  memdb_set_field(table, row, 0, "def");
  EXPECT_EQ(seen_.allocations, 0);
}

TEST_F(SetFieldTest, AnIndexedRowIsFoundByNeitherTextButByAFullScan) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  memdb_row *const row = insert(table, {"a", "1"});
  memdb_set_field(table, row, 0, "abc");
  ASSERT_NE(memdb_hash1("a") % 512, memdb_hash1("abc") % 512);
  EXPECT_EQ(found(table, {"abc", ANY}), texts{});
  EXPECT_EQ(found(table, {"a", ANY}), texts{});
  EXPECT_EQ(found(table, {ANY, ANY}), texts{"abc|1"});
  EXPECT_EQ(found(table, {ANY, "1"}), texts{"abc|1"});
  EXPECT_EQ(table->cols[0].idx[107], row);
}

TEST_F(SetFieldTest, AnIndexedRowIsFoundByTheNewTextWhereBothShareABucket) {
  memdb_idx_len = 1;
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const row = insert(table, {"a"});
  memdb_set_field(table, row, 0, "b");
  EXPECT_EQ(found(table, {"b"}), texts{"b"});
  EXPECT_EQ(found(table, {"a"}), texts{});
}

TEST_F(SetFieldTest, ATextSetBackIsFoundAgain) {
  memdb_tbl *const table = make({{5, INDEXED}});
  memdb_row *const row = insert(table, {"a"});
  memdb_set_field(table, row, 0, "b");
  memdb_set_field(table, row, 0, "a");
  EXPECT_EQ(found(table, {"a"}), texts{"a"});
  memdb_delete_row(table, row);
  EXPECT_TRUE(seen_.reports.empty());
}

TEST_F(SetFieldTest, AnOverwrittenRowHidesItsEqualsBehindIt) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, PLAIN}});
  insert(table, {"k", "1"});
  memdb_row *const middle = insert(table, {"k", "2"});
  insert(table, {"k", "3"});
  memdb_set_field(table, middle, 0, "z");
  EXPECT_EQ(found(table, {"k", ANY}), texts{"k|3"});
  memdb_set_field(table, middle, 0, "k");
  EXPECT_EQ(found(table, {"k", ANY}).size(), 3u);
}

TEST_F(SetFieldTest, OtherIndexesOfTheRowStillFindIt) {
  memdb_tbl *const table = make({{5, INDEXED}, {5, INDEXED}});
  memdb_row *const row = insert(table, {"a", "b"});
  memdb_set_field(table, row, 0, "x");
  EXPECT_EQ(found(table, {ANY, "b"}), texts{"x|b"});
}

}  // namespace
}  // namespace engine_test
