// tarn_memdb_clear_pmap: all port maps, and the tables whose rows hold ports.
#include <cerrno>

#include "tests/module/shared_view.h"

namespace module_test {
namespace {

using testing::Each;
using testing::ElementsAre;

// A table whose rows hold ports, and a row of it.
table calls(const std::string &name, const std::string &range, const std::string &tag = "") {
  return with(port_table(name, range), 100, tag);
}
std::string internal_row(const std::string &id, int port) {
  return id + "|a|b|" + id + "|c|WAN|d|0|0|" + std::to_string(port) + "|0";
}

class ClearPmapTest : public SharedViewTest {
 protected:
  int clear_pmap() { return run("tarn_memdb_clear_pmap", {}); }
};

TEST_F(ClearPmapTest, TellsEveryStep) {
  start_with_small_maps(
      {calls("dyn", "dynamic", "TAG"), {"plain", {{"a"}}}, calls("st", "static")});
  run("tarn_memdb_insert", {"dyn," + internal_row("1", 101)});
  run("tarn_memdb_insert", {"plain,x"});
  standin::tick();
  EXPECT_THAT(
      trace("tarn_memdb_clear_pmap", {}),
      ElementsAre(
          dbg("Clear port map\n"), dbg("Clear table: dyn\n"),
          dbg("Table 'dyn' state was set to value 1\n"),
          notice("       TAG - (0) Clearing table dyn"), dbg("Clear table: st\n"),
          dbg("Table 'st' state was set to value 1\n"), dbg("Looking all tables for changes\n"),
          dbg("Storing table 'dyn' to file 'dyn.txt'\n"),
          dbg("Table 'dyn' was changed. Saving changes to file\n"),
          dbg("Saving backup file '" + backup_file("dyn") + "'\n"),
          dbg("Saving file '" + main_file("dyn") + "'\n"),
          dbg("Table 'dyn' state was set to value 0\n"),
          dbg("Storing table 'plain' to file 'plain.txt'\n"),
          dbg("Table 'plain' was not changed\n"), dbg("Storing table 'st' to file 'st.txt'\n"),
          dbg("Table 'st' was changed. Saving changes to file\n"),
          dbg("Saving backup file '" + backup_file("st") + "'\n"),
          dbg("Saving file '" + main_file("st") + "'\n"),
          dbg("Table 'st' state was set to value 0\n"), dbg("Clear port map OK!\n")));
}

TEST_F(ClearPmapTest, EmptiesPortTablesAndMapsAndNoOthers) {
  write_file(ranges_file(), "EXT 202 203\n");
  start_with_small_maps({calls("c", "dynamic"), {"plain", {{"a"}}}});
  run("tarn_memdb_insert", {"c," + internal_row("1", 101)});
  run("tarn_memdb_insert", {"c,2|d|e|f||LAN||0|0|0|201"});
  run("tarn_memdb_insert", {"plain,x"});
  for (int i = 0; i < 11; i++) run("tarn_memdb_get_port", {"STATIC_EXT"});
  EXPECT_EQ(clear_pmap(), 1);
  expect_rows("c", {});
  expect_rows("plain", {{"x"}});
  for (const char *word : MAP_WORDS) {
    EXPECT_THAT(view().bytes(word), Each(0)) << word;
    EXPECT_EQ(view().map(word).next_free_port, view().map(word).min_port) << word;
  }
  EXPECT_EQ(clear_pmap(), 1) << "there is nothing left to clear";
}

TEST_F(ClearPmapTest, StoresAllThatHasChangedAndKeepsTheRowsInTheBackup) {
  start_with_small_maps({calls("c", "dynamic"), {"plain", {{"a"}}}, calls("empty", "static")});
  run("tarn_memdb_insert", {"c," + internal_row("1", 101)});
  standin::tick();
  run("tarn_memdb_insert", {"plain,x"});
  EXPECT_EQ(clear_pmap(), 1);
  EXPECT_EQ(read_file(main_file("c")), table_text({}));
  EXPECT_EQ(read_file(backup_file("c")), table_text({internal_row("1", 101)}));
  EXPECT_EQ(read_file(main_file("plain")), table_text({"x"}));
  EXPECT_EQ(read_file(main_file("empty")), table_text({}));
  EXPECT_FALSE(store_writes("c"));
}

TEST_F(ClearPmapTest, GivesOneWhenTheStoreFails) {
  start_with_small_maps({calls("c", "dynamic")});
  run("tarn_memdb_insert", {"c," + internal_row("1", 101)});
  const standin::command prepared = fixup("tarn_memdb_clear_pmap", {});
  clear();
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_EQ(call(prepared), 1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not open file '" + main_file("c") + "'\n"),
                          err("Could not store table 'c' to file 'c.txt'\n")));
  EXPECT_TRUE(store_writes("c")) << "tried again at the next tick";
}

TEST_F(ClearPmapTest, LeavesTheNextIndexAlone) {
  table indexed = calls("c", "dynamic");
  indexed.use_index = true;
  start_with_small_maps({indexed});
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + internal_row("x", 101)}), 1);
  EXPECT_EQ(clear_pmap(), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"c," + internal_row("x", 101)}), 2);
}

}  // namespace
}  // namespace module_test
