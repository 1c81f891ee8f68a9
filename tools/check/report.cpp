// Lines and JSON.
#include "tools/check/report.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/check/memory_check.h"
#include "tools/common/finding_report.h"
#include "tools/common/shared_pool.h"
#include "tools/common/visible_text.h"

namespace {

const char *name_of(start_outcome outcome) {
  switch (outcome) {
    case start_outcome::works:
      return "works";
    case start_outcome::fails:
      return "fails";
    case start_outcome::hangs:
      return "hangs";
    case start_outcome::unknown:
      break;
  }
  return "unknown";
}

nlohmann::json table_of(const table_forecast &one) {
  nlohmann::json out{{"table", visible(one.table)},
                     {"file", visible(one.main)},
                     {"backup", visible(one.backup)},
                     {"loaded_from", nullptr},
                     {"rows", nullptr}};
  if (one.loaded_from) out["loaded_from"] = visible(*one.loaded_from);
  if (one.rows) out["rows"] = *one.rows;
  return out;
}

}  // namespace

void print_lines(std::ostream &out, const findings &found, const start_forecast &start,
                 const options &given) {
  print_findings(out, found);
  if (given.memory_mb != 0 && !given.errors_only && start.start == start_outcome::works)
    out << "shared memory: " << in_mb(start.memory.at_start) << " of " << given.memory_mb
        << " MB for the tables, " << in_mb(start.memory.when_full) << " when they are full\n";
  if (found.errors() + found.warnings() == 0)
    out << "clean\n";
  else if (given.errors_only && found.errors() == 0)
    out << "no errors\n";
}

void print_json(std::ostream &out, const findings &found, const start_forecast &start,
                const options &given) {
  nlohmann::json tables = nlohmann::json::array();
  for (const table_forecast &one : start.tables) tables.push_back(table_of(one));
  nlohmann::json put_away = nlohmann::json::array();
  for (const put_away_file &one : start.put_away) {
    put_away.push_back({{"file", visible(one.file)}, {"to", nullptr}});
    if (one.to) put_away.back()["to"] = visible(*one.to);
  }
  nlohmann::json whole{{"clean", found.errors() + found.warnings() == 0},
                       {"errors", found.errors()},
                       {"warnings", found.warnings()},
                       {"findings", json_of(found)},
                       {"start", name_of(start.start)},
                       {"tables", tables},
                       {"put_away", put_away}};
  if (given.memory_mb != 0)
    whole["memory"] = {{"allocator", server_memory.rules().name},
                       {"bytes", given.memory_mb << 20},
                       {"bytes_at_start", start.memory.at_start},
                       {"bytes_when_full", start.memory.when_full}};
  out << whole.dump(2) << '\n';
}
