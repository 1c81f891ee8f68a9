// A schema and the tables that it makes. A conversion has two of them beside each other.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "tables/tarn_tbl.h"
#include "tools/common/findings.h"

struct site {
  std::string schema;  // path
  tarn_mngt *registry = nullptr;
};

// Reads a schema and makes its tables, empty. The port maps have to stand. False, told, for a
// schema by which no rows can be told apart: one that isn't whole, or has two tables of one name,
// or tables without a file.
bool read_site(const std::string &schema, site *out, findings *found);

// From here on the module's code works with the tables of this site.
void enter(const site &at);

std::span<tarn_tbl> tables_of(const site &of);

// Null if the site has no such table.
tarn_tbl *find_table(const site &of, std::string_view name);

// The paths of a table's files.
struct table_places {
  std::string main;
  std::string backup;
};
table_places places_of(const site &at, const tarn_tbl &table);

// The folder that a site's table files are in.
std::string folder_of(const site &of);
