// Options, usage and version.
#include "tools/convert/options.h"

#include <getopt.h>

#include <string_view>

const program CONVERT_PROGRAM = {
    "tarn-memdb-convert",
    "usage: tarn-memdb-convert [options] OLD_SCHEMA NEW_SCHEMA\n"
    "       tarn-memdb-convert --export TABLE SCHEMA\n"
    "       tarn-memdb-convert [options] --import TABLE SCHEMA [CSV]\n"
    "\n"
    "Brings the table files of tarn_memdb from one schema to another, column by column by their\n"
    "names: the main file and the backup of each table that both schemas have. New files are\n"
    "written beside the places that they are for, with .converted behind their names; --apply puts\n"
    "them there. Or writes a table as CSV (RFC 4180) to standard output, or makes a table's file\n"
    "of CSV, whose first line names the columns in any order. Files are read and written with the\n"
    "rules of the module's own code, and all or none is done: what can't be kept is told with its\n"
    "line, and then nothing is changed. File names are taken as the server takes them, from the\n"
    "directory that it runs in.\n"
    "\n"
    "  --apply                        puts the new files into place. Those that were there are kept,\n"
    "                                 with .old-1 behind their names, or the next free number.\n"
    "                                 Refused while a server uses the files\n"
    "  --default TABLE.COLUMN=VALUE   the value of a column that is new, in all rows; empty if it\n"
    "                                 isn't told, or counted from 1 for a generated index\n"
    "  --rename TABLE.COLUMN=NAME     a column's new name\n"
    "  --cut                          cuts values that are too long for their columns\n"
    "  --json                         an object for programs instead of lines\n"
    "  --version                      tells the version, and for which server it was built\n"
    "  --help                         tells this\n"
    "\n"
    "Exit status: 0 done, 1 something can't be kept or a server uses the files, 2 something can't "
    "be\nread or written.\n"};

namespace {

column_option column_text(std::string_view text, const char *form) {
  const size_t sign = text.find('=');
  const size_t dot = text.find('.');
  if (sign == text.npos || dot == text.npos || dot == 0 || dot + 1 >= sign)
    refuse(CONVERT_PROGRAM, "'" + std::string(text) + "' isn't " + form);
  return {std::string(text.substr(0, sign)), std::string(text.substr(sign + 1))};
}

void set_kind(options *out, run_kind kind, const char *table) {
  if (out->kind != run_kind::convert)
    refuse(CONVERT_PROGRAM, "one table is exported or imported at a time");
  out->kind = kind;
  out->table = table;
}

void check_use(const options &given) {
  if (given.kind == run_kind::export_table &&
      (given.apply || given.cut || !given.defaults.empty() || !given.renames.empty()))
    refuse(CONVERT_PROGRAM, "an export changes nothing: --export goes with --json alone");
  if (given.kind == run_kind::import_table && !given.renames.empty())
    refuse(CONVERT_PROGRAM, "--rename is for conversions: the first line of CSV names the columns");
}

void set_files(options *out, int count, char **files) {
  const bool is_import = out->kind == run_kind::import_table;
  const int least = out->kind == run_kind::convert ? 2 : 1;
  if (count < least || count > (is_import ? 2 : least))
    refuse(CONVERT_PROGRAM, out->kind == run_kind::convert ? "two schemas"
                            : is_import                    ? "one schema and at most one file"
                                                           : "one schema");
  if (out->kind == run_kind::convert) {
    out->former_schema = files[0];
    out->schema = files[1];
    return;
  }
  out->schema = files[0];
  if (count == 2) out->csv = files[1];
}

}  // namespace

options read_options(int argc, char **argv) {
  static const option known[] = {
      {"apply", no_argument, nullptr, 'a'},         {"cut", no_argument, nullptr, 'c'},
      {"default", required_argument, nullptr, 'd'}, {"rename", required_argument, nullptr, 'r'},
      {"export", required_argument, nullptr, 'e'},  {"import", required_argument, nullptr, 'i'},
      {"json", no_argument, nullptr, 'j'},          {"version", no_argument, nullptr, 'v'},
      {"help", no_argument, nullptr, 'h'},          {},
  };
  options out;
  for (int c; (c = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
    switch (c) {
      case 'a':
        out.apply = true;
        break;
      case 'c':
        out.cut = true;
        break;
      case 'd':
        out.defaults.push_back(column_text(optarg, "TABLE.COLUMN=VALUE"));
        break;
      case 'r':
        out.renames.push_back(column_text(optarg, "TABLE.COLUMN=NAME"));
        break;
      case 'e':
        set_kind(&out, run_kind::export_table, optarg);
        break;
      case 'i':
        set_kind(&out, run_kind::import_table, optarg);
        break;
      case 'j':
        out.json = true;
        break;
      case 'v':
        tell_version(CONVERT_PROGRAM);
      case 'h':
        tell_help(CONVERT_PROGRAM);
      default:
        refuse(CONVERT_PROGRAM, "option not understood");
    }
  }
  check_use(out);
  set_files(&out, argc - optind, argv + optind);
  return out;
}
