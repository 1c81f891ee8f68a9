// The registry: look-up by name, accessors, locks of the tables, and the end.
#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

namespace tables_test {
namespace {

using RegistryTest = TablesTest;

constexpr char NULL_TABLE[] = "NULL value for tarn_table\n";

TEST_F(RegistryTest, ATableIsFoundByItsName) {
  table_spec one, two;
  one.name = "one";
  two.name = "two";
  start({one, two});
  EXPECT_EQ(get_tarn_tbl_by_name("one"), table(0));
  EXPECT_EQ(get_tarn_tbl_by_name("two"), table(1));
  EXPECT_TRUE(standin::logs().empty());
}

TEST_F(RegistryTest, OfEqualNamesTheFirstTableIsFound) {
  start({table_spec{}, table_spec{}});
  EXPECT_EQ(get_tarn_tbl_by_name("t"), table(0));
}

TEST_F(RegistryTest, AnUnknownNameIsNullAndTold) {
  start(table_spec{});
  EXPECT_EQ(get_tarn_tbl_by_name("T"), nullptr);
  EXPECT_EQ(get_tarn_tbl_by_name("t "), nullptr);
  EXPECT_EQ(get_tarn_tbl_by_name(""), nullptr);
  EXPECT_EQ(errors(), (texts{"Table 'T' was not found\n", "Table 't ' was not found\n",
                             "Table '' was not found\n"}));
}

TEST_F(RegistryTest, ANullNameIsNullAndTold) {
  start(table_spec{});
  EXPECT_EQ(get_tarn_tbl_by_name(static_cast<const char *>(nullptr)), nullptr);
  EXPECT_EQ(errors(), texts{"NULL value for tbl_name\n"});
}

TEST_F(RegistryTest, WithoutARegistryNoTableIsFound) {
  EXPECT_EQ(get_tarn_tbl_by_name("t"), nullptr);
  EXPECT_EQ(errors(), texts{"tarn_tbl_mngt undefined.\n"});
  standin::clear_logs();
  EXPECT_EQ(get_tarn_tbl_by_name(static_cast<const char *>(nullptr)), nullptr);
  EXPECT_EQ(errors(), texts{"NULL value for tbl_name\n"});
}

TEST_F(RegistryTest, WithoutTablesNoTableIsFound) {
  make_registry();
  EXPECT_EQ(get_tarn_tbl_by_name("t"), nullptr);
  EXPECT_EQ(errors(), texts{"Table 't' was not found\n"});
}

TEST_F(RegistryTest, ANameOf31CharactersIsFoundAndALongerOneIsNotCutToIt) {
  table_spec spec;
  spec.name = std::string(31, 'n');
  start(spec);
  EXPECT_EQ(get_tarn_tbl_by_name(std::string(31, 'n').c_str()), table());
  EXPECT_EQ(get_tarn_tbl_by_name(std::string(32, 'n').c_str()), nullptr);
  EXPECT_EQ(get_tarn_tbl_by_name(std::string(300, 'n').c_str()), nullptr);
  EXPECT_EQ(get_tarn_tbl_by_name(std::string(30, 'n').c_str()), nullptr);
  EXPECT_EQ(errors()[0], "Table '" + std::string(32, 'n') + "' was not found\n");
}

TEST_F(RegistryTest, ACountedNameIsComparedWithinItsLength) {
  start(table_spec{});
  EXPECT_EQ(get_tarn_tbl_by_name(std::string_view("t,rest").substr(0, 1)), table());
  EXPECT_EQ(get_tarn_tbl_by_name(std::string_view("t,rest")), nullptr);
  EXPECT_EQ(errors(), texts{"Table 't,rest' was not found\n"});
}

TEST_F(RegistryTest, StateIsSetAndRead) {
  tarn_tbl *const t = start(table_spec{});
  EXPECT_EQ(get_tbl_state(t), 0);
  set_tbl_state(t, TBL_CLEARED);
  EXPECT_EQ(get_tbl_state(t), 2);
  EXPECT_EQ(debug(), texts{"Table 't' state was set to value 2\n"});
}

TEST_F(RegistryTest, SettingTheRowCountAddsAChange) {
  tarn_tbl *const t = start(table_spec{});
  set_tbl_row_count(t, 1);
  set_tbl_row_count(t, 4);
  set_tbl_row_count(t, -2);
  EXPECT_EQ(get_tbl_row_count(t), 3);
  EXPECT_EQ(debug(),
            (texts{"Table 't' row count was set to 1\n", "Table 't' row count was set to 5\n",
                   "Table 't' row count was set to 3\n"}));
}

TEST_F(RegistryTest, ARowCountBelowZeroIsSetToZeroAndTold) {
  tarn_tbl *const t = start(table_spec{});
  set_tbl_row_count(t, 1);
  standin::clear_logs();
  set_tbl_row_count(t, -3);
  EXPECT_EQ(get_tbl_row_count(t), 0);
  EXPECT_EQ(debug(),
            (texts{"Table 't' row count was set to -2. Invalid value. Reseting row count\n",
                   "Table 't' row count was set to 0\n"}));
}

TEST_F(RegistryTest, ResettingTheRowCountGivesZero) {
  tarn_tbl *const t = start(table_spec{});
  t->row_count = 12;
  reset_tbl_row_count(t);
  EXPECT_EQ(t->row_count, 0);
  EXPECT_EQ(debug(), texts{"Table 't' row count was set to 0\n"});
}

TEST_F(RegistryTest, AFreshTableGivesTheIndexes1And2And3) {
  tarn_tbl *const t = start(table_spec{});
  EXPECT_EQ(get_tbl_index(t), 1u);
  EXPECT_EQ(get_tbl_index(t), 2u);
  EXPECT_EQ(get_tbl_index(t), 3u);
  EXPECT_EQ(t->next_index, 4u);
  EXPECT_EQ(debug(), (texts{"Table 't' next index to be used was set to 2\n",
                            "Table 't' next index to be used was set to 3\n",
                            "Table 't' next index to be used was set to 4\n"}));
}

TEST_F(RegistryTest, TheIndexWrapsOverZero) {
  tarn_tbl *const t = start(table_spec{});
  set_tbl_index(t, 4294967295u);
  EXPECT_EQ(get_tbl_index(t), 4294967295u);
  EXPECT_EQ(get_tbl_index(t), 0u);
  EXPECT_EQ(get_tbl_index(t), 1u);
  EXPECT_EQ(debug()[0], "Table 't' index was set to -1\n");
  EXPECT_EQ(debug()[1], "Table 't' next index to be used was set to 0\n");
}

TEST_F(RegistryTest, ResettingTheIndexGivesOne) {
  tarn_tbl *const t = start(table_spec{});
  t->next_index = 99;
  reset_tbl_index(t);
  EXPECT_EQ(t->next_index, 1u);
  EXPECT_EQ(debug(), texts{"Table 't' index was set to 1\n"});
}

TEST_F(RegistryTest, EveryTableGetsALockOfItsOwn) {
  start({table_spec{}, table_spec{}});
  destroy_locks();
  EXPECT_EQ(table(0)->lock, nullptr);
  EXPECT_EQ(table(1)->lock, nullptr);
  table(1)->table_name[0] = 'u';
  EXPECT_TRUE(init_locks());
  EXPECT_NE(table(0)->lock, nullptr);
  EXPECT_NE(table(0)->lock, table(1)->lock);
  EXPECT_EQ(*table(0)->lock, 0u);
  EXPECT_EQ(debug(), (texts{"Creating lock for table 't'\n", "Creating lock for table 'u'\n"}));
}

TEST_F(RegistryTest, WithoutMemoryForALockTheLaterTablesGetNone) {
  start({table_spec{}, table_spec{}, table_spec{}});
  destroy_locks();
  standin::fail_at(pool::shm, 2);
  EXPECT_FALSE(init_locks());
  EXPECT_NE(table(0)->lock, nullptr);
  EXPECT_EQ(table(1)->lock, nullptr);
  EXPECT_EQ(table(2)->lock, nullptr);
  EXPECT_EQ(errors(), texts{"Could not allocate the lock\n"});
  EXPECT_EQ(debug().size(), 2u);
}

TEST_F(RegistryTest, LocksWithoutTablesAreNothing) {
  EXPECT_TRUE(init_locks());
  destroy_locks();
  make_registry();
  EXPECT_TRUE(init_locks());
  destroy_locks();
  EXPECT_TRUE(standin::logs().empty());
}

TEST_F(RegistryTest, DestroyingFreesNamesRowsTablesAndLocks) {
  start({table_spec{}, table_spec{}});
  add(table(0), {"1", "2", "3"});
  add(table(1), {"4", "5", "6"});
  destroy_tables();
  EXPECT_EQ(table(0)->tbl, nullptr);
  EXPECT_EQ(table(1)->tbl, nullptr);
  EXPECT_EQ(table(0)->lock, nullptr);
  // The registry and the array of its records.
  EXPECT_EQ(standin::live_count(pool::both), 2u);
  destroy_tables();
  EXPECT_EQ(standin::live_count(pool::both), 2u);
}

TEST_F(RegistryTest, DestroyingWorksWithoutRegistryTablesOrLocks) {
  destroy_tables();
  make_registry();
  destroy_tables();
  EXPECT_TRUE(create("NUM_TABLE=2\n" + schema_text::table_lines(table_spec{})));
  EXPECT_EQ(table(0)->lock, nullptr);
  EXPECT_EQ(table(1)->tbl->col_cnt, 0u);
  destroy_tables();
  EXPECT_EQ(standin::live_count(pool::both), 2u);
}

TEST_F(RegistryTest, DestroyingWaitsForTheTablesLock) {
  ASSERT_TRUE(standin::use_shared_mapping(4 << 20));
  start({table_spec{}, table_spec{}});
  take_lock(table(1)->lock);
  process destroyer([] {
    destroy_tables();
    return 0;
  });
  EXPECT_TRUE(eventually([] { return *table(1)->lock == 2; }));
  sleep_ms(30);
  EXPECT_EQ(table(0)->tbl, nullptr);
  EXPECT_NE(table(1)->tbl, nullptr);
  EXPECT_FALSE(destroyer.ended());
  release_lock(table(1)->lock);
  EXPECT_EQ(destroyer.exit_code(), 0);
  EXPECT_EQ(table(1)->tbl, nullptr);
}

TEST_F(RegistryTest, AHalfMadeStartStoresNothingAndIsFreed) {
  write(main_file(), "Version 1\n1|2|3\n");
  write(backup_file(), "Version 1\n4|5|6\n");
  // Two tables where the schema promises three.
  std::string text = schema_of({table_spec{}, table_spec{}});
  text.replace(text.find("NUM_TABLE=2"), strlen("NUM_TABLE=2"), "NUM_TABLE=3");
  for (uint64_t failing = 1; failing <= 20; failing++) {
    end();
    make_registry();
    write(path("schema.cfg"), text);
    const std::string schema = path("schema.cfg");
    cfg_file_path = schema.c_str();
    standin::fail_at(pool::both, failing);
    create_tables();
    init_locks();
    standin::stop_failing();
    store_table_mngt(0, nullptr);
    end();
    ASSERT_EQ(standin::leak_report(pool::both), "") << "allocation " << failing;
    EXPECT_EQ(read(main_file()), "Version 1\n1|2|3\n");
    EXPECT_EQ(read(backup_file()), "Version 1\n4|5|6\n");
  }
  EXPECT_TRUE(standin::memory_errors().empty());
}

TEST_F(RegistryTest, AQuerysTableNameIsNotCutToOneThatExists) {
  table_spec spec;
  spec.name = std::string(31, 'n');
  start(spec);
  for (const size_t length : {32UL, 40UL, 5000UL}) {
    std::string text = std::string(length, 'n') + ",a|b|c";
    query_scope in;
    char name[TARN_NAME_SIZE] = "";
    EXPECT_FALSE(
        tarn_memdb_parse_input({text.data(), static_cast<int>(text.size())}, OP_SELECT, &in, name));
    EXPECT_EQ(errors().back(), "Table not found\n");
  }
}

// What killed processes left: locks, a row that was being added, a store that wasn't closed.

class RecoveryTest : public RegistryTest {
 protected:
  // The rows that stand after recovery, a store and a load.
  texts recovered() {
    recover_tables();
    EXPECT_EQ(*table()->lock, 0u);
    table()->state = TBL_CHANGED;
    store_table_mngt(0, nullptr);
    load_table(table());
    return rows(table());
  }
};

TEST_F(RecoveryTest, HeldLocksAreFreedAndWholeRowsStay) {
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  add(table(), {"", "", "4"});
  take_lock(table()->lock);
  EXPECT_EQ(recovered(), (texts{"||4", "1|2|3"}));
}

// The hash is taken ahead of each link, so that the kill comes with the row on the list alone.
TEST_F(RecoveryTest, ARowWhoseWriterWasKilledIsWholeAndCostsNoOtherRow) {
  ASSERT_TRUE(standin::use_shared_mapping(4 << 20));
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  process writer([] {
    take_lock(table()->lock);
    memdb_hash_str = [](const char *) -> uint32_t {
      kill(getpid(), SIGKILL);
      return 0;
    };
    static const char *const row[] = {"a", "b", "c"};
    memdb_insert(table()->tbl, row);
    return 0;
  });
  EXPECT_EQ(writer.exit_code(), -1);
  EXPECT_EQ(rows(table()), (texts{"a|b|c", "1|2|3"}));
  EXPECT_EQ(recovered(), (texts{"a|b|c", "1|2|3"}));
}

TEST_F(RecoveryTest, ATableWhoseStoreWasLeftOpenCountsAsChanged) {
  start(table_spec{});
  add(table(), {"1", "2", "3"});
  EXPECT_TRUE(store_table(table()));
  EXPECT_EQ(table()->open_stores, 0);
  recover_tables();
  EXPECT_EQ(table()->state, TBL_UNCHANGED);
  table()->open_stores = 1;
  recover_tables();
  EXPECT_EQ(table()->state, TBL_CHANGED);
  EXPECT_EQ(table()->open_stores, 0);
  table()->state = TBL_CLEARED;
  table()->open_stores = 1;
  recover_tables();
  EXPECT_EQ(table()->state, TBL_CLEARED) << "which stores more";
}

TEST_F(RecoveryTest, WithoutRegistryTablesOrLocksThereIsNothingToDo) {
  recover_tables();
  make_registry();
  recover_tables();
  EXPECT_TRUE(create("NUM_TABLE=2\n" + schema_text::table_lines(table_spec{})));
  recover_tables();
  EXPECT_EQ(table()->lock, nullptr);
}

TEST_F(RegistryTest, ColumnNamesAreReadWhereThereAreSome) {
  start(table_spec{});
  EXPECT_EQ(column_name(table(), 0), "a");
  EXPECT_EQ(column_name(table(), 2), "c");
  char *const taken = table()->field_name[1];
  table()->field_name[1] = nullptr;
  EXPECT_EQ(column_name(table(), 1), "");
  table()->field_name[1] = taken;
}

}  // namespace
}  // namespace tables_test
