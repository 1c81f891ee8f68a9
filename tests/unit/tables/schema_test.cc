// Reading the schema file: its grammar line by line, and what happens where lines are missing, out
// of order, too long or cut off.
#include <cstdint>
#include <functional>
#include <map>
#include <random>

#include "tests/unit/tables/fixture.h"

namespace tables_test {
namespace {

constexpr char BAD_LINE[] = "Error on reading! Maybe a line is missing";

using lines = std::vector<std::string>;

std::string joined(const lines &all) {
  std::string out;
  for (const std::string &line : all) out += line + '\n';
  return out;
}

lines good_head() { return {"BASE_DIR=/var/main/", "BASE_BACKUP_DIR=/var/backup/", "NUM_TABLE=2"}; }

lines port_block() {
  return {"TABLE_NAME=subscribers",
          "FLAG=1",
          "RANGE=dynamic",
          "INT_PORT_FIELD=2",
          "EXT_PORT_FIELD=1",
          "LOG_TAG=SUBS",
          "USE_INDEX=1",
          "DUPLICATED_DATA_CHECK=1",
          "MAX_ROWS=500",
          "NUM_FIELDS=3",
          "id 10 1",
          "ext_port 5 0",
          "int_port 5 1",
          "FILE_NAME=subscribers.txt"};
}

lines plain_block() {
  return {
      "TABLE_NAME=routes", "FLAG=0",       "LOG_TAG=RT",  "USE_INDEX=0", "DUPLICATED_DATA_CHECK=0",
      "MAX_ROWS=20",       "NUM_FIELDS=2", "prefix 16 1", "target 64 0", "FILE_NAME=routes.txt"};
}

lines operator+(lines a, const lines &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::string good_schema() { return joined(good_head() + port_block() + plain_block()); }

// What a schema is to give, read with the host's own scanf, line format by line format, going back
// where nothing was taken.
struct expected_column {
  std::string name;
  uint32_t len = 0;
  uint32_t flag = 0;
};
struct expected_table {
  std::string name, range, log_tag, file_name;
  int flag = 0, int_port_field = 0, ext_port_field = 0;
  int use_index = 0, duplicates = 0, max_rows = 0, num_fields = 0;
  std::vector<expected_column> columns;
};
struct expected_schema {
  bool is_good = true;
  bool out_of_bounds = false;  // counts or lengths that a test had better not run
  std::string base_dir, base_backup_dir;
  int num_table = 0;
  std::vector<expected_table> tables;
};

class oracle {
 public:
  explicit oracle(const std::string &schema)
      : text_(schema), file_(fmemopen(text_.data(), text_.size(), "r")) {}
  ~oracle() { fclose(file_); }
  oracle(const oracle &) = delete;
  oracle &operator=(const oracle &) = delete;

  expected_schema read() {
    expected_schema out;
    text("BASE_DIR=%4000s\n", &out.base_dir, 255);
    text("BASE_BACKUP_DIR=%4000s\n", &out.base_backup_dir, 255);
    number("NUM_TABLE=%d\n", &out.num_table);
    if (overlong_ || out.num_table < 0) {
      out.is_good = false;
      return out;
    }
    if (out.num_table > 1000) out.out_of_bounds = true;
    for (int i = 0; i < out.num_table && !out.out_of_bounds && out.is_good; i++) read_table(&out);
    return out;
  }

 private:
  void read_table(expected_schema *out) {
    expected_table table;
    text("TABLE_NAME=%4000s\n", &table.name, 31);
    number("FLAG=%d\n", &table.flag);
    if (table.flag == 1) {
      text("RANGE=%4000s\n", &table.range, 7);
      number("INT_PORT_FIELD=%d\n", &table.int_port_field);
      number("EXT_PORT_FIELD=%d\n", &table.ext_port_field);
    }
    text("LOG_TAG=%15s\n", &table.log_tag, 15);
    number("USE_INDEX=%d\n", &table.use_index);
    number("DUPLICATED_DATA_CHECK=%d\n", &table.duplicates);
    number("MAX_ROWS=%d\n", &table.max_rows);
    number("NUM_FIELDS=%d\n", &table.num_fields);
    if (table.num_fields < 0) {
      out->is_good = false;
      return;
    }
    if (table.num_fields > 1000) {
      out->out_of_bounds = true;
      return;
    }
    uint64_t row = 16;
    bool fits = true;
    for (int i = 0; i < table.num_fields; i++) {
      char name[4001] = "";
      int len = 0, flag = 0;
      fscanf(file_, "%4000s %d %d\n", name, &len, &flag);
      note_length(name, 31);
      table.columns.push_back({name, static_cast<uint32_t>(len), static_cast<uint32_t>(flag)});
      row += uint64_t{static_cast<uint32_t>(len)} + 1 + ((flag & 1) != 0 ? 8 : 0);
      if (row > UINT32_MAX) fits = false;
    }
    if (!fits && !overlong_) {
      out->is_good = false;
      return;
    }
    const int file_name = text("FILE_NAME=%4000s\n", &table.file_name, 255);
    if (file_name == 0 || overlong_) {
      out->is_good = false;
      return;
    }
    out->tables.push_back(table);
  }

  // The scan itself, with the position restored where it matched nothing.
  int scan(const char *format, void *into) {
    const long before = ftell(file_);
    const int items = fscanf(file_, format, into);
    if (items == 0) fseek(file_, before, SEEK_SET);
    return items;
  }

  int text(const char *format, std::string *into, size_t longest) {
    char word[4001] = "";
    const int items = scan(format, word);
    *into = word;
    note_length(*into, longest);
    return items;
  }

  int number(const char *format, int *into) { return scan(format, into); }

  void note_length(const std::string &word, size_t longest) {
    if (word.size() > longest) overlong_ = true;
  }

  std::string text_;
  FILE *file_;
  bool overlong_ = false;
};

class SchemaTest : public TablesTest {
 protected:
  void TearDown() override { EXPECT_EQ(standin::open_streams(), 0); }

  // Reads the schema and compares everything with what the oracle expects of it.
  void expect_as_told(const std::string &schema) {
    const expected_schema expected = oracle(schema).read();
    if (expected.out_of_bounds) return;
    standin::clear_logs();
    watch();
    ASSERT_EQ(create(schema), expected.is_good) << standin::log_dump();
    ASSERT_EQ(standin::open_streams(), 0);
    if (!expected.is_good) return;
    ASSERT_EQ(tarn_tbl_mngt->base_dir, expected.base_dir);
    ASSERT_EQ(tarn_tbl_mngt->base_backup_dir, expected.base_backup_dir);
    ASSERT_EQ(tarn_tbl_mngt->num_table, expected.num_table);
    for (size_t i = 0; i < expected.tables.size(); i++) expect_table(i, expected.tables[i]);
    EXPECT_THAT(errors(), testing::IsEmpty());
  }

  void expect_table(size_t i, const expected_table &expected) {
    const tarn_tbl &got = *table(i);
    ASSERT_EQ(got.table_name, expected.name);
    ASSERT_EQ(got.flag, expected.flag);
    ASSERT_EQ(got.range, expected.range);
    ASSERT_EQ(got.int_port_field, expected.int_port_field);
    ASSERT_EQ(got.ext_port_field, expected.ext_port_field);
    ASSERT_EQ(got.log_tag, expected.log_tag);
    ASSERT_EQ(got.use_index, expected.use_index);
    ASSERT_EQ(got.duplicated_data_check, expected.duplicates);
    ASSERT_EQ(got.max_rows, expected.max_rows);
    ASSERT_EQ(got.num_fields, expected.num_fields);
    ASSERT_EQ(got.file_name, expected.file_name);
    ASSERT_EQ(got.tbl->col_cnt, static_cast<uint32_t>(expected.num_fields));
    for (uint32_t col = 0; col < got.tbl->col_cnt; col++) {
      ASSERT_EQ(column_name(&got, col), expected.columns[col].name);
      ASSERT_EQ(got.tbl->cols[col].size, expected.columns[col].len + 1);
      ASSERT_EQ(got.tbl->cols[col].flags, expected.columns[col].flag);
    }
    ASSERT_EQ(got.state, 0);
    ASSERT_EQ(got.row_count, 0);
    ASSERT_EQ(got.next_index, 1u);
    ASSERT_EQ(got.lock, nullptr);
  }

  // The schema fails as a bad line does, and says so once.
  void expect_refused(const std::string &schema) {
    standin::clear_logs();
    watch();
    EXPECT_FALSE(create(schema)) << schema;
    EXPECT_EQ(errors(), texts{BAD_LINE});
    EXPECT_EQ(standin::open_streams(), 0);
  }
};

TEST_F(SchemaTest, AGoodSchemaFillsEveryFieldOfTheRegistry) {
  ASSERT_TRUE(create(good_schema()));
  EXPECT_STREQ(tarn_tbl_mngt->base_dir, "/var/main/");
  EXPECT_STREQ(tarn_tbl_mngt->base_backup_dir, "/var/backup/");
  EXPECT_EQ(tarn_tbl_mngt->num_table, 2);

  const tarn_tbl &first = *table(0);
  EXPECT_STREQ(first.table_name, "subscribers");
  EXPECT_EQ(first.flag, 1);
  EXPECT_STREQ(first.range, "dynamic");
  EXPECT_EQ(first.int_port_field, 2);
  EXPECT_EQ(first.ext_port_field, 1);
  EXPECT_STREQ(first.log_tag, "SUBS");
  EXPECT_EQ(first.use_index, 1);
  EXPECT_EQ(first.duplicated_data_check, 1);
  EXPECT_EQ(first.max_rows, 500);
  EXPECT_EQ(first.num_fields, 3);
  EXPECT_EQ(first.tbl->col_cnt, 3u);
  EXPECT_STREQ(first.field_name[0], "id");
  EXPECT_STREQ(first.field_name[1], "ext_port");
  EXPECT_STREQ(first.field_name[2], "int_port");
  EXPECT_EQ(first.tbl->cols[0].size, 11u);
  EXPECT_EQ(first.tbl->cols[1].flags, 0u);
  EXPECT_EQ(first.tbl->cols[2].flags, 1u);
  EXPECT_EQ(first.tbl->cols[2].idx_len, 512u);
  EXPECT_STREQ(first.file_name, "subscribers.txt");

  const tarn_tbl &second = *table(1);
  EXPECT_STREQ(second.table_name, "routes");
  EXPECT_EQ(second.flag, 0);
  EXPECT_STREQ(second.range, "");
  EXPECT_EQ(second.int_port_field, 0);
  EXPECT_EQ(second.ext_port_field, 0);
  EXPECT_EQ(second.use_index, 0);
  EXPECT_EQ(second.max_rows, 20);
  EXPECT_STREQ(second.file_name, "routes.txt");
  for (const tarn_tbl &each : all_tarn_tbls()) {
    EXPECT_EQ(each.state, 0);
    EXPECT_EQ(each.row_count, 0);
    EXPECT_EQ(each.next_index, 1u);
    EXPECT_EQ(each.lock, nullptr);
  }
}

TEST_F(SchemaTest, EveryStepOfAGoodSchemaIsTold) {
  ASSERT_TRUE(create(joined({"BASE_DIR=/m/", "BASE_BACKUP_DIR=/b/", "NUM_TABLE=1"}) +
                     joined(plain_block())));
  EXPECT_EQ(debug(),
            (texts{"\nBase Dir = '/m/'\nBase Backup Dir = '/b/'\nNum Tables = 1\n",
                   "\nUSE_INDEX = '0'\nDUPLICATED_DATA_CHECK = '0'\nMAX_ROWS = 20\nNUM_FIELDS = "
                   "2\n",
                   "\nFIELD NAME = 'prefix'\nLEN = 16\nFLAG = 1\n",
                   "\nFIELD NAME = 'target'\nLEN = 64\nFLAG = 0\n", "\nFILE_NAME = 'routes.txt'\n",
                   "Table 'routes' index was set to 1\n", "Table 'routes' row count was set to 0\n",
                   "Table 'routes' state was set to value 0\n"}));
  EXPECT_EQ(log_texts(L_INFO), texts{"Reading cfg file '" + schema_path_ + "' OK!\n"});
  EXPECT_EQ(standin::logs().back().level, L_INFO);
  EXPECT_TRUE(errors().empty());
}

TEST_F(SchemaTest, ThePathIsEmptyUnlessItIsSet) {
  make_registry();
  EXPECT_STREQ(cfg_file_path, "");
  EXPECT_FALSE(create_tables());
  EXPECT_EQ(errors(), texts{"Could not open file '' with table(s) description\n"});
}

TEST_F(SchemaTest, AMissingFileIsTold) {
  make_registry();
  const std::string missing = path("missing.cfg");
  cfg_file_path = missing.c_str();
  EXPECT_FALSE(create_tables());
  EXPECT_EQ(errors(), texts{"Could not open file '" + missing + "' with table(s) description\n"});
  EXPECT_EQ(tarn_tbl_mngt->num_table, 0);
}

TEST_F(SchemaTest, AFileThatCannotBeOpenedIsTold) {
  watch();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_FALSE(create(good_schema()));
  EXPECT_EQ(errors(),
            texts{"Could not open file '" + schema_path_ + "' with table(s) description\n"});
}

TEST_F(SchemaTest, ADirectoryReadsAsAnEmptyFile) {
  make_registry();
  cfg_file_path = dir_.c_str();
  EXPECT_TRUE(create_tables());
  EXPECT_EQ(tarn_tbl_mngt->num_table, 0);
}

TEST_F(SchemaTest, AnEmptyFileIsASchemaWithoutTables) {
  EXPECT_TRUE(create(""));
  EXPECT_EQ(tarn_tbl_mngt->num_table, 0);
  EXPECT_NE(tarn_tbl_mngt->tables, nullptr);
  EXPECT_TRUE(all_tarn_tbls().empty());
}

TEST_F(SchemaTest, BlankLinesAndSpacesBetweenEntriesDoNoHarm) {
  std::string schema;
  for (const std::string &line : good_head() + port_block() + plain_block())
    schema += line + " \t\r\n\n \n";
  ASSERT_TRUE(create(schema));
  EXPECT_STREQ(table(0)->file_name, "subscribers.txt");
  EXPECT_STREQ(table(1)->file_name, "routes.txt");
  expect_as_told(schema);
}

TEST_F(SchemaTest, CarriageReturnsBeforeLineFeedsAreWhiteSpace) {
  std::string schema;
  for (const std::string &line : good_head() + port_block() + plain_block())
    schema += line + "\r\n";
  expect_as_told(schema);
  EXPECT_STREQ(table(1)->file_name, "routes.txt");
}

TEST_F(SchemaTest, BlanksAheadOfTheFirstKeyHideIt) {
  const std::string schema = "\n" + joined({"BASE_DIR=/m/", "NUM_TABLE=0"});
  EXPECT_TRUE(create(schema));
  EXPECT_STREQ(tarn_tbl_mngt->base_dir, "");
  expect_as_told(schema);
}

TEST_F(SchemaTest, AValueEndsAtTheFirstBlank) {
  EXPECT_TRUE(create("BASE_DIR=/my dir/\n"));
  EXPECT_STREQ(tarn_tbl_mngt->base_dir, "/my");
  EXPECT_STREQ(tarn_tbl_mngt->base_backup_dir, "");
  EXPECT_EQ(tarn_tbl_mngt->num_table, 0);
}

TEST_F(SchemaTest, BlanksBehindTheEqualsSignAreSkipped) {
  ASSERT_TRUE(create("BASE_DIR= \n /m/\nBASE_BACKUP_DIR=\t/b/\nNUM_TABLE=\n0"));
  EXPECT_STREQ(tarn_tbl_mngt->base_dir, "/m/");
  EXPECT_STREQ(tarn_tbl_mngt->base_backup_dir, "/b/");
}

TEST_F(SchemaTest, WhatFollowsTheLastTableIsNotRead) {
  ASSERT_TRUE(create(good_schema() + "anything\nTABLE_NAME=" + std::string(5000, 'x')));
  EXPECT_EQ(tarn_tbl_mngt->num_table, 2);
}

TEST_F(SchemaTest, FewerTablesThanWrittenAreReadWhereTheNumberSaysSo) {
  lines head = good_head();
  head[2] = "NUM_TABLE=1";
  ASSERT_TRUE(create(joined(head + port_block() + plain_block())));
  EXPECT_EQ(all_tarn_tbls().size(), 1u);
}

TEST_F(SchemaTest, ATableWithoutALineTagHasNone) {
  lines block = plain_block();
  std::erase(block, "LOG_TAG=RT");
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_STREQ(table()->log_tag, "");
  EXPECT_EQ(table()->max_rows, 20);
  EXPECT_STREQ(table()->file_name, "routes.txt");
}

TEST_F(SchemaTest, EachKeyLeftOutCostsItsOwnValueAlone) {
  const lines all = good_head() + port_block() + plain_block();
  for (size_t left_out = 0; left_out < all.size(); left_out++) {
    const std::string &line = all[left_out];
    const std::string key = line.substr(0, line.find('='));
    // A field line less takes the next line for it; that and the file's name are told elsewhere.
    if (key == line || key == "FILE_NAME" || key == "NUM_FIELDS" || key == "NUM_TABLE" ||
        key == "FLAG")
      continue;
    lines less = all;
    less.erase(less.begin() + static_cast<long>(left_out));
    ASSERT_TRUE(create(joined(less))) << line;
    EXPECT_STREQ(table(0)->file_name, "subscribers.txt") << line;
    EXPECT_STREQ(table(1)->file_name, "routes.txt") << line;
    expect_as_told(joined(less));
    const tarn_tbl &hit = *table(left_out < good_head().size() + port_block().size() ? 0 : 1);
    const std::map<std::string, bool> is_unset = {
        {"BASE_DIR", *tarn_tbl_mngt->base_dir == 0},
        {"BASE_BACKUP_DIR", *tarn_tbl_mngt->base_backup_dir == 0},
        {"TABLE_NAME", *hit.table_name == 0},
        {"RANGE", *hit.range == 0},
        {"INT_PORT_FIELD", hit.int_port_field == 0},
        {"EXT_PORT_FIELD", hit.ext_port_field == 0},
        {"LOG_TAG", *hit.log_tag == 0},
        {"USE_INDEX", hit.use_index == 0},
        {"DUPLICATED_DATA_CHECK", hit.duplicated_data_check == 0},
        {"MAX_ROWS", hit.max_rows == 0}};
    EXPECT_TRUE(is_unset.at(key)) << line;
  }
}

TEST_F(SchemaTest, WithoutTheNumberOfTablesThereAreNone) {
  lines all = good_head() + port_block();
  std::erase(all, "NUM_TABLE=2");
  ASSERT_TRUE(create(joined(all)));
  EXPECT_EQ(tarn_tbl_mngt->num_table, 0);
}

TEST_F(SchemaTest, WithoutTheFlagATableHoldsNoPorts) {
  lines block = plain_block();
  std::erase(block, "FLAG=0");
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_EQ(table()->flag, 0);
  EXPECT_EQ(table()->max_rows, 20);
}

TEST_F(SchemaTest, AFlagOtherThanOneIsKeptAndReadsNoPortKeys) {
  for (const char *flag : {"2", "-1", "7"}) {
    lines block = plain_block();
    block[1] = std::string("FLAG=") + flag;
    ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
    EXPECT_EQ(table()->flag, atoi(flag));
    EXPECT_STREQ(table()->log_tag, "RT");
  }
}

TEST_F(SchemaTest, PortKeysInATableWithoutPortsFailTheStart) {
  lines block = port_block();
  block[1] = "FLAG=0";
  expect_refused("NUM_TABLE=1\n" + joined(block));
  const tarn_tbl &t = *table();
  EXPECT_STREQ(t.table_name, "subscribers");
  EXPECT_STREQ(t.range, "");
  EXPECT_STREQ(t.log_tag, "");
  EXPECT_EQ(t.use_index, 0);
  EXPECT_EQ(t.max_rows, 0);
  EXPECT_EQ(t.num_fields, 0);
}

TEST_F(SchemaTest, APortTableWithoutPortKeysReads) {
  lines block = plain_block();
  block[1] = "FLAG=1";
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_STREQ(table()->range, "");
  EXPECT_STREQ(table()->log_tag, "RT");
}

TEST_F(SchemaTest, AKeyOutOfItsOrderStopsAllLaterOnes) {
  lines block = plain_block();
  std::swap(block[3], block[5]);  // MAX_ROWS, DUPLICATED_DATA_CHECK, USE_INDEX
  expect_refused("NUM_TABLE=1\n" + joined(block));
  EXPECT_STREQ(table()->log_tag, "RT");
  EXPECT_EQ(table()->use_index, 0);
  EXPECT_EQ(table()->max_rows, 20);
  EXPECT_EQ(table()->num_fields, 0);
}

TEST_F(SchemaTest, AnyTwoNeighboursSwappedGiveWhatTheFormatsGive) {
  const lines all = good_head() + port_block() + plain_block();
  for (size_t i = 0; i + 1 < all.size(); i++) {
    lines swapped = all;
    std::swap(swapped[i], swapped[i + 1]);
    expect_as_told(joined(swapped));
    ASSERT_FALSE(HasFailure()) << all[i];
  }
}

TEST_F(SchemaTest, AnEmptyTagTakesTheNextLine) {
  lines block = plain_block();
  block[2] = "LOG_TAG=";
  block[3] = "USE_INDEX=1";
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_STREQ(table()->log_tag, "USE_INDEX=1");
  EXPECT_EQ(table()->use_index, 0);
  EXPECT_EQ(table()->max_rows, 20);
}

TEST_F(SchemaTest, ATagOf15CharactersFitsAndALongerOneStopsTheRest) {
  lines block = plain_block();
  block[2] = "LOG_TAG=" + std::string(15, 'g');
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_EQ(std::string(table()->log_tag), std::string(15, 'g'));
  EXPECT_EQ(table()->max_rows, 20);
  block[2] += 'h';
  expect_refused("NUM_TABLE=1\n" + joined(block));
  EXPECT_EQ(std::string(table()->log_tag), std::string(15, 'g'));
  EXPECT_EQ(table()->use_index, 0);
  EXPECT_EQ(table()->max_rows, 0);
}

TEST_F(SchemaTest, ATagTooLongByExactlyTheNextKeyReadsThatKey) {
  // The rest of the tag is itself the line that is looked for next.
  lines block = plain_block();
  block[2] = "LOG_TAG=" + std::string(15, 'g') + "USE_INDEX=5";
  block.erase(block.begin() + 3);
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_EQ(table()->use_index, 5);
  EXPECT_EQ(table()->max_rows, 20);
}

TEST_F(SchemaTest, NamesOfTheLongestLengthFitAndOneByteMoreIsRefused) {
  struct field {
    std::string key;
    size_t longest;
    std::function<std::string()> value;
  };
  const std::vector<field> fields = {
      {"BASE_DIR=", 255, [] { return std::string(tarn_tbl_mngt->base_dir); }},
      {"BASE_BACKUP_DIR=", 255, [] { return std::string(tarn_tbl_mngt->base_backup_dir); }},
      {"TABLE_NAME=", 31, [] { return std::string(table()->table_name); }},
      {"RANGE=", 7, [] { return std::string(table()->range); }},
      {"id ", 31, [] { return std::string(table()->field_name[0]); }},
      {"int_port ", 31, [] { return std::string(table()->field_name[2]); }},
      {"FILE_NAME=", 255, [] { return std::string(table()->file_name); }}};
  for (const field &each : fields) {
    for (const size_t extra : {0UL, 1UL, 2UL, 40UL, 5000UL}) {
      lines all = good_head() + port_block() + plain_block();
      const std::string value(each.longest + extra, 'v');
      for (std::string &line : all) {
        if (line.rfind(each.key, 0) != 0) continue;
        line =
            each.key.back() == '=' ? each.key + value : value + " " + line.substr(each.key.size());
        break;
      }
      if (extra != 0) {
        expect_refused(joined(all));
        continue;
      }
      ASSERT_TRUE(create(joined(all))) << each.key;
      EXPECT_EQ(each.value(), value);
    }
  }
}

TEST_F(SchemaTest, AnOverlongValueInALaterTableIsRefusedToo) {
  for (const std::string key : {"TABLE_NAME=", "FILE_NAME=", "prefix "}) {
    lines block = plain_block();
    for (std::string &line : block)
      if (line.rfind(key, 0) == 0)
        line = key.back() == '=' ? key + std::string(256, 'x') : std::string(32, 'x') + " 1 1";
    expect_refused(joined(good_head() + port_block() + block));
  }
}

TEST_F(SchemaTest, AnOverlongValueAtTheVeryEndOfTheFileIsRefused) {
  const std::string long_name(32, 'x');
  expect_refused("BASE_DIR=" + std::string(256, 'x'));
  expect_refused("NUM_TABLE=1\nTABLE_NAME=" + long_name);
  expect_refused("NUM_TABLE=1\nNUM_FIELDS=1\n" + long_name);
  expect_refused("NUM_TABLE=1\nNUM_FIELDS=1\nid 1 1\nFILE_NAME=" + std::string(256, 'x'));
}

TEST_F(SchemaTest, AMismatchAtTheFileNameFailsTheStartAndClosesTheFile) {
  lines block = plain_block();
  block.back() = "FILENAME=routes.txt";
  expect_refused("NUM_TABLE=1\n" + joined(block));
  EXPECT_EQ(debug().back(), "\nFILE_NAME = ''\n");
}

TEST_F(SchemaTest, AFileThatEndsAfterTheFieldLinesReadsWithoutAFileName) {
  lines block = plain_block();
  block.pop_back();
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_STREQ(table()->file_name, "");
  EXPECT_STREQ(table()->table_name, "routes");
  EXPECT_TRUE(errors().empty());
}

TEST_F(SchemaTest, KeysMayBeLeftOutOfASchemaThatIsAPipeToo) {
  lines block = plain_block();
  std::erase(block, "LOG_TAG=RT");
  std::erase(block, "MAX_ROWS=20");
  const std::string text = joined(good_head() + port_block() + block);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(ends[1]);
  end();
  make_registry();
  const std::string path = "/dev/fd/" + std::to_string(ends[0]);
  cfg_file_path = path.c_str();
  EXPECT_TRUE(create_tables()) << standin::log_dump();
  close(ends[0]);
  cfg_file_path = "";
  EXPECT_STREQ(table(0)->file_name, "subscribers.txt");
  EXPECT_STREQ(table(1)->table_name, "routes");
  EXPECT_STREQ(table(1)->log_tag, "");
  EXPECT_EQ(table(1)->max_rows, 0);
  EXPECT_STREQ(table(1)->field_name[1], "target");
  EXPECT_STREQ(table(1)->file_name, "routes.txt");
}

TEST_F(SchemaTest, TablesBehindTheFilesEndAreEmptyAndNameless) {
  lines head = good_head();
  head[2] = "NUM_TABLE=3";
  ASSERT_TRUE(create(joined(head + plain_block())));
  EXPECT_STREQ(table(0)->table_name, "routes");
  for (const size_t i : {1UL, 2UL}) {
    EXPECT_STREQ(table(i)->table_name, "");
    EXPECT_EQ(table(i)->tbl->col_cnt, 0u);
    EXPECT_EQ(table(i)->next_index, 1u);
  }
}

TEST_F(SchemaTest, AFieldLineLessTakesTheFileNameForAColumn) {
  lines block = plain_block();
  std::erase(block, "target 64 0");
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_STREQ(table()->field_name[1], "FILE_NAME=routes.txt");
  EXPECT_EQ(table()->tbl->cols[1].size, 1u);
  EXPECT_STREQ(table()->file_name, "");
}

TEST_F(SchemaTest, AFieldLineMoreFailsTheStart) {
  lines block = plain_block();
  block.insert(block.end() - 1, "third 5 0");
  expect_refused("NUM_TABLE=1\n" + joined(block));
}

TEST_F(SchemaTest, FieldLinesWithMissingNumbersHaveZeros) {
  ASSERT_TRUE(create("NUM_TABLE=1\nNUM_FIELDS=2\na 5\n"));
  EXPECT_EQ(table()->tbl->cols[0].size, 6u);
  EXPECT_EQ(table()->tbl->cols[0].flags, 0u);
  EXPECT_STREQ(table()->field_name[1], "");
  expect_as_told("NUM_TABLE=1\nNUM_FIELDS=2\na x y\nb 5 1\nFILE_NAME=f\n");
  expect_as_told("NUM_TABLE=1\nNUM_FIELDS=1\na 5 x\nFILE_NAME=f\n");
}

TEST_F(SchemaTest, ASignWithoutANumberInAFieldLineStopsTheRest) {
  expect_refused("NUM_TABLE=1\nNUM_FIELDS=1\na 5 -\nFILE_NAME=f\n");
  expect_refused("NUM_TABLE=1\nNUM_FIELDS=1\na +\nFILE_NAME=f\n");
}

TEST_F(SchemaTest, ANumberThatIsNoneStopsAllLaterKeys) {
  lines block = plain_block();
  block[3] = "USE_INDEX=yes";
  expect_refused("NUM_TABLE=1\n" + joined(block));
  EXPECT_EQ(table()->use_index, 0);
  EXPECT_EQ(table()->max_rows, 0);
}

TEST_F(SchemaTest, NumbersMayHaveSigns) {
  lines block = plain_block();
  block[3] = "USE_INDEX=-1";
  block[5] = "MAX_ROWS=+7";
  ASSERT_TRUE(create("NUM_TABLE=1\n" + joined(block)));
  EXPECT_EQ(table()->use_index, -1);
  EXPECT_EQ(table()->max_rows, 7);
}

TEST_F(SchemaTest, ANegativeNumberOfTablesFailsTheStart) {
  for (const char *number : {"-1", "-2147483648"}) {
    standin::clear_logs();
    EXPECT_FALSE(create(std::string("NUM_TABLE=") + number + "\n"));
    EXPECT_EQ(debug().back(), "Could not create tarn_tbl_mngt->tarn_tbl in shared memory!\n");
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(all_tarn_tbls().empty());
  }
}

TEST_F(SchemaTest, MoreTablesThanMemoryHoldsFailTheStart) {
  ASSERT_TRUE(standin::use_shared_mapping(1 << 20));
  EXPECT_FALSE(create("NUM_TABLE=2147483647\n"));
  EXPECT_EQ(debug().back(), "Could not create tarn_tbl_mngt->tarn_tbl in shared memory!\n");
  EXPECT_TRUE(all_tarn_tbls().empty());
}

TEST_F(SchemaTest, ANegativeNumberOfColumnsFailsTheStart) {
  for (const char *number : {"-1", "-2147483648"}) {
    standin::clear_logs();
    EXPECT_FALSE(create(std::string("NUM_TABLE=1\nNUM_FIELDS=") + number + "\n"));
    EXPECT_EQ(debug().back(), "Could not allocate memory for tbl_dcl!\n");
    EXPECT_TRUE(errors().empty());
  }
}

TEST_F(SchemaTest, MoreColumnsThanMemoryHoldsFailTheStart) {
  standin::fail_from(pool::pkg, 1);
  EXPECT_FALSE(create("NUM_TABLE=1\nNUM_FIELDS=2147483647\n"));
  EXPECT_EQ(debug().back(), "Could not allocate memory for tbl_dcl!\n");
}

TEST_F(SchemaTest, ManyColumnsBehindTheFilesEndAreNameless) {
  ASSERT_TRUE(create("NUM_TABLE=1\nNUM_FIELDS=3000\n"));
  EXPECT_EQ(table()->tbl->col_cnt, 3000u);
  EXPECT_EQ(column_name(table(), 2999), "");
  EXPECT_EQ(table()->tbl->row_len, 3000u);
}

TEST_F(SchemaTest, LengthsThatMakeNoTableFailTheStart) {
  for (const char *column : {"a -1 0", "a 4294967295 0", "a 2147483647 0\nb 2147483647 0"}) {
    standin::clear_logs();
    const std::string count = std::string(column).find('\n') == std::string::npos ? "1" : "2";
    EXPECT_FALSE(create("NUM_TABLE=1\nNUM_FIELDS=" + count + "\n" + column + "\nFILE_NAME=f\n"));
    EXPECT_EQ(debug().back(), "Could not allocate memory for tbl!\n");
    EXPECT_TRUE(errors().empty());
  }
}

TEST_F(SchemaTest, EachAllocationThatFailsFailsTheStartWithItsMessage) {
  const std::string schema = "NUM_TABLE=1\n" + joined(port_block());
  const std::string names = "";  // a name's failure passes unnoticed
  const std::vector<std::string> told = {
      "Could not create tarn_tbl_mngt->tarn_tbl in shared memory!\n",
      "Could not allocate memory for tbl_dcl!\n",
      "Could not allocate memory for field_name!\n",
      names,
      names,
      names,
      "Could not allocate memory for tbl!\n",   // the engine's table
      "Could not allocate memory for tbl!\n",   // its columns
      "Could not allocate memory for tbl!\n",   // buckets of the first index
      "Could not allocate memory for tbl!\n"};  // buckets of the second
  ASSERT_TRUE(create(schema));
  end();
  make_registry();
  standin::reset_allocation_count();
  cfg_file_path = schema_path_.c_str();
  ASSERT_TRUE(create_tables());
  ASSERT_EQ(standin::allocation_count(pool::both), told.size());

  for (size_t i = 0; i < told.size(); i++) {
    end();
    make_registry();
    standin::clear_logs();
    watch();
    standin::fail_at(pool::both, i + 1);
    const bool made = create_tables();
    EXPECT_EQ(standin::open_streams(), 0);
    EXPECT_EQ(standin::live_count(pool::pkg), 0u);
    if (told[i] == names) {
      EXPECT_TRUE(made);
      const uint32_t nameless = static_cast<uint32_t>(i - 3);
      for (uint32_t col = 0; col < 3; col++) {
        EXPECT_EQ(column_name(table(), col).empty(), col == nameless);
        EXPECT_EQ(table()->tbl->cols[col].size, col == 0 ? 11u : 6u);
      }
      EXPECT_STREQ(table()->file_name, "subscribers.txt");
      continue;
    }
    EXPECT_FALSE(made);
    EXPECT_EQ(debug().back(), told[i]);
    EXPECT_EQ(log_texts(L_INFO), texts{});
    destroy_tables();
    EXPECT_EQ(standin::live_count(pool::both), i == 0 ? 1u : 2u);
  }
}

TEST_F(SchemaTest, TheEnginesReasonStandsAheadOfTheStartsOwnLine) {
  create("NUM_TABLE=1\n" + joined(plain_block()));
  end();
  const texts reasons = {"Fail to allocate memory to the table\n",
                         "Fail to allocate memory to the columns\n",
                         "Fail to allocate memory to the hash table buckets\n"};
  for (size_t i = 0; i < reasons.size(); i++) {
    end();
    make_registry();
    standin::clear_logs();
    standin::fail_at(pool::shm, 5 + i);
    EXPECT_FALSE(create_tables());
    EXPECT_EQ(errors(), texts{reasons[i]});
  }
}

TEST_F(SchemaTest, WithoutMemoryFromAnyPointOnTheStartFailsAndAllIsFreed) {
  ASSERT_TRUE(create(good_schema()));
  for (uint64_t from = 1; from < 30; from++) {
    end();
    make_registry();
    standin::fail_from(pool::both, from);
    const bool made = create_tables();
    standin::stop_failing();
    if (made) {
      EXPECT_GT(from, 15u);
      return;
    }
    end();
    ASSERT_EQ(standin::leak_report(pool::both), "") << "from allocation " << from;
  }
  FAIL() << "the start never had enough memory";
}

TEST_F(SchemaTest, TablesAreMadeFromAnOpenFileThatStaysOpen) {
  make_registry();
  std::string schema = good_schema();
  FILE *const file = fmemopen(schema.data(), schema.size(), "r");
  EXPECT_TRUE(create_tables_from(file));
  EXPECT_EQ(getc(file), EOF) << "read to its end";
  EXPECT_EQ(fclose(file), 0);
  EXPECT_EQ(all_tarn_tbls().size(), 2u);
  EXPECT_STREQ(all_tarn_tbls()[1].file_name, "routes.txt");
}

TEST_F(SchemaTest, AFailureInALaterTableLeavesTheEarlierOnesToTheEnd) {
  lines bad = plain_block();
  bad.back() = "NO_FILE_NAME=x";
  ASSERT_FALSE(create(joined(good_head() + port_block() + bad)));
  EXPECT_STREQ(table(0)->table_name, "subscribers");
  EXPECT_NE(table(0)->tbl, nullptr);
  EXPECT_NE(get_tarn_tbl_by_name("subscribers"), nullptr);
}

TEST_F(SchemaTest, AFileCutOffAnywhereGivesWhatTheFormatsGive) {
  const std::string schema = good_schema();
  for (size_t length = 0; length <= schema.size(); length++) {
    expect_as_told(schema.substr(0, length));
    ASSERT_FALSE(HasFailure()) << "cut at byte " << length;
  }
}

TEST_F(SchemaTest, AFileWithoutAnyOneByteGivesWhatTheFormatsGive) {
  const std::string schema = good_schema();
  for (size_t at = 0; at < schema.size(); at++) {
    std::string less = schema;
    less.erase(at, 1);
    expect_as_told(less);
    ASSERT_FALSE(HasFailure()) << "without byte " << at;
  }
}

TEST_F(SchemaTest, ScrambledSchemasGiveWhatTheFormatsGive) {
  standin::set_debug_level(L_INFO);
  for (uint32_t seed = 0; seed < 10000; seed++) {
    std::mt19937 random(seed);
    lines all = good_head() + port_block() + plain_block();
    const auto below = [&random](size_t limit) { return random() % limit; };
    for (size_t changes = 1 + below(4); changes > 0; changes--) {
      const size_t at = below(all.size());
      std::string &line = all[at];
      switch (below(6)) {
        case 0:
          all.erase(all.begin() + static_cast<long>(at));
          break;
        case 1:
          std::swap(line, all[below(all.size())]);
          break;
        case 2:
          all.insert(all.begin() + static_cast<long>(at), std::string(all[below(all.size())]));
          break;
        case 3:
          line = line.substr(0, below(line.size() + 1));
          break;
        case 4:
          if (!line.empty()) line[below(line.size())] = "= \t9-xB\xFF"[below(8)];
          break;
        default:
          line += std::string(below(40), 'z');
          break;
      }
      if (all.empty()) break;
    }
    expect_as_told(joined(all));
    ASSERT_FALSE(HasFailure()) << "seed " << seed << "\n" << joined(all);
  }
}

TEST_F(SchemaTest, RandomBytesNeverCrash) {
  standin::set_debug_level(L_INFO);
  for (uint32_t seed = 0; seed < 1000; seed++) {
    std::mt19937 random(seed);
    std::string schema = good_schema();
    for (int changes = 0; changes < 8; changes++)
      schema[random() % schema.size()] = static_cast<char>(random());
    // Zero bytes end words in ways that scanf and C strings see alike, but the oracle's own
    // strings don't; here only survival counts.
    const expected_schema expected = oracle(schema).read();
    if (!expected.out_of_bounds) create(schema);
  }
}

}  // namespace
}  // namespace tables_test
