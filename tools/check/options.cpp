// Options, usage and version.
#include "tools/check/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "ports/port_map.h"
#include "tools/common/shared_pool.h"

const program CHECK_PROGRAM = {
    "tarn-memdb-check",
    "usage: tarn-memdb-check [options] SCHEMA [PRIVATE_RANGES]\n"
    "\n"
    "Tells, line by line, what tarn_memdb would silently take for zero, refuse, lose or misread\n"
    "at its next start. Reads the schema, the table files and backups that it names, and the\n"
    "private range file, and changes nothing. Schema and private ranges may be pipes. File names\n"
    "are taken as the server takes them, from the directory that it runs in.\n"
    "\n"
    "  --errors-only                  tells nothing but errors, and ends with 0 if there are none\n"
    "  --json                         an object for programs instead of lines\n"
    "  --memory MB                    the server's shared memory, its option -m: tells what the\n"
    "                                 tables take of it\n"
    "  --allocator qm|fm|tlsf         the server's option -x; qm if it isn't told\n"
    "  --best-match TABLE             counts the look-up of a best match among the table's rows as\n"
    "                                 well; once for each set of columns that scripts give\n"
    "  --int-ports MIN-MAX            bounds of the map of inner ports, where the server's\n"
    "                                 configuration sets other ones than the module's own\n"
    "  --ext-ports MIN-MAX            likewise, of the outer ports\n"
    "  --static-int-ports MIN-MAX     likewise, of the static inner ports\n"
    "  --static-ext-ports MIN-MAX     likewise, of the static outer ports\n"
    "  --version                      tells the version, and for which server it was built\n"
    "  --help                         tells this\n"
    "\n"
    "Exit status: 0 clean, 1 findings, 2 something can't be read, or the report can't be "
    "written.\n"};

namespace {

void set_bounds(const char *text, int32_t *min, int32_t *max) {
  char rest;
  if (sscanf(text, "%d-%d%c", min, max, &rest) != 2 || int64_t{*max} < int64_t{*min} - 1)
    refuse(CHECK_PROGRAM, "'" + std::string(text) + "' isn't MIN-MAX");
}

size_t megabytes(const char *text) {
  char *end;
  const long number = strtol(text, &end, 10);
  if (*end != '\0' || number < 1 || number > (1L << 24))
    refuse(CHECK_PROGRAM, "'" + std::string(text) + "' isn't a number of MB");
  return static_cast<size_t>(number);
}

void set_allocator(std::string_view name) {
  for (const pool_rules &rules : all_pool_rules()) {
    if (name != rules.name) continue;
    server_memory.set_rules(rules);
    return;
  }
  refuse(CHECK_PROGRAM, "'" + std::string(name) + "' is no allocator of the server");
}

}  // namespace

options read_options(int argc, char **argv) {
  static const option known[] = {
      {"errors-only", no_argument, nullptr, 'o'},
      {"json", no_argument, nullptr, 'j'},
      {"memory", required_argument, nullptr, 'm'},
      {"allocator", required_argument, nullptr, 'x'},
      {"best-match", required_argument, nullptr, 'b'},
      {"int-ports", required_argument, nullptr, 'i'},
      {"ext-ports", required_argument, nullptr, 'e'},
      {"static-int-ports", required_argument, nullptr, 'I'},
      {"static-ext-ports", required_argument, nullptr, 'E'},
      {"version", no_argument, nullptr, 'v'},
      {"help", no_argument, nullptr, 'h'},
      {},
  };
  options out;
  for (int c; (c = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
    switch (c) {
      case 'o':
        out.errors_only = true;
        break;
      case 'j':
        out.json = true;
        break;
      case 'm':
        out.memory_mb = megabytes(optarg);
        break;
      case 'x':
        set_allocator(optarg);
        break;
      case 'b':
        out.best_matches[optarg]++;
        break;
      case 'i':
        set_bounds(optarg, &port_settings.internal.min, &port_settings.internal.max);
        break;
      case 'e':
        set_bounds(optarg, &port_settings.external.min, &port_settings.external.max);
        break;
      case 'I':
        set_bounds(optarg, &port_settings.static_internal.min, &port_settings.static_internal.max);
        break;
      case 'E':
        set_bounds(optarg, &port_settings.static_external.min, &port_settings.static_external.max);
        break;
      case 'v':
        tell_version(CHECK_PROGRAM);
      case 'h':
        tell_help(CHECK_PROGRAM);
      default:
        refuse(CHECK_PROGRAM, "option not understood");
    }
  }
  if (optind >= argc || argc - optind > 2)
    refuse(CHECK_PROGRAM, "one schema and at most one private range file");
  out.schema = argv[optind];
  if (argc - optind == 2) out.private_ranges = argv[optind + 1];
  return out;
}
