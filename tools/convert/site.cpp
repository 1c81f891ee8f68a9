// Schemas and registries.
#include "tools/convert/site.h"

#include <set>

#include "tables/files/table_paths.h"
#include "tools/common/file_entry.h"
#include "tools/common/input_text.h"
#include "tools/common/made_tables.h"
#include "tools/common/schema_check.h"
#include "tools/common/visible_text.h"

namespace {

// Two tables with one file can't be told from one table.
bool has_own_files(const site &of, const tarn_tbl &table, std::set<std::string> *taken,
                   findings *found) {
  const table_places places = places_of(of, table);
  if (!names_file(places.main)) {
    found->error(of.schema, 0, "table " + in_quotes(table.table_name) + " has no file");
    return false;
  }
  for (const std::string &path : {places.main, places.backup}) {
    if (taken->insert(entry_name(path)).second) continue;
    found->error(of.schema, 0, in_quotes(path) + " is the file of two tables");
    return false;
  }
  return true;
}

bool has_plain_tables(const site &of, findings *found) {
  std::set<std::string> names;
  std::set<std::string> taken;
  bool are_plain = true;
  for (const tarn_tbl &table : tables_of(of)) {
    if (!names.insert(table.table_name).second) {
      found->error(of.schema, 0, "two tables have the name " + in_quotes(table.table_name));
      are_plain = false;
    }
    if (!has_own_files(of, table, &taken, found)) are_plain = false;
  }
  return are_plain;
}

}  // namespace

bool read_site(const std::string &schema, site *out, findings *found) {
  out->schema = schema;
  std::string why;
  const auto text = input_text(schema, &why);
  if (!text) {
    found->unreadable(schema, 0, why);
    return false;
  }
  // What is odd and works is the check's affair.
  findings wrong(true);
  check_schema(schema, *text, &wrong);
  for (const finding &one : wrong.kept()) found->add(one);
  if (wrong.errors() != 0) return false;
  if (!make_next_registry()) {
    found->unreadable(schema, 0, "memory is short");
    return false;
  }
  out->registry = tarn_tbl_mngt;
  return make_tables(schema, *text, found) && has_plain_tables(*out, found);
}

void enter(const site &at) { tarn_tbl_mngt = at.registry; }

std::span<tarn_tbl> tables_of(const site &of) {
  return {of.registry->tables, static_cast<size_t>(of.registry->num_table)};
}

tarn_tbl *find_table(const site &of, std::string_view name) {
  for (tarn_tbl &table : tables_of(of))
    if (name == table.table_name) return &table;
  return nullptr;
}

table_places places_of(const site &at, const tarn_tbl &table) {
  enter(at);
  return {main_path(&table).text, backup_path(&table).text};
}

std::string folder_of(const site &of) {
  enter(of);
  return base_folder().text;
}
