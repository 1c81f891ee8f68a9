// Rows that hold ports: what the functions that write rows, by query and by statement, do with the
// port maps. Which port a row claims is tested in tests/unit/tables.
#include "tests/module/shared_view.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr int ID = 0;
constexpr int RESERVED = 0x80;  // taken by a script
constexpr int HELD_ONCE = 0x81;
constexpr int HELD_TWICE = 0x82;

// A table of each range, and rows of either side. Each map has ten ports.
struct holder {
  const char *range;
  const char *location;
  const char *map;
  int first;
  int port_column;
};

std::ostream &operator<<(std::ostream &out, const holder &shown) { return out << shown.map; }

// A port and the byte of its entry.
using entries = std::map<int, int>;

class PortRowsTest : public SharedViewTest,
                     public testing::WithParamInterface<std::tuple<bool, holder>> {
 protected:
  static bool by_statement() { return std::get<0>(GetParam()); }
  static const holder &held() { return std::get<1>(GetParam()); }

  void start_table() { start_with_small_maps({port_table("held", held().range)}); }

  static std::string port(int n) { return std::to_string(held().first + n); }
  static std::string port_name() { return held().port_column == 9 ? "int_port" : "ext_port"; }

  static std::string list(const texts &columns) { return "held," + joined(columns, "|"); }

  // Columns of a row; the other side names a port that isn't looked at.
  static texts row_of(const std::string &id, const std::string &port) {
    texts out = {id, "k" + id, "b", "c", "d", held().location, "e", "0", "0", "0", "0"};
    out[static_cast<size_t>(held().port_column)] = port;
    return out;
  }

  // A query of the rows that have a text in a column.
  static texts wanting(int column, const std::string &text) {
    texts out(11, "*");
    out[static_cast<size_t>(column)] = text;
    return out;
  }

  int insert(const std::string &id, const std::string &port) {
    return by_statement() ? run("sqll_tarn_memdb_insert",
                                {"INSERT INTO held id,k1,location," + port_name() + " VALUES " +
                                 id + ",k" + id + "," + held().location + "," + port})
                          : run("tarn_memdb_insert", {list(row_of(id, port))});
  }

  int remove(const std::string &id) {
    return by_statement() ? run("sqll_tarn_memdb_delete", {"DELETE FROM held WHERE id=" + id})
                          : run("tarn_memdb_delete", {list(wanting(ID, id))});
  }

  // Sets the port, and the location if there is one, of the rows that have a text in a column.
  int update(const std::string &new_port, int column, const std::string &wanted,
             const std::string &location = "") {
    if (by_statement()) {
      const auto text = [](const std::string &any) { return any.empty() ? "''" : any; };
      return run("sqll_tarn_memdb_update",
                 {"UPDATE held SET k2=x," + port_name() + "=" + text(new_port) +
                  (location.empty() ? "" : ",location=" + location) + " WHERE " +
                  (column == ID ? "id" : port_name()) + "=" + text(wanted)});
    }
    texts values = wanting(held().port_column, new_port);
    values[2] = "x";
    if (!location.empty()) values[5] = location;
    return run("tarn_memdb_update", {list(wanting(column, wanted)), joined(values, "|")});
  }

  // All ports whose entries aren't zero; the maps have no numbers in common.
  entries taken() {
    entries out;
    for (const char *word : MAP_WORDS) {
      const std::vector<int> bytes = view().bytes(word);
      for (size_t i = 0; i < bytes.size(); i++)
        if (bytes[i] != 0) out[view().map(word).min_port + static_cast<int>(i)] = bytes[i];
    }
    return out;
  }
  entries one(int n, int entry) { return {{held().first + n, entry}}; }
};

TEST_P(PortRowsTest, EachInsertCountsAndEachDeleteGivesBackOneHolder) {
  start_table();
  EXPECT_EQ(insert("1", port(1)), 1) << standin::log_dump();
  EXPECT_EQ(taken(), one(1, HELD_ONCE));
  EXPECT_EQ(insert("2", port(1)), 1);
  EXPECT_EQ(taken(), one(1, HELD_TWICE));
  EXPECT_EQ(insert("3", port(0)), 1);
  EXPECT_EQ(view().map(held().map).next_free_port, held().first + 2);
  EXPECT_EQ(remove("3"), 1);
  EXPECT_EQ(remove("1"), 1);
  EXPECT_EQ(taken(), one(1, HELD_ONCE));
  EXPECT_EQ(remove("2"), 1);
  EXPECT_EQ(taken(), entries{});
}

TEST_P(PortRowsTest, APortThatAScriptTookComesFreeWithItsRow) {
  start_table();
  EXPECT_EQ(run("tarn_memdb_get_port", {held().map}), held().first);
  EXPECT_EQ(taken(), one(0, RESERVED));
  EXPECT_EQ(insert("1", port(0)), 1);
  EXPECT_EQ(taken(), one(0, HELD_ONCE));
  EXPECT_EQ(remove("1"), 1);
  EXPECT_EQ(taken(), entries{});
}

TEST_P(PortRowsTest, AScriptCanGiveBackThePortOfARow) {
  start_table();
  insert("1", port(1));
  insert("2", port(1));
  EXPECT_EQ(run("tarn_memdb_free_port", {held().map, port(1)}), 0);
  EXPECT_EQ(taken(), one(1, HELD_ONCE));
}

TEST_P(PortRowsTest, AnUpdateThatNamesTheOldPortReleasesItAndTakesNoNewOne) {
  start_table();
  const int port_column = held().port_column;
  insert("1", port(1));
  EXPECT_EQ(update(port(1), port_column, port(1)), 1);
  EXPECT_EQ(taken(), one(1, HELD_ONCE)) << "the same port";
  EXPECT_EQ(update(port(3), ID, "1"), 1);
  EXPECT_EQ(taken(), one(1, HELD_ONCE)) << "the selection doesn't name it";
  EXPECT_EQ(update(port(1), ID, "1"), 1);
  EXPECT_EQ(update(port(3), port_column, port(1)), 1);
  EXPECT_EQ(taken(), entries{});
  EXPECT_EQ(remove("1"), 1);
  EXPECT_EQ(taken(), entries{}) << "the row's new port is in no map";
}

TEST_P(PortRowsTest, AnUpdateGoesByTheSideThatTheRowHadBefore) {
  start_table();
  insert("1", port(1));
  const std::string other = held().location == std::string("WAN") ? "LAN" : "WAN";
  EXPECT_EQ(update(port(3), held().port_column, port(1), other), 1);
  EXPECT_EQ(taken(), entries{});
}

TEST_P(PortRowsTest, APortOutOfRangeIsToldAndTheRowComesAndGoesAllTheSame) {
  start_table();
  EXPECT_EQ(insert("1", "7"), 1);
  EXPECT_THAT(messages(), Contains(dbg(std::string("Port 7 NOT set on load for range ") +
                                       held().range + "!\n")));
  clear();
  EXPECT_EQ(remove("1"), 1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Port 7 not cleared!\n")));
  EXPECT_EQ(row_count("held"), 0);
}

TEST_P(PortRowsTest, AnEmptyPortThatStaysEmptyIsReleasedAsPortZero) {
  start_table();
  ASSERT_EQ(run("tarn_memdb_insert", {list(row_of("1", ""))}), 1);
  clear();
  EXPECT_EQ(update("", held().port_column, ""), 1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Port  not cleared!\n")));
}

TEST_P(PortRowsTest, ARefusedInsertTakesNoPort) {
  table small = with(port_table("held", held().range), 1, "", false, true);
  start_with_small_maps({small});
  const standin::command prepared = fixup("tarn_memdb_insert", {list(row_of("1", port(1)))});
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_EQ(taken(), entries{});
  insert("1", port(1));
  EXPECT_EQ(insert("1", port(1)), -1) << "a duplicate";
  EXPECT_EQ(insert("2", port(2)), -1) << "the table is full";
  EXPECT_EQ(taken(), one(1, HELD_ONCE));
}

TEST_P(PortRowsTest, AClearedTableLeavesItsPortsTaken) {
  start_table();
  insert("1", port(1));
  EXPECT_EQ(run("tarn_memdb_clear_tbl", {"held"}), 1);
  EXPECT_EQ(taken(), one(1, HELD_ONCE));
}

INSTANTIATE_TEST_SUITE_P(All, PortRowsTest,
                         testing::Combine(testing::Bool(),
                                          testing::Values(holder{"dynamic", "WAN", "INT", 100, 9},
                                                          holder{"static", "LAN", "STATIC_EXT", 400,
                                                                 10})),
                         [](const auto &tested) {
                           return std::string(std::get<1>(tested.param).map) +
                                  (std::get<0>(tested.param) ? "ByStatement" : "ByQuery");
                         });

// An update statement that empties the row's last texts removes it, and says to the maps no more
// than its own queries do.
using PortStatementTest = SharedViewTest;

TEST_F(PortStatementTest, ARowGoneThroughAnUpdateReleasesByTheQueriesAlone) {
  start_with_small_maps({port_table("held", "dynamic")});
  for (const std::string id : {"1", "2"})
    run("tarn_memdb_insert", {"held," + id + "|a|b|c|d|WAN|e|0|0|10" + id + "|0"});
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE held SET k2='' WHERE id=1"}), 1);
  EXPECT_EQ(view().port("INT", 101), HELD_ONCE);
  EXPECT_EQ(run("sqll_tarn_memdb_update", {"UPDATE held SET int_port='' WHERE int_port=102"}), 1);
  EXPECT_EQ(view().port("INT", 102), 0);
  EXPECT_EQ(row_count("held"), 0);
}

}  // namespace
}  // namespace module_test
