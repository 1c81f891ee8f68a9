// The counters that the module adds to the host's: their names, what each tells, and that they cost
// a start nothing.
#include <algorithm>
#include <cerrno>
#include <set>

#include "tests/module/fixture.h"
#include "tests/module/processes.h"
#include "tests/standin/counters.h"

namespace module_test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

const table USERS = {"users", {{"name", 31, true}, {"age"}}, 3};

class CountersTest : public ModuleTest {
 protected:
  CountersTest() { standin::forget_counters(); }

  // A module in its place that starts anew.
  void reopen() {
    unload();
    standin::forget_counters();
    load();
  }

  static long value(const std::string &name) { return standin::counter_value("tarn_memdb", name); }

  static texts names() {
    texts out;
    for (const standin::counter_record &each : standin::counters()) out.push_back(each.name);
    return out;
  }

  // The names that tell the rows of a table.
  static texts names_of_rows() {
    texts out;
    for (const std::string &name : names())
      if (name.rfind("rows_", 0) == 0) out.push_back(name);
    return out;
  }

  static std::string doc_of(const std::string &name) {
    for (const standin::counter_record &each : standin::counters())
      if (each.name == name) return each.doc;
    return "";
  }
};

TEST_F(CountersTest, AServerWithOneTableHasThese) {
  start({USERS});
  EXPECT_THAT(
      names(),
      ElementsAre("refused_full", "refused_duplicate", "failed_stores", "refused_files",
                  "refused_ports", "retired_rows", "taken_ports_int", "free_ports_int",
                  "refused_ports_int", "taken_ports_ext", "free_ports_ext", "refused_ports_ext",
                  "taken_ports_static_int", "free_ports_static_int", "refused_ports_static_int",
                  "taken_ports_static_ext", "free_ports_static_ext", "refused_ports_static_ext",
                  "rows_users", "free_rows_users", "file_rows_users", "file_bytes_users",
                  "refused_full_users", "refused_duplicate_users", "failed_stores_users",
                  "refused_files_users"));
  EXPECT_THAT(standin::counters(), Each(Field(&standin::counter_record::group, "tarn_memdb")));
  EXPECT_THAT(standin::counters(), Each(Field(&standin::counter_record::flags, CNT_F_NO_RESET)));
  EXPECT_EQ(doc_of("rows_users"), "table 'users': rows");
  EXPECT_EQ(doc_of("taken_ports_int"), "ports that are taken");
}

TEST_F(CountersTest, RowsAndFreeRowsFollowTheTable) {
  start_filled(USERS, {"alice|30"});
  EXPECT_EQ(value("rows_users"), 1);
  EXPECT_EQ(value("free_rows_users"), 2);
  run("tarn_memdb_insert", {"users,bob|31"});
  EXPECT_EQ(value("rows_users"), 2);
  run("tarn_memdb_delete", {"users,*|*"});
  EXPECT_EQ(value("rows_users"), 0);
  EXPECT_EQ(value("free_rows_users"), 3);
}

TEST_F(CountersTest, ATableThatALoadHasOverfilledHasNoFreeRows) {
  start_filled(USERS, {"a|1", "b|2", "c|3", "d|4"});
  EXPECT_EQ(value("rows_users"), 4);
  EXPECT_EQ(value("free_rows_users"), 0);
}

TEST_F(CountersTest, ATableWithoutALimitTellsNoFreeRows) {
  start({{"endless", {{"x"}}, -1}, {"other", {{"x"}}}});
  const texts found = names();
  EXPECT_EQ(std::count(found.begin(), found.end(), "free_rows_endless"), 0);
  EXPECT_EQ(std::count(found.begin(), found.end(), "free_rows_other"), 1);
  EXPECT_EQ(value("file_rows_endless"), 0);
  EXPECT_EQ(value("rows_endless"), 0);
}

TEST_F(CountersTest, RowsAreThoseOfTheFileAfterAReloadAndNoneAfterAClear) {
  start_filled(USERS, {"alice|30"});
  write_file(main_file("users"), table_text({"a|1", "b|2"}));
  rpc("tarn_memdb.reload_table", {"users"});
  EXPECT_EQ(value("rows_users"), 2);
  rpc("tarn_memdb.clear_tbl", {"users"});
  EXPECT_EQ(value("rows_users"), 0);
}

TEST_F(CountersTest, RefusedInsertsCountForTheirTableWhateverWayTheyCome) {
  const table other = with({"other", {{"a"}}}, 1, "", false, true);
  start({with({"users", {{"name"}, {"age"}, {"city"}}}, 2, "", false, true), other});
  run("tarn_memdb_insert", {"users,a|1|"});
  run("tarn_memdb_insert", {"users,a|1|"});
  EXPECT_EQ(value("refused_duplicate_users"), 1);
  run("sqll_tarn_memdb_insert", {"INSERT INTO users name,age VALUES a,1"});
  rpc("tarn_memdb.insert", {"users,a|1|"});
  EXPECT_EQ(value("refused_duplicate_users"), 3);
  run("tarn_memdb_insert", {"users,b|1|"});
  EXPECT_EQ(value("refused_full_users"), 0);
  run("tarn_memdb_insert", {"users,c|1|"});
  rpc("tarn_memdb.insert", {"users,c|1|"});
  EXPECT_EQ(value("refused_full_users"), 2);
  run("tarn_memdb_insert", {"other,a"});
  run("tarn_memdb_insert", {"other,a"});
  EXPECT_EQ(value("refused_full_other"), 1);
  EXPECT_EQ(value("refused_full"), 3);
  EXPECT_EQ(value("refused_duplicate_other"), 0);
  EXPECT_EQ(value("refused_duplicate"), 3);
}

TEST_F(CountersTest, TheMainFileIsToldAsLoadedAndThenAsStored) {
  start_filled(USERS, {"alice|30", "bob|31"});
  EXPECT_EQ(value("file_rows_users"), 2);
  const auto size_of_main_file = [this] {
    return static_cast<long>(read_file(main_file("users")).size());
  };
  EXPECT_EQ(value("file_bytes_users"), size_of_main_file());
  run("tarn_memdb_insert", {"users,carol|32"});
  EXPECT_EQ(value("file_rows_users"), 2) << "not stored yet";
  standin::tick();
  EXPECT_EQ(value("file_rows_users"), 3);
  EXPECT_EQ(value("file_bytes_users"), size_of_main_file());
  rpc("tarn_memdb.clear_tbl", {"users"});
  EXPECT_EQ(value("file_rows_users"), 0);
  EXPECT_EQ(value("file_bytes_users"), size_of_main_file());
}

TEST_F(CountersTest, ATableWithoutAMainFileTellsNone) {
  configure({USERS});
  write_file(backup_file("users"), table_text({"alice|30"}));
  start_configured();
  EXPECT_EQ(value("rows_users"), 1);
  EXPECT_EQ(value("file_rows_users"), 0);
  EXPECT_EQ(value("file_bytes_users"), 0);
}

TEST_F(CountersTest, FailedStoresCountAndLeaveWhatIsToldOfTheFile) {
  start_filled(USERS, {"alice|30"});
  run("tarn_memdb_insert", {"users,bob|31"});
  const long bytes = value("file_bytes_users");
  standin::fail_file_op("write", 1, ENOSPC);
  standin::tick();
  EXPECT_EQ(value("failed_stores_users"), 1);
  EXPECT_EQ(value("file_rows_users"), 1);
  EXPECT_EQ(value("file_bytes_users"), bytes);
  standin::tick();
  EXPECT_EQ(value("failed_stores_users"), 1);
  EXPECT_EQ(value("failed_stores"), 1);
  EXPECT_EQ(value("file_rows_users"), 2);
}

TEST_F(CountersTest, RefusedFilesCountFromTheStartOn) {
  configure({USERS});
  write_file(main_file("users"), table_text({"not a row"}));
  write_file(backup_file("users"), table_text({"alice|30", "nor|this|one"}));
  start_configured();
  EXPECT_EQ(value("refused_files_users"), 2);
  write_file(main_file("users"), table_text({"x"}));
  rpc("tarn_memdb.reload_table", {"users"});
  EXPECT_EQ(value("refused_files_users"), 3) << "there was no backup to refuse";
  EXPECT_EQ(value("refused_files"), 3);
}

TEST_F(CountersTest, PortsAreTakenFreeOrSetAside) {
  write_file(ranges_file(), "INT 105 106 107\n");
  start_with_small_maps({});
  EXPECT_EQ(value("taken_ports_int"), 0);
  EXPECT_EQ(value("free_ports_int"), 7) << "105 to 107 are set aside";
  EXPECT_EQ(value("free_ports_ext"), 10);
  EXPECT_EQ(value("free_ports_static_int"), 10);
  EXPECT_EQ(value("free_ports_static_ext"), 10);
  run("tarn_memdb_get_port", {"INT"});
  run("tarn_memdb_set_port", {"107", "INT"});
  run("tarn_memdb_get_port", {"STATIC_EXT"});
  EXPECT_EQ(value("taken_ports_int"), 2);
  EXPECT_EQ(value("free_ports_int"), 6);
  EXPECT_EQ(value("taken_ports_static_ext"), 1);
  run("tarn_memdb_free_port", {"INT", "107"});
  EXPECT_EQ(value("taken_ports_int"), 1);
}

TEST_F(CountersTest, RequestsThatFindNoPortCountForTheirMap) {
  write_file(ranges_file(), "EXT 205 206\n");
  start_with_small_maps({});
  for (int i = 0; i < 10; i++) EXPECT_GT(run("tarn_memdb_get_port", {"INT"}), 0);
  EXPECT_EQ(value("refused_ports"), 0);
  EXPECT_EQ(run("tarn_memdb_get_port", {"INT"}), -1);
  run("tarn_memdb_get_port", {"INT", "$avp(port)"});
  EXPECT_EQ(value("refused_ports_int"), 2);
  EXPECT_EQ(run("tarn_memdb_get_port_from_range", {"EXT", "205"}), 206);
  EXPECT_EQ(value("refused_ports_ext"), 0);
  EXPECT_EQ(run("tarn_memdb_get_port_from_range", {"EXT", "205"}), -1);
  EXPECT_EQ(value("refused_ports_ext"), 1);
  EXPECT_EQ(value("refused_ports"), 3);
  run("tarn_memdb_get_port", {"NONE"});
  EXPECT_EQ(value("refused_ports"), 3) << "no map, so no request of one";
}

TEST_F(CountersTest, ANameWithOtherBytesThanLettersDigitsAndUnderscoresIsMadePlain) {
  start({{"a-b", {{"x"}}}, {"a.b", {{"x"}}}, {"a_b", {{"x"}}}, {"\xc3\xa4", {{"x"}}}});
  EXPECT_THAT(names_of_rows(), ElementsAre("rows_a_b", "rows_a_b_2", "rows_a_b_3", "rows___"));
  EXPECT_EQ(doc_of("rows_a_b"), "table 'a_b': rows") << "whose own name it is";
  EXPECT_EQ(doc_of("rows_a_b_2"), "table 'a-b': rows");
  EXPECT_EQ(doc_of("free_rows_a_b_3"), "table 'a.b': rows up to MAX_ROWS");
}

TEST_F(CountersTest, NoTwoCountersShareAName) {
  start({{"full", {{"x"}}},
         {"int", {{"x"}}},
         {"rows", {{"x"}}},
         {"x", {{"x"}}},
         {"full", {{"x"}}},
         {"rows_full", {{"x"}}},
         {"x_2", {{"x"}}},
         {"x", {{"x"}}},
         {"files", {{"x"}}},
         {"duplicate", {{"x"}}}});
  const texts found = names();
  EXPECT_EQ(std::set<std::string>(found.begin(), found.end()).size(), 18u + 10 * 8);
}

TEST_F(CountersTest, ACounterThatIsThereAlreadyStays) {
  const auto seven = [](counter_handle_t, void *) { return 7L; };
  counter_register(nullptr, "tarn_memdb", "refused_full", 0, seven, nullptr, "", 0);
  counter_register(nullptr, "tarn_memdb", "free_rows_users", 0, seven, nullptr, "", 0);
  counter_register(nullptr, "tarn_memdb", "rows_other", 0, seven, nullptr, "", 0);
  configure({USERS, {"other", {{"x"}}}});
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
  EXPECT_EQ(value("refused_full"), 7);
  EXPECT_EQ(value("free_rows_users"), 7);
  EXPECT_EQ(value("rows_users"), 0);
  EXPECT_EQ(value("rows_other_2"), 0);
  EXPECT_EQ(value("free_rows_other_2"), 100);
}

TEST_F(CountersTest, AHostThatHasNoMemoryForACounterIsLeftAloneWithTheOthers) {
  for (const int n : {1, 7, 19, 20}) {
    configure({USERS});
    standin::clear_logs();
    standin::fail_call("counter_register", n);
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(messages(WARN_LEVEL), ElementsAre(warn("Could not register all counters\n")));
    EXPECT_THAT(standin::counters(), SizeIs(static_cast<size_t>(n) - 1));
    EXPECT_EQ(run("tarn_memdb_insert", {"users,a|1"}), 1);
    EXPECT_EQ(run("tarn_memdb_delete", {"users,a|1"}), 1);
    reopen();
  }
}

TEST_F(CountersTest, WithoutMemoryForTheCountsThereAreNoCounters) {
  configure({with(USERS, 1)});
  standin::reset_allocation_count();
  EXPECT_EQ(init(), 0);
  const uint64_t last = standin::allocation_count(pool::shm);
  reopen();
  configure({with(USERS, 1)});
  standin::fail_at(pool::shm, last);
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(messages(WARN_LEVEL), ElementsAre(warn("Could not allocate memory for counters\n")));
  EXPECT_THAT(standin::counters(), IsEmpty());
  EXPECT_EQ(run("tarn_memdb_insert", {"users,a|1"}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,b|1"}), -1) << "refused, and counted nowhere";
  standin::tick();
}

TEST_F(CountersTest, TablesBehindThe128thHaveNoneOfTheirOwn) {
  std::vector<table> many;
  for (int i = 0; i < 130; i++) many.push_back(with({"t" + std::to_string(i), {{"x"}}}, 1));
  configure(many);
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(messages(NOTICE_LEVEL),
              ElementsAre(notice("Tables behind the first 128 have no counters of their own\n")));
  EXPECT_THAT(names_of_rows(), SizeIs(128));
  EXPECT_THROW(value("rows_t128"), std::out_of_range);
  run("tarn_memdb_insert", {"t129,a"});
  run("tarn_memdb_insert", {"t129,b"});
  EXPECT_EQ(value("refused_full"), 1);
}

TEST_F(CountersTest, BehindTheStopAllOfThemAreNothing) {
  start_filled(with(USERS, 1), {"alice|30"});
  run("tarn_memdb_insert", {"users,bob|31"});
  run("tarn_memdb_get_port", {"INT"});
  destroy();
  for (const std::string &name : names()) EXPECT_EQ(value(name), 0) << name;
}

TEST_F(CountersTest, ProcessesCountTogether) {
  ASSERT_TRUE(standin::use_shared_mapping(32U << 20));
  start_filled(with(USERS, 1), {"alice|30"});
  const standin::command insert = fixup("tarn_memdb_insert", {"users,bob|31"});
  const auto work = [&] {
    for (int i = 0; i < 100; i++) module().run(insert, msg);
    return 0;
  };
  child_process one(work), two(work);
  EXPECT_EQ(one.result(), 0);
  EXPECT_EQ(two.result(), 0);
  EXPECT_EQ(value("refused_full_users"), 200);
}

TEST_F(CountersTest, RowsThatAreKeptForAReaderAreTold) {
  ASSERT_TRUE(standin::use_shared_mapping(32U << 20));
  start_filled(USERS, {"alice|30", "bob|31"});
  const standin::command select = fixup("tarn_memdb_nl_xavp_select", {"users,*|*", "row"});
  EXPECT_EQ(value("retired_rows"), 0);
  stopped_process reader("params to explode", [&] { return module().run(select, msg); });
  run("tarn_memdb_delete", {"users,*|*"});
  EXPECT_EQ(value("retired_rows"), 2);
  reader.let_go();
  standin::tick();
  EXPECT_EQ(value("retired_rows"), 0);
}

}  // namespace
}  // namespace module_test
