// Start and stop: the steps of mod_init, what each failure says and leaves, and the last store.
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const table FIRST = {"first", {{"key", 31, true}, {"val"}}};
const table SECOND = {"second", {{"only"}}};

class LifecycleTest : public ModuleTest {
 protected:
  message refused_schema() const {
    return err("Could not create table(s) schema from configuration file '" + schema_file() +
               "'\n");
  }

  message read_schema() const { return info("Reading cfg file '" + schema_file() + "' OK!\n"); }

  // All files below the table directories with their contents.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> out;
    for (const std::string &directory : {base_directory(), backup_directory()})
      for (const auto &entry : std::filesystem::directory_iterator(directory))
        out[entry.path().string()] = read_file(entry.path().string());
    return out;
  }

  void write_tables() {
    write_file(main_file("first"), table_text({"k|v"}));
    write_file(backup_file("first"), table_text({"old|v"}));
    write_file(main_file("second"), table_text({"x"}));
  }

  // A start that fails with these messages down to `least_grave`; the stop behind it then changes
  // no file.
  void expect_refused(const std::vector<message> &expected, int least_grave = INFO_LEVEL) {
    const auto before = files();
    EXPECT_EQ(init(), -1);
    EXPECT_THAT(messages(least_grave), ElementsAreArray(expected));
    destroy();
    EXPECT_EQ(files(), before);
  }
};

TEST_F(LifecycleTest, AFirstStartGoesThroughItsSteps) {
  configure({FIRST});
  EXPECT_EQ(init(), 0);
  const message count = dbg("Table 'first' row count was set to 0\n");
  const message index = dbg("Table 'first' index was set to 1\n");
  EXPECT_THAT(
      messages(),
      ElementsAre(
          dbg("Initializing tarn_memdb module\n"),
          dbg("Could not open file '" + ranges_file() + "' with private port range\n"),
          dbg("\nBase Dir = '" + base_directory() + "'\nBase Backup Dir = '" + backup_directory() +
              "'\nNum Tables = 1\n"),
          dbg("\nUSE_INDEX = '0'\nDUPLICATED_DATA_CHECK = '0'\nMAX_ROWS = 100\nNUM_FIELDS = 2\n"),
          dbg("\nFIELD NAME = 'key'\nLEN = 31\nFLAG = 1\n"),
          dbg("\nFIELD NAME = 'val'\nLEN = 31\nFLAG = 0\n"), dbg("\nFILE_NAME = 'first.txt'\n"),
          index, count, dbg("Table 'first' state was set to value 0\n"), read_schema(),
          dbg("Loading table 'first' from file 'first.txt'\n"), count, index, count, index, count,
          index,
          dbg("New file '" + main_file("first") + "' will be created later when necessary\n"),
          dbg("Creating lock for table 'first'\n"), dbg("Initializing tarn_memdb module OK\n")));
}

TEST_F(LifecycleTest, TheStartRegistersTheCommandsAndTheTimer) {
  module().set_param("store_tbl_interval", 7);
  start({FIRST});
  EXPECT_EQ(standin::rpc_tables().size(), 1u);
  ASSERT_EQ(standin::timers().size(), 1u);
  EXPECT_EQ(standin::timers()[0].interval, 7u);
  EXPECT_EQ(standin::timers()[0].param, nullptr);
}

TEST_F(LifecycleTest, TheTimerRunsEveryFifteenSecondsUnlessTold) {
  start({FIRST});
  ASSERT_EQ(standin::timers().size(), 1u);
  EXPECT_EQ(standin::timers()[0].interval, 15u);
}

TEST_F(LifecycleTest, TheTimerStoresWhatChangedAndNothingElse) {
  start({FIRST, SECOND});
  run("tarn_memdb_insert", {"first,k|v"});
  standin::tick();
  EXPECT_EQ(read_file(main_file("first")), table_text({"k|v"}));
  EXPECT_FALSE(file_exists(main_file("second")));
  EXPECT_FALSE(store_writes("first"));
}

TEST_F(LifecycleTest, TheModuleAsksForThePvModuleOnceAndForTheExplodeFunctionIfItHasTo) {
  start({});
  restart();
  configure({});
  standin::reset_calls();
  standin::set_host_kind(standin::host_kind::exported_explode);
  EXPECT_EQ(module().init(), 0);
  EXPECT_EQ(standin::calls("find_export"), 2);
  EXPECT_EQ(standin::calls("pv_register_api"), 1);
  shared_blocks_may_stay = true;  // of the start before this one
}

TEST_F(LifecycleTest, AHostWithTheNinthOperationIsAskedForNothingMore) {
  standin::set_host_kind(standin::host_kind::ninth_operation);
  configure({});
  EXPECT_EQ(init(), 0);
  EXPECT_EQ(standin::calls("find_export"), 1);
  EXPECT_EQ(standin::calls("pv_register_api"), 1);
}

TEST_F(LifecycleTest, AHostThatCantMakeXavpsIsNoReasonNotToStart) {
  standin::set_host_kind(standin::host_kind::without_explode);
  configure({FIRST});
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
}

TEST_F(LifecycleTest, EveryBlockOfTheStartIsFreedAtTheStop) {
  write_tables();
  write_file(ranges_file(), "INT 21000 21001 21002\nEXT 10000 10001\nINT 21010 21011\n");
  start({FIRST, SECOND});
  run("tarn_memdb_insert", {"first,a|b"});
  EXPECT_GT(module_blocks(pool::shm), 0u);
  destroy();
  EXPECT_EQ(standin::leak_report(pool::shm), "");
}

TEST_F(LifecycleTest, TheEngineWorksInSharedMemory) {
  start({FIRST});
  const size_t before = module_blocks(pool::shm);
  run("tarn_memdb_insert", {"first,k|v"});
  EXPECT_EQ(module_blocks(pool::shm), before + 1);
  run("tarn_memdb_delete", {"first,k|v"});
  EXPECT_EQ(module_blocks(pool::shm), before);
}

TEST_F(LifecycleTest, AStartWithoutAPathToASchemaFails) {
  EXPECT_EQ(init(), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not open file '' with table(s) description\n"),
                          err("Could not create table(s) schema from configuration file ''\n")));
}

TEST_F(LifecycleTest, AStartWithoutASchemaFileFails) {
  configure({FIRST});
  unlink(schema_file().c_str());
  write_tables();
  expect_refused({err("Could not open file '" + schema_file() + "' with table(s) description\n"),
                  refused_schema()});
}

TEST_F(LifecycleTest, AStartWhoseSchemaCantBeOpenedFails) {
  configure({FIRST});
  write_tables();
  standin::fail_file_op("fopen", 2, EACCES);  // the first is the private range file
  expect_refused({err("Could not open file '" + schema_file() + "' with table(s) description\n"),
                  refused_schema()});
}

TEST_F(LifecycleTest, ASchemaLineThatDoesNotBelongFailsTheStart) {
  configure({FIRST});
  std::string schema = read_file(schema_file());
  schema.insert(schema.find("USE_INDEX"), "RANGE=dynamic\n");
  write_file(schema_file(), schema);
  write_tables();
  expect_refused({err("Error on reading! Maybe a line is missing"), refused_schema()});
}

TEST_F(LifecycleTest, ASchemaNameThatIsTooLongFailsTheStart) {
  for (const std::string key : {"TABLE_NAME=", "FILE_NAME=", "BASE_DIR=", "BASE_BACKUP_DIR="}) {
    configure({FIRST});
    std::string schema = read_file(schema_file());
    schema.insert(schema.find("\n" + key) == std::string::npos
                      ? key.size()
                      : schema.find("\n" + key) + 1 + key.size(),
                  std::string(key == "TABLE_NAME=" ? 32 : 256, 'x'));
    write_file(schema_file(), schema);
    write_tables();
    standin::clear_logs();
    expect_refused({err("Error on reading! Maybe a line is missing"), refused_schema()});
  }
}

TEST_F(LifecycleTest, ASchemaOfNoTablesIsAllRight) {
  start({});
  EXPECT_EQ(module().child_init(1), 0);
}

TEST_F(LifecycleTest, ATableWithNoColumnsIsAllRight) {
  start({FIRST});
  restart();
  configure({});
  write_file(schema_file(), "BASE_DIR=" + base_directory() + "\nNUM_TABLE=1\nTABLE_NAME=empty\n");
  standin::clear_logs();
  EXPECT_EQ(module().init(), 0);
  shared_blocks_may_stay = true;  // of the start before this one
}

TEST_F(LifecycleTest, ARefusedRegistrationOfTheCommandsFailsTheStart) {
  configure({FIRST});
  write_tables();
  standin::fail_call("rpc_register_array", 1);
  expect_refused({dbg("Initializing tarn_memdb module\n"), err("failed to register RPC commands\n"),
                  crit("Failed to register RPC commands\n")},
                 DBG_LEVEL);
}

TEST_F(LifecycleTest, ARefusedTimerFailsTheStart) {
  configure({FIRST, SECOND});
  write_tables();
  standin::fail_call("register_timer", 1);
  expect_refused({read_schema(), err("Could not create timer for store_table_mngt\n")});
}

TEST_F(LifecycleTest, AMissingPvModuleFailsTheStartAtItsEnd) {
  standin::set_pv_module_loaded(false);
  configure({FIRST, SECOND});
  write_tables();
  expect_refused(
      {read_schema(), err("Cannot import pv functions (pv module must be loaded before this "
                          "module)\n")});
  EXPECT_EQ(standin::timers().size(), 1u);
}

// What a start says whose n-th allocation finds no memory, and whether it goes on all the same.
struct starved {
  int result;
  std::vector<message> said;  // down to INFO, without the line for a read schema
  std::string detail = {};    // a line at DBG, if there is one
};

class StarvedStartTest : public LifecycleTest {
 protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    shared_blocks_may_stay = true;  // some, told below, stay where the start stopped
  }

  // Fails each allocation of a start in turn and compares with what is expected of each; a start
  // makes no more of them. `left` tells how many shared blocks stay.
  template <typename Left>
  void fail_each(pool which, const std::vector<starved> &expected, Left left) {
    for (size_t n = 1; n <= expected.size(); n++) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      write_tables();
      write_file(ranges_file(), "INT 21000 21001\n");
      configure({FIRST, SECOND});
      const auto before = files();
      standin::fail_at(which, n);
      EXPECT_EQ(init(), expected[n - 1].result);
      EXPECT_EQ(standin::failed_allocations(), 1u);
      std::vector<message> said = messages(INFO_LEVEL);
      said.erase(std::remove(said.begin(), said.end(), read_schema()), said.end());
      EXPECT_THAT(said, ElementsAreArray(expected[n - 1].said));
      if (!expected[n - 1].detail.empty()) {
        EXPECT_TRUE(standin::logged(DBG_LEVEL, expected[n - 1].detail)) << standin::log_dump();
      }
      if (expected[n - 1].result != 0) {
        EXPECT_EQ(files(), before);
      }
      destroy();
      EXPECT_EQ(standin::live_count(pool::shm), left(n)) << standin::leak_report(pool::shm);
      EXPECT_EQ(module_blocks(pool::pkg), 0u) << standin::leak_report(pool::pkg);
      if (expected[n - 1].result != 0) {
        EXPECT_EQ(files(), before);
      }
      unload();
      load();
    }
    write_tables();
    configure({FIRST, SECOND});
    standin::reset_allocation_count();
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(standin::allocation_count(which), expected.size());
  }
};

TEST_F(StarvedStartTest, EachSharedAllocationFailsWithItsMessage) {
  const message no_ports = err("Could not init port map\n");
  const auto record = [&](const std::string &range) -> starved {
    return {
        -1,
        {info("Could not create port management in shared memory for " + range + "\n"), no_ports}};
  };
  const auto map = [&](const std::string &name) -> starved {
    return {-1, {info("Could not allocate memory for " + name + "->port_map\n"), no_ports}};
  };
  const message refused = refused_schema();
  const starved no_range = {0, {err("Could not allocate memory for port_m->private_range\n")}};
  const starved no_names = {-1, {refused}, "Could not allocate memory for field_name!\n"};
  const starved no_name = {0, {}};
  const auto no_table = [&](const std::string &part) -> starved {
    return {-1,
            {err("Fail to allocate memory to the " + part + "\n"), refused},
            "Could not allocate memory for tbl!\n"};
  };
  const auto no_row = [&](const std::string &name, const std::string &values) -> starved {
    return {0,
            {err("Fail to allocate memory to the row\n"),
             err("Could not insert '" + name + "," + values + "'\n"),
             warn(set_aside(main_file(name)))}};
  };
  const starved no_lock = {-1,
                           {err("Could not allocate the lock\n"), err("Could not init lock\n")}};
  const std::vector<starved> expected = {
      {-1, {err("Could not allocate memory for tarn_tbl_mngt\n")}},
      record("internal range"),
      record("external range"),
      record("internal range for static endpoint"),
      record("external range for static endpoint"),
      map("port_m_int"),
      map("port_m_ext"),
      map("port_m_static_int"),
      map("port_m_static_ext"),
      {-1,
       {err("Could not allocate the lock\n"), info("Could not initialize port map lock\n"),
        no_ports}},
      no_range,  // the list of ranges
      no_range,  // the one range
      {-1, {refused}, "Could not create tarn_tbl_mngt->tarn_tbl in shared memory!\n"},
      no_names,
      no_name,
      no_name,
      no_table("table"),
      no_table("columns"),
      no_table("hash table buckets"),
      no_names,
      no_name,
      no_table("table"),
      no_table("columns"),
      no_row("first", "k|v"),
      no_row("second", "x"),
      no_lock,
      no_lock,
  };
  // Port maps without their lock are never freed: what was made of them before the failure stays.
  fail_each(pool::shm, expected, [](size_t n) { return n >= 2 && n <= 10 ? n - 2 : 0; });
}

TEST_F(StarvedStartTest, EachPrivateAllocationFailsWithItsMessage) {
  const starved no_declaration = {
      -1, {refused_schema()}, "Could not allocate memory for tbl_dcl!\n"};
  const auto no_fields = [this](const std::string &name, const std::string &values) -> starved {
    const std::string composed = name + "," + values;
    return {0,
            {crit("no more pkg memory\n"),
             err("Wrong number of fields in field list: " + composed + " | (null)\n"),
             err("Could not parse '" + composed + "'\n"), warn(set_aside(main_file(name)))}};
  };
  const std::vector<starved> expected = {no_declaration, no_declaration, no_fields("first", "k|v"),
                                         no_fields("second", "x")};
  fail_each(pool::pkg, expected, [](size_t) { return 0u; });
}

TEST_F(StarvedStartTest, ARowThatFindsNoMemoryGivesWayToTheBackup) {
  write_tables();
  configure({FIRST});
  standin::fail_at(pool::pkg, 2);
  start_configured();
  expect_rows("first", {{"old", "v"}});
  EXPECT_FALSE(file_exists(main_file("first")));
  EXPECT_EQ(read_file(refused(main_file("first"))), table_text({"k|v"}));
}

TEST_F(StarvedStartTest, AColumnWhoseNameFindsNoMemoryIsThereAndNameless) {
  configure({FIRST});
  standin::fail_at(pool::shm, 13);  // without private ranges: the first name
  ASSERT_EQ(init(), 0) << standin::log_dump();
  standin::stop_failing();
  EXPECT_EQ(run("tarn_memdb_insert", {"first,k|v"}), 1);
  EXPECT_EQ(run("tarn_memdb_select", {"first,k|*", "$avp(a)|$avp(b)"}), 1);
  EXPECT_EQ(standin::avp("b"), std::vector<value>{"v"});
  EXPECT_EQ(run("tarn_memdb_xavp_select", {"first,k|*", "row"}), -1);  // the host wants names
  ASSERT_EQ(standin::explode_calls().size(), 1u) << standin::log_dump();
  EXPECT_EQ(standin::explode_calls()[0].params, "='k';val='v'");
  const standin::command refused = fixup("tarn_memdb_select", {"first,key=k,", "$avp(a)"});
  EXPECT_FALSE(refused.accepted());
}

TEST_F(StarvedStartTest, ASecondRangeThatFindsNoMemoryCostsTheRangesAndNothingElse) {
  for (const uint64_t n : {13u, 14u}) {
    write_file(ranges_file(), "INT 21000 21001\nINT 21010 21011\nEXT 10000 10001\n");
    configure({FIRST});
    standin::fail_at(pool::shm, n);
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(
        standin::logged(ERR_LEVEL, "Could not allocate memory for port_m->private_range\n"));
    destroy();
    EXPECT_EQ(standin::leak_report(pool::shm), "");
    unload();
    load();
  }
}

TEST_F(LifecycleTest, WithoutTheTimerTheStartWarnsAndTheStopStores) {
  module().set_param("store_tbl_auto", 0);
  configure({FIRST});
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(read_schema(), warn("Table(s) will not be stored automatically\n")));
  EXPECT_EQ(standin::timers().size(), 0u);
  EXPECT_EQ(run("tarn_memdb_insert", {"first,k|v"}), 1);
  EXPECT_FALSE(file_exists(main_file("first")));
  destroy();
  EXPECT_EQ(read_file(main_file("first")), table_text({"k|v"}));
}

TEST_F(LifecycleTest, AnyOtherNumberThanZeroSwitchesTheTimerOn) {
  module().set_param("store_tbl_auto", -1);
  configure({FIRST});
  EXPECT_EQ(init(), 0);
  EXPECT_EQ(standin::timers().size(), 1u);
}

TEST_F(LifecycleTest, AChildTellsItsRankAndItsProcess) {
  start({FIRST});
  EXPECT_EQ(module().child_init(3), 0);
  EXPECT_EQ(module().child_init(-2), 0);
  const std::string pid = std::to_string(getpid());
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Initializing tarn_memdb module child [3] pid [" + pid + "]\n"),
                          dbg("Initializing tarn_memdb module child [-2] pid [" + pid + "]\n")));
}

TEST_F(LifecycleTest, TheStopStoresWhatTheTimerHadNotYetStored) {
  start({FIRST, SECOND});
  run("tarn_memdb_insert", {"first,k|v"});
  standin::clear_logs();
  destroy();
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Destroy tarn_memdb module\n"), dbg("Looking all tables for changes\n"),
                  dbg("Storing table 'first' to file 'first.txt'\n"),
                  dbg("Table 'first' was changed. Saving changes to file\n"),
                  dbg("Saving backup file '" + backup_file("first") + "'\n"),
                  dbg("Saving file '" + main_file("first") + "'\n"),
                  dbg("Table 'first' state was set to value 0\n"),
                  dbg("Storing table 'second' to file 'second.txt'\n"),
                  dbg("Table 'second' was not changed\n"), dbg("Destroy tarn_memdb module OK\n")));
  EXPECT_EQ(read_file(main_file("first")), table_text({"k|v"}));
  EXPECT_FALSE(file_exists(main_file("second")));
}

TEST_F(LifecycleTest, AStopThatCantStoreSaysSoAndFreesEverything) {
  start({FIRST});
  run("tarn_memdb_insert", {"first,k|v"});
  standin::clear_logs();
  standin::fail_file_op("fopen", 1, EACCES);
  destroy();
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not open file '" + main_file("first") + "'\n"),
                          err("Could not store table 'first' to file 'first.txt'\n")));
  EXPECT_EQ(standin::leak_report(pool::shm), "");
}

TEST_F(LifecycleTest, AStopWithoutAStartDoesNothing) {
  module().destroy();
  EXPECT_THAT(messages(), ElementsAre(dbg("Destroy tarn_memdb module\n"),
                                      dbg("Looking all tables for changes\n"),
                                      dbg("Destroy tarn_memdb module OK\n")));
}

TEST_F(LifecycleTest, ASecondStopDoesNothing) {
  start({FIRST});
  destroy();
  module().destroy();
  EXPECT_EQ(standin::leak_report(pool::shm), "");
}

TEST_F(LifecycleTest, RowsAndTheIndexCounterComeBackAfterARestart) {
  const table numbered = {"numbered", {{"id"}, {"name", 31, true}}, 100, "", true};
  start({FIRST, numbered});
  run("tarn_memdb_insert", {"first,a|1"});
  run("tarn_memdb_insert", {"first,b|2"});
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,x|one"}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,x|two"}), 2);
  restart();
  expect_rows("first", {{"a", "1"}, {"b", "2"}});
  expect_rows("numbered", {{"1", "one"}, {"2", "two"}});
  EXPECT_EQ(run("tarn_memdb_insert", {"numbered,x|three"}), 3);
  EXPECT_FALSE(store_writes("first"));
}

TEST_F(LifecycleTest, MoreRowsThanTheLimitAreLoaded) {
  table small = FIRST;
  small.max_rows = 1;
  write_file(main_file("first"), table_text({"a|1", "b|2", "c|3"}));
  start({small});
  expect_rows("first", {{"a", "1"}, {"b", "2"}, {"c", "3"}});
}

TEST_F(LifecycleTest, EachStartAsksForTheDebugLevelOnce) {
  standin::set_debug_level(WARN_LEVEL);
  write_tables();
  configure({FIRST, SECOND});
  standin::reset_calls();
  EXPECT_EQ(init(), 0);
  EXPECT_EQ(standin::debug_level_queries(), 1);
  standin::tick();
  EXPECT_EQ(standin::debug_level_queries(), 2);
  destroy();
  EXPECT_EQ(standin::debug_level_queries(), 3);
}

}  // namespace
}  // namespace module_test
