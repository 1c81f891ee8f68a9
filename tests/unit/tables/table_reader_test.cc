// The walk through one table file, and what a watch is told of it.
#include "tables/files/table_reader.h"

#include "tests/unit/tables/fixture.h"

namespace tables_test {
namespace {

struct notes : load_watch {
  notes() : load_watch{note_line, note_row} {}

  static void note_line(load_watch *self, int number, std::string_view text, bool has_end) {
    static_cast<notes *>(self)->told.push_back("line " + std::to_string(number) + " " +
                                               std::string(text) + (has_end ? "" : " (no end)"));
  }
  static void note_row(load_watch *self, int number, const query_in &in, const memdb_row *row) {
    static_cast<notes *>(self)->told.push_back("row " + std::to_string(number) + " " + in.flds[0] +
                                               " " + memdb_get_field(in.table->tbl, row, 0));
  }

  texts told;
};

class TableReaderTest : public TablesTest {
 protected:
  table_file_state read_with(const std::string &content) {
    write(main_file(), content);
    empty_table(table());
    return read_table_file(table(), main_file().c_str(), &watch);
  }

  notes watch;
};

TEST_F(TableReaderTest, AWatchIsToldOfEveryLineAndOfEachRowBehindItsLine) {
  start(table_spec{});
  EXPECT_EQ(read_with("Version 1\n1|2|3\n\n#x\n0123456789abcdefg||"), table_file_state::loaded);
  EXPECT_EQ(watch.told, (texts{"line 1 Version 1", "line 2 1|2|3", "row 2 1 1", "line 3 ",
                               "line 4 #x", "line 5 0123456789abcdefg|| (no end)",
                               "row 5 0123456789abcdefg 0123456789abcde"}));
}

TEST_F(TableReaderTest, ALineIsToldWithItsZeroBytes) {
  start(table_spec{});
  EXPECT_EQ(read_with(std::string("Version 1\n1|2|3\0|4\n", 19)), table_file_state::loaded);
  EXPECT_EQ(watch.told[1], std::string("line 2 1|2|3\0|4", 15));
}

TEST_F(TableReaderTest, TheRowsAheadOfARefusedLineAreInTheTable) {
  start(table_spec{});
  EXPECT_EQ(read_with("Version 1\n1|2|3\n4|5\n6|7|8\n"), table_file_state::refused);
  EXPECT_EQ(watch.told.back(), "line 3 4|5");
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
}

// A table is looked for by its name, as in any query.
TEST_F(TableReaderTest, RowsGoByTheTableThatTheirTablesNameFinds) {
  table_spec plain;
  table_spec escaped;
  escaped.name = "t\\x";
  table_spec twin = plain;
  twin.columns.pop_back();
  table_spec parted;
  parted.name = "t,1|2";
  start({plain, escaped, twin, parted});
  const auto read = [this](size_t n) {
    write(main_file(), "Version 1\n1|2|3\n");
    empty_table(table(n));
    return read_table_file(table(n), main_file().c_str(), &watch);
  };
  EXPECT_EQ(read(0), table_file_state::loaded);
  EXPECT_EQ(read(1), table_file_state::loaded);
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(read(2), table_file_state::refused);
  EXPECT_EQ(errors(), texts{"Could not parse 't,1|2|3'\n"});
  standin::clear_logs();
  EXPECT_EQ(read(3), table_file_state::refused);
  EXPECT_EQ(errors(),
            (texts{"Size mismatch", "Wrong number of fields in field list: t,1|2,1|2|3 | (null)\n",
                   "Could not parse 't,1|2,1|2|3'\n"}));
}

TEST_F(TableReaderTest, AnotherVersionAndAnEmptyFileAreRefused) {
  start(table_spec{});
  EXPECT_EQ(read_with("Version 2\n1|2|3\n"), table_file_state::refused);
  EXPECT_EQ(watch.told, texts{"line 1 Version 2"});
  watch.told.clear();
  EXPECT_EQ(read_with(""), table_file_state::refused);
  EXPECT_EQ(watch.told, texts{});
}

TEST_F(TableReaderTest, AFileThatIsNotThereDoesNotExistAndCannotBeOpened) {
  start(table_spec{});
  EXPECT_FALSE(table_file_exists(main_file().c_str()));
  EXPECT_EQ(read_table_file(table(), main_file().c_str(), nullptr), table_file_state::unopened);
  EXPECT_EQ(errors(), texts{message("Could not open file '%s'\n", main_file().c_str())});
  write(main_file(), "");
  EXPECT_TRUE(table_file_exists(main_file().c_str()));
}

}  // namespace
}  // namespace tables_test
