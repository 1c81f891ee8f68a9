// tarn-memdb-convert: table files from one schema to another, and tables as CSV. Reads with the
// module's own code.
#include <csignal>
#include <iostream>

#include "tools/common/finding_report.h"
#include "tools/common/findings.h"
#include "tools/common/shared_pool.h"
#include "tools/convert/conversion.h"
#include "tools/convert/csv_tables.h"
#include "tools/convert/options.h"
#include "tools/convert/report.h"

namespace {

exit_status status_of(const findings &found) {
  if (found.any_unreadable()) return UNREADABLE;
  return found.errors() == 0 ? CLEAN : FINDINGS;
}

int run_export(const options &given) {
  findings found;
  export_csv(given, &found);
  if (given.json)
    print_json(std::cerr, found, {});
  else
    print_findings(std::cerr, found);
  return status_of(found);
}

}  // namespace

// The tables aren't taken apart at the end: the process gives all back.
int main(int argc, char **argv) {
  const options given = read_options(argc, argv);
  // Half of an export is told as such, to whoever has stopped to read it.
  signal(SIGPIPE, SIG_IGN);
  set_server_memory(0);
  if (given.kind == run_kind::export_table) return run_export(given);
  findings found;
  run_report run;
  (given.kind == run_kind::convert ? convert : import_csv)(given, &run, &found);
  (given.json ? print_json : print_lines)(std::cout, found, run);
  return finish_output(CONVERT_PROGRAM) ? status_of(found) : UNREADABLE;
}
