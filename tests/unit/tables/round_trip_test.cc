// What is stored and loaded again: rows that come back as they were, and rows that the reader takes
// for something else than the writer meant.
#include <random>

#include "tests/unit/tables/fixture.h"

namespace tables_test {
namespace {

class RoundTripTest : public TablesTest {
 protected:
  void store_and_load() {
    table()->state = TBL_CHANGED;
    ASSERT_TRUE(store_table(table()));
    standin::clear_logs();
    load_table(table());
  }

  // A changed table whose only row or rows the reader refuses: nothing is left of either file.
  void expect_refused(const std::string &line, const texts &told) {
    EXPECT_EQ(rows(table()), texts{});
    EXPECT_FALSE(exists(main_file()));
    EXPECT_FALSE(exists(backup_file()));
    texts expected = told;
    expected.push_back("Could not parse 't," + line + "'\n");
    EXPECT_EQ(errors(), expected);
  }

  static texts size_mismatch(const std::string &line) {
    return {"Size mismatch", "Wrong number of fields in field list: t," + line + " | (null)\n"};
  }
};

TEST_F(RoundTripTest, RowsComeBackInTheSameOrder) {
  start(table_spec{});
  add(table(), {"A", "1", "k"});
  add(table(), {"B", "2", "k"});
  add(table(), {"C", "", ""});
  store_and_load();
  EXPECT_EQ(rows(table()), (texts{"C||", "B|2|k", "A|1|k"}));
  EXPECT_EQ(table()->row_count, 3);
  EXPECT_EQ(table()->state, 0);
}

TEST_F(RoundTripTest, TextWithoutSpecialBytesComesBackAsItWas) {
  start(table_spec{});
  standin::set_debug_level(L_ERR);
  for (uint32_t seed = 0; seed < 300; seed++) {
    std::mt19937 random(seed);
    memdb_delete_all(table()->tbl);
    for (size_t i = random() % 20; i > 0; i--) {
      std::string fields[3];
      for (std::string &field : fields)
        for (size_t length = random() % 16; length > 0; length--) {
          const char c = static_cast<char>(random());
          if (c != '\0' && c != '|' && c != '\\' && c != '\n' && c != '*' &&
              !(c == '#' && field.empty()))
            field += c;
        }
      if (fields[0].empty()) fields[0] = "x";
      add(table(), {fields[0].c_str(), fields[1].c_str(), fields[2].c_str()});
    }
    const texts before = rows(table());
    store_and_load();
    ASSERT_EQ(rows(table()), before) << "seed " << seed;
  }
}

TEST_F(RoundTripTest, TheIndexGoesOnBehindTheHighestStoredOne) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  add(table(), {"12", "b", "c"});
  add(table(), {"3", "b", "c"});
  store_and_load();
  EXPECT_EQ(table()->next_index, 13u);
}

TEST_F(RoundTripTest, AHandWrittenCommentIsGoneAfterTheNextStore) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n# by hand\n4|5|6\n");
  load_table(table());
  EXPECT_EQ(rows(table()).size(), 2u);
  store_and_load();
  EXPECT_EQ(read(main_file()), "Version 1\n1|2|3\n4|5|6\n");
}

TEST_F(RoundTripTest, ATableReadFromTheBackupIsWrittenAtItsNextChange) {
  start(table_spec{});
  write(backup_file(), "Version 1\n1|2|3\n");
  load_table(table());
  EXPECT_TRUE(store_table(table()));
  EXPECT_FALSE(exists(main_file()));
  add(table(), {"4", "5", "6"});
  EXPECT_TRUE(store_table(table()));
  EXPECT_EQ(read(main_file()), "Version 1\n1|2|3\n4|5|6\n");
  EXPECT_EQ(read(backup_file()), "Version 1\n1|2|3\n");
}

// Writer against reader.

TEST_F(RoundTripTest, AFieldWithABarIsRefused) {
  start(table_spec{});
  add(table(), {"a|b", "2", "3"});
  store_and_load();
  expect_refused("a|b|2|3", size_mismatch("a|b|2|3"));
}

TEST_F(RoundTripTest, AFieldThatIsAStarIsRefused) {
  start(table_spec{});
  add(table(), {"1", "*", "3"});
  store_and_load();
  expect_refused("1|*|3", {"Wildcard are not allowed in INSERT operation\n"});
}

TEST_F(RoundTripTest, AStarAmongOtherTextComesBack) {
  start(table_spec{});
  add(table(), {"*a", "**", "a*"});
  store_and_load();
  EXPECT_EQ(rows(table()), texts{"*a|**|a*"});
}

TEST_F(RoundTripTest, ABackslashWithinAFieldIsLost) {
  start(table_spec{});
  add(table(), {"a\\b", "\\\\c", "\\*"});
  store_and_load();
  EXPECT_EQ(rows(table()), texts{"ab|\\c|*"});
  EXPECT_TRUE(errors().empty());
}

TEST_F(RoundTripTest, ABackslashAtAFieldsEndJoinsItWithTheNext) {
  start(table_spec{});
  add(table(), {"a\\", "2", "3"});
  store_and_load();
  expect_refused("a\\|2|3", size_mismatch("a\\|2|3"));
}

TEST_F(RoundTripTest, ABackslashAtTheLinesEndIsWarnedOfAndRefused) {
  start(table_spec{});
  add(table(), {"1", "2", "3\\"});
  store_and_load();
  EXPECT_TRUE(logged(L_WARN, "Bad escape detected\n"));
  expect_refused("1|2|3\\", {"Wrong input format for INSERT\n"});
}

TEST_F(RoundTripTest, ALineFeedCutsARowInTwo) {
  start(table_spec{});
  add(table(), {"1", "a\nb", "3"});
  store_and_load();
  expect_refused("1|a", size_mismatch("1|a"));
}

TEST_F(RoundTripTest, LineFeedsCanCutARowIntoPiecesThatLoad) {
  table_spec spec;
  spec.columns = {{"a", 10, 1}};
  start(spec);
  add(table(), {"x\ny"});
  store_and_load();
  EXPECT_EQ(rows(table()), (texts{"y", "x"}));
  EXPECT_EQ(table()->row_count, 2);
}

TEST_F(RoundTripTest, ARowThatBeginsWithAHashIsLostWithoutAWord) {
  start(table_spec{});
  add(table(), {"#1", "2", "3"});
  add(table(), {"4", "#5", "6"});
  store_and_load();
  EXPECT_EQ(rows(table()), texts{"4|#5|6"});
  EXPECT_TRUE(errors().empty());
  EXPECT_TRUE(warnings().empty());
}

TEST_F(RoundTripTest, ARowOfEmptyFieldsAloneIsRefused) {
  start(table_spec{});
  add(table(), {"", "", ""});
  store_and_load();
  expect_refused("||", {"Empty fields are not allowed in INSERT operation\n"});
}

TEST_F(RoundTripTest, AnEmptyRowOfAOneColumnTableIsLostWithoutAWord) {
  table_spec spec;
  spec.columns = {{"a", 10, 1}};
  start(spec);
  add(table(), {""});
  add(table(), {"x"});
  store_and_load();
  EXPECT_EQ(rows(table()), texts{"x"});
  EXPECT_TRUE(errors().empty());
}

TEST_F(RoundTripTest, AShorterColumnAfterAChangeOfSchemaCutsTheText) {
  start(table_spec{});
  add(table(), {"1", "long text", "3"});
  table()->state = TBL_CHANGED;
  store_table(table());
  table_spec narrower;
  narrower.columns[1].length = 4;
  start(narrower);
  load_table(table());
  EXPECT_EQ(rows(table()), texts{"1|long|3"});
  EXPECT_EQ(warnings(), texts{"Value 'long text' too long. It will be truncated to fit field size "
                              "(4 bytes)\n"});
}

TEST_F(RoundTripTest, AnotherNumberOfColumnsRefusesBothGenerations) {
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  store_table(table());
  add(table(), {"4", "5", "6"});
  store_table(table());
  table_spec wider;
  wider.columns.push_back({"d", 5, 0});
  start(wider);
  load_table(table());
  EXPECT_EQ(rows(table()), texts{});
  EXPECT_EQ(read(main_file() + ".refused"), "Version 1\n1|2|3\n4|5|6\n");
  EXPECT_EQ(read(backup_file() + ".refused"), "Version 1\n1|2|3\n");
}

TEST_F(RoundTripTest, ARefusedRowLeavesTheBackupOfTheGenerationBefore) {
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  store_table(table());
  add(table(), {"a|b", "2", "3"});
  store_and_load();
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
  EXPECT_EQ(table()->row_count, 1);
}

// A crash while the main file was written.

TEST_F(RoundTripTest, AFileCutWithinTheLastFieldLoadsAShorterRow) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n4|5|lon");
  load_table(table());
  EXPECT_EQ(rows(table()), (texts{"4|5|lon", "1|2|3"}));
  EXPECT_TRUE(errors().empty());
}

TEST_F(RoundTripTest, AFileCutWithinARowGivesTheBackup) {
  start(table_spec{});
  write(main_file(), "Version 1\n1|2|3\n4|5");
  write(backup_file(), "Version 1\n1|2|3\n");
  load_table(table());
  EXPECT_EQ(rows(table()), texts{"1|2|3"});
  EXPECT_FALSE(exists(main_file()));
}

}  // namespace
}  // namespace tables_test
