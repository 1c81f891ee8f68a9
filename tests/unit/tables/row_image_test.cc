// A row as one line of text.
#include "tables/rows/row_image.h"

#include "tests/unit/tables/fixture.h"

namespace tables_test {
namespace {

using RowImageTest = TablesTest;

TEST_F(RowImageTest, FieldsAreJoinedByBarsAsTheyStand) {
  start(table_spec{});
  const memdb_row *const row = add(table(), {"a", "", "c|\\*"});
  char buffer[100];
  EXPECT_EQ(row_image(table()->tbl, row, buffer), buffer);
  EXPECT_STREQ(buffer, "a||c|\\*");
}

TEST_F(RowImageTest, OneColumnHasNoBarAndNoColumnGivesNothing) {
  table_spec one;
  one.columns = {{"a", 5, 1}};
  start(one);
  char buffer[10] = "xxx";
  EXPECT_STREQ(row_image(table()->tbl, add(table(), {"abc"}), buffer), "abc");
  table_spec none;
  none.columns.clear();
  start(none);
  EXPECT_STREQ(row_image(table()->tbl, add(table(), {}), buffer), "");
}

TEST_F(RowImageTest, TheImageIsCutAtTheBuffersEnd) {
  start(table_spec{});
  const memdb_row *const row = add(table(), {"abc", "def", "ghi"});
  const std::string whole = "abc|def|ghi";
  for (size_t size = 1; size <= whole.size() + 2; size++) {
    std::vector<char> buffer(size, 'X');
    row_image(table()->tbl, row, buffer);
    EXPECT_EQ(std::string(buffer.data()), whole.substr(0, size - 1));
  }
}

}  // namespace
}  // namespace tables_test
