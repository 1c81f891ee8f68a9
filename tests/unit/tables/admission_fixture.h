// Queries and port maps for the tests of admission and port treatment.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/memory.h"
#include "query/text/field_strings.h"
#include "tests/unit/tables/fixture.h"

namespace tables_test {

class AdmissionTest : public TablesTest {
 protected:
  AdmissionTest() {
    port_settings.internal = {100, 109};
    port_settings.external = {200, 209};
    port_settings.static_internal = {300, 309};
    port_settings.static_external = {400, 409};
  }

  ~AdmissionTest() override { port_settings = usual_; }

  // A query of these fields for the first table; a null is a wildcard.
  static std::unique_ptr<query_scope> query(const std::vector<const char *> &fields) {
    EXPECT_EQ(fields.size(), table()->tbl->col_cnt);
    auto out = std::make_unique<query_scope>();
    out->table = table();
    std::string list;
    for (size_t i = 0; i < fields.size(); i++) {
      const char *const field = fields[i];
      if (i > 0) list += '|';
      for (const char *c = field != nullptr ? field : "*"; *c != '\0'; c++) {
        if (field != nullptr && strchr("|\\*", *c) != nullptr) list += '\\';
        list += *c;
      }
    }
    const str text{list.data(), static_cast<int>(list.size())};
    out->flds = tarn_memdb_create_fields(text, &table()->tbl->col_cnt);
    EXPECT_NE(out->flds, nullptr);
    return out;
  }

  // A port-holding table: name, three key columns, location in 5, the internal port in 6, the type
  // in 7 or 8, the external port in 9.
  static table_spec port_table(const std::string &range) {
    table_spec spec;
    spec.ports = {{range, 6, 9}};
    spec.columns.clear();
    for (int i = 0; i < 10; i++) spec.columns.push_back({"c" + std::to_string(i), 100});
    return spec;
  }

  // A row of it, or a query.
  static std::vector<const char *> fields(const char *location, const char *static_type,
                                          const char *dynamic_type, const char *internal,
                                          const char *external) {
    return {"n", "1", "2", "3", "x", location, internal, static_type, dynamic_type, external};
  }

  static memdb_row *insert(const std::vector<const char *> &row) {
    return memdb_insert(table()->tbl, row.data());
  }

  void start_with_ports(const table_spec &spec) {
    start(spec);
    ASSERT_TRUE(init_port_maps());
    standin::clear_logs();
  }

  // Every port that any map holds, as "INT:103=81", in hexadecimal.
  static texts held() {
    texts out;
    for (const port_map_kind &kind : port_map_kinds) {
      const port_m *const m = *kind.map;
      for (int32_t port = m->min_port; port <= m->max_port; port++)
        if (*port_entry(m, port) != 0)
          out.push_back(message("%s:%d=%x", kind.word, port, *port_entry(m, port)));
    }
    return out;
  }

 private:
  const port_parameters usual_ = port_settings;
};

}  // namespace tables_test
