// tarn-memdb-check: what the module would make of a schema and its files at its next start. Reads
// with the module's own code and changes nothing.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "tables/schema.h"
#include "tables/shared_memory.h"
#include "tables/tarn_tbl.h"
#include "tools/check/findings.h"
#include "tools/check/host_services.h"
#include "tools/check/range_check.h"
#include "tools/check/schema_check.h"
#include "tools/check/table_check.h"

namespace {

enum exit_status { CLEAN = 0, FINDINGS = 1, UNREADABLE = 2 };

constexpr char USAGE[] =
    "usage: tarn-memdb-check [options] SCHEMA [PRIVATE_RANGES]\n"
    "\n"
    "Tells, line by line, what tarn_memdb would silently take for zero, refuse, lose or misread\n"
    "at its next start. Reads the schema, the table files and backups that it names, and the\n"
    "private range file, and changes nothing. File names are taken as the server takes them, from\n"
    "the directory that it runs in.\n"
    "\n"
    "  --json                         an object for programs instead of lines\n"
    "  --int-ports MIN-MAX            bounds of the port maps, where the server's configuration\n"
    "  --ext-ports MIN-MAX            sets other ones than the module's own\n"
    "  --static-int-ports MIN-MAX\n"
    "  --static-ext-ports MIN-MAX\n"
    "  --help\n"
    "\n"
    "Exit status: 0 clean, 1 findings, 2 something can't be read.\n";

struct options {
  bool json = false;
  std::string schema;
  std::string private_ranges;
};

[[noreturn]] void refuse(const std::string &why) {
  std::cerr << "tarn-memdb-check: " << why << "\n" << USAGE;
  exit(UNREADABLE);
}

void set_bounds(const char *text, int32_t *min, int32_t *max) {
  char rest;
  if (sscanf(text, "%d-%d%c", min, max, &rest) != 2 || *max < *min)
    refuse("'" + std::string(text) + "' isn't MIN-MAX");
}

options read_options(int argc, char **argv) {
  static const option known[] = {
      {"json", no_argument, nullptr, 'j'},
      {"int-ports", required_argument, nullptr, 'i'},
      {"ext-ports", required_argument, nullptr, 'e'},
      {"static-int-ports", required_argument, nullptr, 'I'},
      {"static-ext-ports", required_argument, nullptr, 'E'},
      {"help", no_argument, nullptr, 'h'},
      {},
  };
  options out;
  for (int c; (c = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
    switch (c) {
      case 'j':
        out.json = true;
        break;
      case 'i':
        set_bounds(optarg, &g_min_int_port, &g_max_int_port);
        break;
      case 'e':
        set_bounds(optarg, &g_min_ext_port, &g_max_ext_port);
        break;
      case 'I':
        set_bounds(optarg, &g_min_static_int_port, &g_max_static_int_port);
        break;
      case 'E':
        set_bounds(optarg, &g_min_static_ext_port, &g_max_static_ext_port);
        break;
      case 'h':
        std::cout << USAGE;
        exit(CLEAN);
      default:
        refuse("option not understood");
    }
  }
  if (optind >= argc || argc - optind > 2) refuse("one schema and at most one private range file");
  out.schema = argv[optind];
  if (argc - optind == 2) out.private_ranges = argv[optind + 1];
  return out;
}

// Makes registry and maps as a start does, with private ranges left to their own check.
void start_module() {
  private_ranges_file_path = "";
  install_engine_hooks();
  tarn_tbl_mngt = static_cast<tarn_mngt *>(tarn_shm_calloc(1, sizeof(tarn_mngt)));
  if (tarn_tbl_mngt != nullptr && init_port_map() == 0) return;
  std::cerr << "tarn-memdb-check: no memory for the port maps\n";
  exit(UNREADABLE);
}

// Makes the tables and looks through the files of each. A schema at which the start fails has no
// tables to look at.
void check_tables(const std::string &schema, findings *out) {
  cfg_file_path = schema.c_str();
  if (create_table() != 0) {
    const std::string reason = take_reason();
    out->error(schema, 0,
               "the start fails: " +
                   (reason.empty() ? "a table can't be made with such numbers" : reason));
    return;
  }
  port_claims claims;
  for (tarn_tbl &table : all_tarn_tbls()) check_table(&table, &claims, out);
}

exit_status check(const options &given, findings *out) {
  if (!check_schema(given.schema, out)) {
    out->unreadable(given.schema);
    return UNREADABLE;
  }
  start_module();
  check_tables(given.schema, out);
  if (!given.private_ranges.empty() && !check_private_ranges(given.private_ranges, out))
    out->unreadable(given.private_ranges);
  destroy_tables();
  tarn_shm_free(tarn_tbl_mngt->tarn_tbl);
  tarn_shm_free(tarn_tbl_mngt);
  destroy_port_maps();
  if (out->any_unreadable()) return UNREADABLE;
  return out->empty() ? CLEAN : FINDINGS;
}

}  // namespace

int main(int argc, char **argv) {
  const options given = read_options(argc, argv);
  findings out;
  const exit_status status = check(given, &out);
  if (given.json)
    out.print_json(std::cout);
  else
    out.print(std::cout);
  if (!given.json && status == CLEAN) std::cout << "clean\n";
  return status;
}
