// tarn-memdb-check: what the module would make of a schema and its files at its next start. Reads
// with the module's own code and changes nothing.
#include <algorithm>
#include <iostream>
#include <string>

#include "tables/tarn_tbl.h"
#include "tools/check/memory_check.h"
#include "tools/check/options.h"
#include "tools/check/place_check.h"
#include "tools/check/range_check.h"
#include "tools/check/report.h"
#include "tools/check/table_start.h"
#include "tools/common/findings.h"
#include "tools/common/input_text.h"
#include "tools/common/made_tables.h"
#include "tools/common/schema_check.h"
#include "tools/common/shared_pool.h"
#include "tools/common/visible_text.h"

namespace {

bool has_table(std::string_view name) {
  return std::ranges::any_of(all_tarn_tbls(),
                             [name](const tarn_tbl &table) { return name == table.table_name; });
}

void load_tables(const options &given, start_forecast *start, findings *out) {
  table_starts starts(given.best_matches, out);
  const size_t without_rows = server_memory.used();
  for (tarn_tbl &table : all_tarn_tbls()) start->tables.push_back(starts.start(&table));
  start->put_away = starts.files_put_away();
  start->start = starts.outcome();
  start->memory = starts.row_memory();
  start->memory.at_start += without_rows;
  start->memory.when_full += without_rows;
}

void check_tables(const options &given, const std::string &schema_text, start_forecast *start,
                  findings *out) {
  const schema_places places = check_schema(given.schema, schema_text, out);
  if (places.is_absurd) return;
  if (!make_tables(given.schema, schema_text, out)) {
    start->start = start_outcome::fails;
    return;
  }
  check_places({given.schema, given.private_ranges}, places, out);
  for (const auto &[name, count] : given.best_matches)
    if (!has_table(name))
      out->warn(given.schema, 0, "has no table " + in_quotes(name) + ", which --best-match names");
  load_tables(given, start, out);
  check_memory(given.schema, start->memory, given.memory_mb, out);
}

void check(const options &given, start_forecast *start, findings *out) {
  std::string why;
  if (!make_module_records())
    out->unreadable(given.schema, 0, "the server has too little shared memory for the port maps");
  else if (const auto text = input_text(given.schema, &why))
    check_tables(given, *text, start, out);
  else
    out->unreadable(given.schema, 0, why);
  if (given.private_ranges.empty()) return;
  if (const auto text = input_text(given.private_ranges, &why))
    check_private_ranges(given.private_ranges, *text, out);
  else
    out->unreadable(given.private_ranges, 0, why);
}

exit_status status_of(const findings &found, const options &given) {
  if (found.any_unreadable()) return UNREADABLE;
  return found.errors() + (given.errors_only ? 0 : found.warnings()) == 0 ? CLEAN : FINDINGS;
}

}  // namespace

// The tables aren't taken apart at the end: the rows of a large one would take their time, and the
// process gives all back.
int main(int argc, char **argv) {
  const options given = read_options(argc, argv);
  set_server_memory(given.memory_mb);
  findings found(given.errors_only);
  start_forecast start;
  check(given, &start, &found);
  (given.json ? print_json : print_lines)(std::cout, found, start, given);
  return finish_output(CHECK_PROGRAM) ? status_of(found, given) : UNREADABLE;
}
