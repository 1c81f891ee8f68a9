// The rules of port claims one by one, for whoever has a table and no row of it yet.
#include "tables/rows/port_claim.h"

#include "tests/unit/tables/admission_fixture.h"

namespace tables_test {
namespace {

class PortClaimTest : public AdmissionTest {};

TEST_F(PortClaimTest, TheRangeTellsTheColumnOfTheTypeAndTheMaps) {
  start_with_ports(port_table("dynamic"));
  const auto columns = [] {
    const port_columns cols = port_columns_of(*table());
    return std::vector<int32_t>{cols.location, cols.type, cols.int_port, cols.ext_port};
  };
  EXPECT_EQ(columns(), (std::vector<int32_t>{5, 8, 6, 9}));
  EXPECT_EQ(claimed_map(*table(), true), port_m_int);
  EXPECT_EQ(claimed_map(*table(), false), port_m_ext);
  for (const char *const other : {"static", "", "Dynamic"}) {
    snprintf(table()->range, sizeof(table()->range), "%s", other);
    EXPECT_EQ(columns(), (std::vector<int32_t>{5, 7, 6, 9}));
    EXPECT_EQ(claimed_map(*table(), true), port_m_static_int);
    EXPECT_EQ(claimed_map(*table(), false), port_m_static_ext);
  }
}

TEST_F(PortClaimTest, TheClaimedPortIsTheNumberThatTheTextBeginsWith) {
  start_with_ports(port_table("dynamic"));
  port_m_int->next_free_port = 104;
  const auto number = [](const char *text) { return claimed_port({port_m_int, 6, text}); };
  EXPECT_EQ(number("103"), 103);
  EXPECT_EQ(number("103x"), 103);
  EXPECT_EQ(number(""), 0);
  EXPECT_EQ(number("x"), 0);
  EXPECT_EQ(number(nullptr), 104);
}

}  // namespace
}  // namespace tables_test
