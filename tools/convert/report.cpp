// Lines and JSON.
#include "tools/convert/report.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/common/finding_report.h"
#include "tools/common/visible_text.h"
#include "tools/convert/new_file.h"

namespace {

std::string counted_rows(size_t rows) {
  return std::to_string(rows) + (rows == 1 ? " row" : " rows");
}

void print_table(std::ostream &out, const table_report &table, bool applied) {
  const std::string name = visible(table.table) + ": ";
  for (const auto &[column, value] : table.added)
    out << name << "column " << visible(::quoted(column)) << " is new, with " << visible(value)
        << '\n';
  for (const auto &[former, column] : table.renamed)
    out << name << "column " << visible(::quoted(former)) << " is " << visible(::quoted(column))
        << " now\n";
  if (table.files.empty()) out << name << "stays as it is\n";
  for (const written_file &file : table.files) {
    out << name << counted_rows(file.rows) << " in "
        << visible(applied ? file.path : new_path(file.path));
    if (file.kept) out << ", the former file is " << visible(*file.kept);
    out << '\n';
  }
}

nlohmann::json json_of(const table_report &table, bool applied) {
  nlohmann::json added = nlohmann::json::array();
  for (const auto &[column, value] : table.added)
    added.push_back({{"column", visible(column)}, {"value", visible(value)}});
  nlohmann::json renamed = nlohmann::json::array();
  for (const auto &[former, column] : table.renamed)
    renamed.push_back({{"from", visible(former)}, {"to", visible(column)}});
  nlohmann::json dropped = nlohmann::json::array();
  for (const std::string &column : table.dropped) dropped.push_back(visible(column));
  nlohmann::json files = nlohmann::json::array();
  for (const written_file &file : table.files) {
    files.push_back({{"from", visible(file.from)},
                     {"file", visible(applied ? file.path : new_path(file.path))},
                     {"rows", file.rows},
                     {"kept", nullptr}});
    if (file.kept) files.back()["kept"] = visible(*file.kept);
  }
  return {{"table", visible(table.table)},
          {"added", added},
          {"renamed", renamed},
          {"dropped", dropped},
          {"files", files}};
}

bool has_files(const run_report &run) {
  for (const table_report &table : run.tables)
    if (!table.files.empty()) return true;
  return false;
}

}  // namespace

void print_lines(std::ostream &out, const findings &found, const run_report &run) {
  print_findings(out, found);
  for (const std::string &path : run.finished)
    out << visible(path) << " is in its place: the conversion that was cut off is done\n";
  if (found.errors() != 0) {
    out << "nothing was changed\n";
    return;
  }
  for (const table_report &table : run.tables) print_table(out, table, run.applied);
  if (!run.applied && has_files(run)) out << "nothing was replaced: --apply does that\n";
}

void print_json(std::ostream &out, const findings &found, const run_report &run) {
  nlohmann::json tables = nlohmann::json::array();
  if (found.errors() == 0)
    for (const table_report &table : run.tables) tables.push_back(json_of(table, run.applied));
  nlohmann::json finished = nlohmann::json::array();
  for (const std::string &path : run.finished) finished.push_back(visible(path));
  out << nlohmann::json{{"applied", run.applied},       {"errors", found.errors()},
                        {"warnings", found.warnings()}, {"findings", json_of(found)},
                        {"finished", finished},         {"tables", tables}}
             .dump(2)
      << '\n';
}
