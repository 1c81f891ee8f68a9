// Which port in which map a row claims, and what each operation does with it.
#include "tests/unit/tables/admission_fixture.h"

namespace tables_test {
namespace {

// Columns: 5 location, 6 internal port, 7 type of static tables, 8 type of dynamic ones, 9 external
// port.
std::vector<const char *> fields(const char *location, const char *static_type,
                                 const char *dynamic_type, const char *internal,
                                 const char *external) {
  return {"n", "1", "2", "3", "x", location, internal, static_type, dynamic_type, external};
}

class FlagTreatmentTest : public AdmissionTest {
 protected:
  void treat(uint32_t operation, const query_in *in, const memdb_row *row = nullptr,
             const query_in *changed = nullptr) {
    standin::clear_logs();
    flag_treatment(table(), in, row, changed, 0, operation);
    EXPECT_EQ(debug()[0], "Initializing flag_treatment ...\n");
  }

  memdb_row *insert(const std::vector<const char *> &row) {
    return memdb_insert(table()->tbl, row.data());
  }

  // Port of a map with that many rows on it.
  static void take(port_m *map, int32_t port, int rows_on_it) {
    set_port(map, port);
    for (int i = 0; i < rows_on_it; i++) increment_port_count(map, port);
  }
};

TEST_F(FlagTreatmentTest, ATableWithoutPortsHasNothingToDo) {
  for (const int flag : {0, 2, -1}) {
    table_spec spec = port_table("dynamic");
    spec.flag = flag;
    start_with_ports(spec);
    const auto in = query(fields("WAN", "6", "6", "103", "203"));
    const memdb_row *const row = insert(fields("WAN", "6", "6", "103", "203"));
    for (const uint32_t operation : {0U, 1U, 2U, 3U, 4U}) {
      treat(operation, in.get(), row, in.get());
      EXPECT_EQ(standin::logs().size(), 1u);
    }
    EXPECT_EQ(held(), texts{});
  }
}

TEST_F(FlagTreatmentTest, SideAndRangeChooseTheMap) {
  struct {
    const char *range;
    const char *location;
    const char *static_type;
    const char *dynamic_type;
    const char *taken;
  } const cases[] = {
      {"dynamic", "WAN", "0", "0", "INT:"},        {"dynamic", "LAN", "0", "6", "INT:"},
      {"dynamic", "WAN", "0", "6", "INT:"},        {"dynamic", "LAN", "0", "3", "EXT:"},
      {"dynamic", "LAN", "6", "3", "EXT:"},        {"dynamic", "", "6", "", "EXT:"},
      {"dynamic", "wan", "6", "3", "EXT:"},        {"dynamic", "WAN ", "6", "3", "EXT:"},
      {"dynamic", "WANX", "6", "60", "EXT:"},      {"dynamic", "LAN", "0", " 6x", "INT:"},
      {"static", "WAN", "0", "0", "STATIC_INT:"},  {"static", "LAN", "6", "3", "STATIC_INT:"},
      {"static", "LAN", "3", "6", "STATIC_EXT:"},  {"static", "", "", "6", "STATIC_EXT:"},
      {"Dynamic", "WAN", "0", "0", "STATIC_INT:"}, {"dynami", "LAN", "0", "6", "STATIC_EXT:"},
      {"x", "LAN", "06", "3", "STATIC_INT:"},      {"x", "LAN", "-6", "6", "STATIC_EXT:"}};
  for (const auto &each : cases) {
    for (const bool with_row : {false, true}) {
      start_with_ports(port_table(each.range));
      // A port that lies in the middle of each map, whichever it is.
      const std::string taken = each.taken;
      const char *const internal = taken == "INT:" ? "103" : "303";
      const char *const external = taken == "EXT:" ? "203" : "403";
      const std::vector<const char *> values =
          fields(each.location, each.static_type, each.dynamic_type, internal, external);
      // With a row, what the query says doesn't count.
      const auto in =
          query(with_row ? fields(nullptr, nullptr, nullptr, nullptr, nullptr) : values);
      treat(PORT_TAKE, in.get(), with_row ? insert(values) : nullptr);
      const std::string port = taken.find("INT") != std::string::npos ? internal : external;
      EXPECT_EQ(held(), texts{taken + port + "=81"})
          << each.range << ' ' << each.location << ' ' << each.static_type << ' '
          << each.dynamic_type << " row " << with_row;
    }
  }
}

TEST_F(FlagTreatmentTest, WildcardsInLocationAndTypeMeanTheExternalSide) {
  start_with_ports(port_table("dynamic"));
  treat(PORT_TAKE, query(fields(nullptr, nullptr, nullptr, "103", "203")).get());
  EXPECT_EQ(held(), texts{"EXT:203=81"});
  treat(PORT_TAKE, query(fields(nullptr, nullptr, "6", "103", "203")).get());
  EXPECT_EQ(held(), (texts{"INT:103=81", "EXT:203=81"}));
}

TEST_F(FlagTreatmentTest, TakingCountsRowsAndMovesTheNextFreePort) {
  start_with_ports(port_table("dynamic"));
  const auto in = query(fields("WAN", "", "", "100", ""));
  treat(PORT_TAKE, in.get());
  treat(PORT_TAKE, in.get());
  EXPECT_EQ(held(), texts{"INT:100=82"});
  EXPECT_EQ(port_m_int->next_free_port, 101);
}

TEST_F(FlagTreatmentTest, WithoutAPortTheNextFreeOneIsTaken) {
  start_with_ports(port_table("dynamic"));
  port_m_int->next_free_port = 105;
  treat(PORT_TAKE, query(fields("WAN", "", "", nullptr, "203")).get());
  EXPECT_EQ(held(), texts{"INT:105=81"});
  EXPECT_EQ(port_m_int->next_free_port, 106);
  treat(PORT_TAKE, query(fields("LAN", "", "", "103", nullptr)).get());
  EXPECT_EQ(held(), (texts{"INT:105=81", "EXT:200=81"}));
}

TEST_F(FlagTreatmentTest, WithoutAPortInAnExhaustedMapNothingIsTaken) {
  start_with_ports(port_table("dynamic"));
  port_m_int->next_free_port = NO_PORT;
  treat(PORT_TAKE, query(fields("WAN", "", "", nullptr, "")).get());
  EXPECT_EQ(held(), texts{});
  EXPECT_TRUE(logged(L_DBG, "Port -1 NOT set on load for range dynamic!\n"));
}

TEST_F(FlagTreatmentTest, APortOutOfRangeIsToldAndNotTaken) {
  struct {
    const char *text;
    int number;
  } const ports[] = {{"99", 99}, {"110", 110}, {"", 0}, {"none", 0}, {"-100", -100}};
  for (const char *range : {"dynamic", "static"}) {
    start_with_ports(port_table(range));
    for (const auto &port : ports) {
      treat(PORT_TAKE, query(fields("WAN", "", "", port.text, "203")).get());
      EXPECT_EQ(debug().back(),
                message("Port %d NOT set on load for range %s!\n", port.number, range));
      EXPECT_TRUE(errors().empty());
    }
    EXPECT_EQ(held(), texts{});
  }
}

TEST_F(FlagTreatmentTest, ReleasingGivesBackOneHolder) {
  start_with_ports(port_table("dynamic"));
  take(port_m_int, 103, 2);
  const auto in = query(fields(nullptr, nullptr, nullptr, nullptr, nullptr));
  const memdb_row *const row = insert(fields("WAN", "", "", "103", "203"));
  treat(PORT_RELEASE, in.get(), row);
  EXPECT_EQ(held(), texts{"INT:103=81"});
  treat(PORT_RELEASE, in.get(), row);
  EXPECT_EQ(held(), texts{});
  EXPECT_TRUE(errors().empty());
  // A port that nobody holds is given back all the same.
  treat(PORT_RELEASE, in.get(), row);
  EXPECT_TRUE(errors().empty());
}

TEST_F(FlagTreatmentTest, ReleasingFollowsTheRowsOwnSide) {
  struct {
    const char *range;
    const char *location;
    const char *type;
    const char *left;
  } const cases[] = {{"dynamic", "WAN", "3", "EXT:103=81"},
                     {"dynamic", "LAN", "3", "INT:103=81"},
                     {"static", "LAN", "6", "STATIC_EXT:103=81"},
                     {"static", "LAN", "3", "STATIC_INT:103=81"}};
  for (const auto &each : cases) {
    for (int32_t *bound :
         {&g_min_int_port, &g_min_ext_port, &g_min_static_int_port, &g_min_static_ext_port})
      *bound = 100;
    for (int32_t *bound :
         {&g_max_int_port, &g_max_ext_port, &g_max_static_int_port, &g_max_static_ext_port})
      *bound = 109;
    const bool dynamic = std::string(each.range) == "dynamic";
    start_with_ports(port_table(each.range));
    take(dynamic ? port_m_int : port_m_static_int, 103, 1);
    take(dynamic ? port_m_ext : port_m_static_ext, 103, 1);
    const auto in = query(fields(nullptr, nullptr, nullptr, nullptr, nullptr));
    treat(PORT_RELEASE, in.get(),
          insert(fields(each.location, each.type, each.type, "103", "103")));
    EXPECT_EQ(held(), texts{each.left});
  }
}

TEST_F(FlagTreatmentTest, ReleasingAPortOutOfRangeIsTold) {
  start_with_ports(port_table("dynamic"));
  const auto in = query(fields(nullptr, nullptr, nullptr, nullptr, nullptr));
  for (const char *port : {"99", "", "abc"}) {
    treat(PORT_RELEASE, in.get(), insert(fields("WAN", "", "", port, "203")));
    EXPECT_EQ(errors(), texts{message("Port %s not cleared!\n", port)});
  }
}

TEST_F(FlagTreatmentTest, AnUpdateReleasesTheOldPortWhereAnotherIsSet) {
  struct {
    const char *old_port;
    const char *new_port;
    bool released;
  } const cases[] = {{"103", "104", true},    {"103", "", true},        {"103", "999", true},
                     {"103", "0103", true},   {"103", "103", false},    {"103", nullptr, false},
                     {nullptr, "104", false}, {nullptr, nullptr, false}};
  for (const auto &each : cases) {
    start_with_ports(port_table("dynamic"));
    take(port_m_int, 103, 1);
    const memdb_row *const row = insert(fields("WAN", "", "", "103", "203"));
    const auto wanted = query(fields(nullptr, nullptr, nullptr, each.old_port, nullptr));
    const auto values = query(fields(nullptr, nullptr, nullptr, each.new_port, nullptr));
    treat(PORT_RELEASE_ON_UPDATE, wanted.get(), row, values.get());
    EXPECT_EQ(held(), each.released ? texts{} : texts{"INT:103=81"});
    EXPECT_TRUE(errors().empty());
  }
}

TEST_F(FlagTreatmentTest, AnUpdateTakesNoPort) {
  start_with_ports(port_table("dynamic"));
  take(port_m_int, 103, 1);
  const memdb_row *const row = insert(fields("WAN", "", "", "103", "203"));
  const auto wanted = query(fields("WAN", "", "", "103", "203"));
  const auto values = query(fields(nullptr, nullptr, nullptr, "104", "204"));
  treat(PORT_RELEASE_ON_UPDATE, wanted.get(), row, values.get());
  EXPECT_EQ(held(), texts{});
}

TEST_F(FlagTreatmentTest, AnUpdateFromEmptyToEmptyTriesPortZeroAndTellsSo) {
  start_with_ports(port_table("dynamic"));
  const memdb_row *const row = insert(fields("WAN", "", "", "", "203"));
  const auto wanted = query(fields(nullptr, nullptr, nullptr, "", nullptr));
  const auto values = query(fields(nullptr, nullptr, nullptr, "", nullptr));
  treat(PORT_RELEASE_ON_UPDATE, wanted.get(), row, values.get());
  EXPECT_EQ(errors(), texts{"Port  not cleared!\n"});
}

TEST_F(FlagTreatmentTest, AnUpdateOfAPortOutOfRangeTellsTheOldOne) {
  start_with_ports(port_table("dynamic"));
  const memdb_row *const row = insert(fields("WAN", "", "", "999", "203"));
  const auto wanted = query(fields(nullptr, nullptr, nullptr, "999", nullptr));
  const auto values = query(fields(nullptr, nullptr, nullptr, "104", nullptr));
  treat(PORT_RELEASE_ON_UPDATE, wanted.get(), row, values.get());
  EXPECT_EQ(errors(), texts{"Port 999 not cleared!\n"});
}

TEST_F(FlagTreatmentTest, AnUpdateDecidesTheSideByTheRowAndNotByTheQueries) {
  start_with_ports(port_table("dynamic"));
  take(port_m_int, 103, 1);
  take(port_m_ext, 203, 1);
  const memdb_row *const row = insert(fields("WAN", "", "3", "103", "203"));
  const auto wanted = query(fields("LAN", "3", "3", "103", "203"));
  const auto values = query(fields("LAN", "3", "3", "104", "204"));
  treat(PORT_RELEASE_ON_UPDATE, wanted.get(), row, values.get());
  EXPECT_EQ(held(), texts{"EXT:203=81"});
}

TEST_F(FlagTreatmentTest, AnUpdateReleasesWhatTheSelectionNamesAndNotWhatTheRowHolds) {
  start_with_ports(port_table("dynamic"));
  take(port_m_int, 103, 1);
  take(port_m_int, 105, 1);
  const memdb_row *const row = insert(fields("WAN", "", "", "103", "203"));
  const auto wanted = query(fields(nullptr, nullptr, nullptr, "105", nullptr));
  const auto values = query(fields(nullptr, nullptr, nullptr, "104", nullptr));
  treat(PORT_RELEASE_ON_UPDATE, wanted.get(), row, values.get());
  EXPECT_EQ(held(), texts{"INT:103=81"});
}

TEST_F(FlagTreatmentTest, OtherOperationsDoNothing) {
  start_with_ports(port_table("dynamic"));
  take(port_m_int, 103, 1);
  const memdb_row *const row = insert(fields("WAN", "", "", "103", "203"));
  const auto in = query(fields("WAN", "", "", "103", "203"));
  const auto values = query(fields("WAN", "", "", "104", "203"));
  for (const uint32_t operation : {1U, 4U, 5U, 4294967295U}) {
    treat(operation, in.get(), row, values.get());
    EXPECT_EQ(held(), texts{"INT:103=81"});
    EXPECT_EQ(standin::logs().size(), 1u);
  }
}

TEST_F(FlagTreatmentTest, ColumnsThatTheTableLacksReadAsAbsent) {
  struct {
    const char *range;
    size_t columns;
    int internal;
    int external;
  } const cases[] = {{"dynamic", 5, 1, 1},  // no location
                     {"dynamic", 1, 0, 0},
                     {"dynamic", 8, 6, 6},     // no dynamic type
                     {"static", 7, 6, 6},      // no static type
                     {"dynamic", 10, 10, 10},  // no port
                     {"dynamic", 10, 99, 2147483647},
                     {"static", 10, -1, -2147483647}};
  for (const auto &each : cases) {
    table_spec spec = port_table(each.range);
    spec.columns.resize(each.columns);
    spec.ports[0].internal = each.internal;
    spec.ports[0].external = each.external;
    start_with_ports(spec);
    for (const port_map_kind &kind : port_map_kinds) take(*kind.map, (*kind.map)->min_port + 3, 1);
    const texts before = held();
    for (const char *location : {"WAN", "LAN"}) {
      std::vector<const char *> values = fields(location, "3", "3", "103", "203");
      values.resize(each.columns);
      const memdb_row *const row = insert(values);
      const auto in = query(values);
      const auto nothing = query(std::vector<const char *>(each.columns, nullptr));
      treat(PORT_TAKE, in.get());
      treat(PORT_TAKE, in.get(), row);
      treat(PORT_RELEASE, nothing.get(), row);
      treat(PORT_RELEASE_ON_UPDATE, in.get(), row, in.get());
      EXPECT_EQ(held(), before);
      EXPECT_TRUE(errors().empty());
    }
  }
}

TEST_F(FlagTreatmentTest, OneMissingPortColumnLeavesTheOtherSideWorking) {
  table_spec spec = port_table("dynamic");
  spec.ports[0].internal = 10;
  start_with_ports(spec);
  treat(PORT_TAKE, query(fields("WAN", "", "", "103", "203")).get());
  EXPECT_EQ(held(), texts{});
  treat(PORT_TAKE, query(fields("LAN", "", "", "103", "203")).get());
  EXPECT_EQ(held(), texts{"EXT:203=81"});
}

TEST_F(FlagTreatmentTest, ThePortMapsLockIsNotTaken) {
  start_with_ports(port_table("dynamic"));
  const lock_scope held_elsewhere(port_map_lock);
  treat(PORT_TAKE, query(fields("WAN", "", "", "103", "203")).get());
  EXPECT_EQ(held(), texts{"INT:103=81"});
  EXPECT_EQ(*port_map_lock, 1u);
}

}  // namespace
}  // namespace tables_test
