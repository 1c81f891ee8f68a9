// Which port in which map a row claims: by its table's range, its location and its type.
#include "tables/rows/port_claim.h"

#include "tests/unit/tables/admission_fixture.h"

namespace tables_test {
namespace {

class PortClaimTest : public AdmissionTest {
 protected:
  // The claim of row or query as the map's word and the port's text, "none" where there is no
  // claim.
  static std::string claimed(const query_in *in, const memdb_row *row) {
    port_claim claim{};
    if (!find_port_claim(table(), in, row, &claim)) return "none";
    for (const port_map_kind &kind : port_map_kinds)
      if (claim.map == *kind.map)
        return std::string(kind.word) + " " + (claim.text != nullptr ? claim.text : "*");
    return "no map";
  }
};

TEST_F(PortClaimTest, SideAndRangeChooseMapAndColumn) {
  struct {
    const char *range;
    const char *location;
    const char *static_type;
    const char *dynamic_type;
    const char *claim;
  } const cases[] = {
      {"dynamic", "WAN", "0", "0", "INT 103"},        {"dynamic", "LAN", "0", "6", "INT 103"},
      {"dynamic", "WAN", "0", "6", "INT 103"},        {"dynamic", "LAN", "0", "3", "EXT 203"},
      {"dynamic", "LAN", "6", "3", "EXT 203"},        {"dynamic", "", "6", "", "EXT 203"},
      {"dynamic", "wan", "6", "3", "EXT 203"},        {"dynamic", "WAN ", "6", "3", "EXT 203"},
      {"dynamic", "WANX", "6", "60", "EXT 203"},      {"dynamic", "LAN", "0", " 6x", "INT 103"},
      {"static", "WAN", "0", "0", "STATIC_INT 103"},  {"static", "LAN", "6", "3", "STATIC_INT 103"},
      {"static", "LAN", "3", "6", "STATIC_EXT 203"},  {"static", "", "", "6", "STATIC_EXT 203"},
      {"Dynamic", "WAN", "0", "0", "STATIC_INT 103"}, {"dynami", "LAN", "0", "6", "STATIC_EXT 203"},
      {"x", "LAN", "06", "3", "STATIC_INT 103"},      {"x", "LAN", "-6", "6", "STATIC_EXT 203"},
      {"dynamic", nullptr, "0", nullptr, "EXT 203"},  {"dynamic", nullptr, "0", "6", "INT 103"}};
  for (const auto &each : cases) {
    SCOPED_TRACE(testing::PrintToString(each.claim));
    start_with_ports(port_table(each.range));
    const auto values = fields(each.location, each.static_type, each.dynamic_type, "103", "203");
    EXPECT_EQ(claimed(query(values).get(), nullptr), each.claim);
    if (each.location == nullptr) continue;  // wildcards are for queries
    // With a row, what the query says doesn't count.
    const auto in = query(fields("LAN", "3", "3", "104", "204"));
    EXPECT_EQ(claimed(in.get(), insert(values)), each.claim);
  }
}

TEST_F(PortClaimTest, ATableWithoutAColumnThatTellsThePortClaimsNone) {
  struct {
    const char *range;
    size_t columns;
    int internal;
    int external;
    const char *internal_claim;
    const char *external_claim;
  } const cases[] = {{"dynamic", 5, 1, 1, "none", "none"},  // no location
                     {"dynamic", 1, 0, 0, "none", "none"},
                     {"dynamic", 8, 6, 6, "none", "none"},     // no dynamic type
                     {"static", 7, 6, 6, "none", "none"},      // no static type
                     {"dynamic", 10, 10, 10, "none", "none"},  // no port
                     {"dynamic", 10, 99, 2147483647, "none", "none"},
                     {"static", 10, -1, -2147483647, "none", "none"},
                     {"dynamic", 10, 10, 9, "none", "EXT 203"},
                     {"static", 8, 6, 10, "STATIC_INT 103", "none"}};
  for (const auto &each : cases) {
    SCOPED_TRACE(testing::Message() << each.range << " " << each.columns << " " << each.internal);
    table_spec spec = port_table(each.range);
    spec.columns.resize(each.columns);
    spec.ports[0].internal = each.internal;
    spec.ports[0].external = each.external;
    start_with_ports(spec);
    for (const bool internal : {true, false}) {
      std::vector<const char *> values = fields(internal ? "WAN" : "LAN", "3", "3", "103", "203");
      values.resize(each.columns);
      const char *const claim = internal ? each.internal_claim : each.external_claim;
      EXPECT_EQ(claimed(query(values).get(), nullptr), claim);
      EXPECT_EQ(claimed(nullptr, insert(values)), claim);
    }
  }
}

TEST_F(PortClaimTest, TheClaimedPortIsTheNumberThatTheTextBeginsWithOrTheNextOne) {
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
