// What each operation on a row does with the port that the row claims.
#include "tests/unit/tables/admission_fixture.h"

namespace tables_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FlagTreatmentTest : public AdmissionTest {
 protected:
  void treat(port_operation operation, const query_in *in, const memdb_row *row = nullptr,
             const query_in *changed = nullptr) {
    standin::clear_logs();
    flag_treatment(table(), in, row, changed, operation);
    EXPECT_EQ(debug()[0], "Initializing flag_treatment ...\n");
  }

  void take_row(const char *location, const char *internal, const char *external) {
    treat(port_operation::take, query(fields(location, "", "", internal, external)).get());
  }

  // Port of a map with that many rows on it.
  static void hold(port_m *map, int32_t port, int rows_on_it) {
    set_port(map, port);
    for (int i = 0; i < rows_on_it; i++) increment_port_count(map, port);
  }

  // A query that names the ports alone.
  static std::unique_ptr<query_scope> port_query(const char *internal, const char *external) {
    return query(fields(nullptr, nullptr, nullptr, internal, external));
  }
};

TEST_F(FlagTreatmentTest, ATableWithoutPortsOrWithoutTheirColumnHasNothingToDo) {
  struct {
    int flag;
    int internal;
  } const cases[] = {{0, 6}, {2, 6}, {-1, 6}, {1, 10}};
  for (const auto &each : cases) {
    table_spec spec = port_table("dynamic");
    spec.flag = each.flag;
    spec.ports[0].internal = each.internal;
    start_with_ports(spec);
    hold(port_m_int, 103, 1);
    const memdb_row *const row = insert(fields("WAN", "6", "6", "103", "203"));
    const auto in = query(fields("WAN", "6", "6", "103", "203"));
    const auto values = query(fields("WAN", "6", "6", "104", "203"));
    for (const port_operation operation :
         {port_operation::take, port_operation::release, port_operation::release_on_update}) {
      treat(operation, in.get(), row, values.get());
      EXPECT_EQ(standin::logs().size(), 1u);
    }
    EXPECT_THAT(held(), ElementsAre("INT:103=81"));
  }
}

TEST_F(FlagTreatmentTest, TakingCountsRowsAndMovesTheNextFreePort) {
  start_with_ports(port_table("dynamic"));
  take_row("WAN", "100", "");
  take_row("WAN", "100", "");
  EXPECT_THAT(held(), ElementsAre("INT:100=82"));
  EXPECT_EQ(port_m_int->next_free_port, 101);
}

TEST_F(FlagTreatmentTest, WithoutAPortTheNextFreeOneIsTaken) {
  start_with_ports(port_table("dynamic"));
  port_m_int->next_free_port = 105;
  take_row("WAN", nullptr, "203");
  EXPECT_EQ(port_m_int->next_free_port, 106);
  take_row("LAN", "103", nullptr);
  EXPECT_THAT(held(), ElementsAre("INT:105=81", "EXT:200=81"));
}

TEST_F(FlagTreatmentTest, APortOutOfRangeIsToldAndNotTaken) {
  struct {
    const char *text;
    int number;
  } const ports[] = {{"99", 99}, {"110", 110}, {"", 0}, {"none", 0}, {"-100", -100}, {nullptr, -1}};
  for (const char *range : {"dynamic", "static"}) {
    start_with_ports(port_table(range));
    port_m_int->next_free_port = port_m_static_int->next_free_port = NO_PORT;
    for (const auto &port : ports) {
      take_row("WAN", port.text, "203");
      EXPECT_EQ(debug().back(),
                message("Port %d NOT set on load for range %s!\n", port.number, range));
      EXPECT_THAT(errors(), IsEmpty());
    }
    EXPECT_THAT(held(), IsEmpty());
  }
}

TEST_F(FlagTreatmentTest, ReleasingGivesBackOneHolderOfTheRowsOwnPort) {
  start_with_ports(port_table("dynamic"));
  hold(port_m_int, 103, 2);
  hold(port_m_ext, 203, 1);
  const memdb_row *const row = insert(fields("WAN", "", "", "103", "203"));
  for (const texts &left :
       {texts{"INT:103=81", "EXT:203=81"}, texts{"EXT:203=81"}, texts{"EXT:203=81"}}) {
    treat(port_operation::release, port_query("104", "204").get(), row);
    EXPECT_EQ(held(), left);
    EXPECT_THAT(errors(), IsEmpty()) << "also for a port that nobody holds";
  }
}

TEST_F(FlagTreatmentTest, ReleasingAPortOutOfRangeIsTold) {
  start_with_ports(port_table("dynamic"));
  for (const char *port : {"99", "", "abc"}) {
    treat(port_operation::release, port_query(nullptr, nullptr).get(),
          insert(fields("WAN", "", "", port, "203")));
    EXPECT_THAT(errors(), ElementsAre(message("Port %s not cleared!\n", port)));
  }
}

// What the selection and the values of an update say, on a row with the internal port 103 that is
// held, as 105 and the external 203 are.
TEST_F(FlagTreatmentTest, AnUpdateReleasesThePortThatItsSelectionNamesWhereItSetsAnother) {
  struct {
    const char *old_port;
    const char *new_port;
    const char *released;  // of 103 and 105
    const char *error = nullptr;
  } const cases[] = {{"103", "104", "103"},
                     {"103", "", "103"},
                     {"103", "999", "103"},
                     {"103", "0103", "103"},
                     {"103", "103", ""},
                     {"103", nullptr, ""},
                     {nullptr, "104", ""},
                     {nullptr, nullptr, ""},
                     {"105", "104", "105"},  // not what the row holds
                     {"", "", "", "Port  not cleared!\n"},
                     {"999", "104", "", "Port 999 not cleared!\n"}};
  for (const auto &each : cases) {
    start_with_ports(port_table("dynamic"));
    hold(port_m_int, 103, 1);
    hold(port_m_int, 105, 1);
    hold(port_m_ext, 203, 1);
    // The side is the row's, whatever the queries say; the new port isn't taken.
    const memdb_row *const row = insert(fields("WAN", "", "3", "103", "203"));
    const auto wanted = query(fields("LAN", "3", "3", each.old_port, "203"));
    const auto values = query(fields("LAN", "3", "3", each.new_port, "204"));
    treat(port_operation::release_on_update, wanted.get(), row, values.get());
    texts left = {"INT:103=81", "INT:105=81", "EXT:203=81"};
    if (*each.released != '\0') std::erase(left, message("INT:%s=81", each.released));
    EXPECT_EQ(held(), left);
    EXPECT_EQ(errors(), each.error != nullptr ? texts{each.error} : texts{});
  }
}

TEST_F(FlagTreatmentTest, ThePortMapsLockIsNotTaken) {
  start_with_ports(port_table("dynamic"));
  const lock_scope held_elsewhere(port_map_lock);
  take_row("WAN", "103", "203");
  EXPECT_THAT(held(), ElementsAre("INT:103=81"));
  EXPECT_EQ(*port_map_lock, 1u);
}

}  // namespace
}  // namespace tables_test
