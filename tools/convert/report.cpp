// Lines and JSON.
#include "tools/convert/report.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/common/finding_report.h"
#include "tools/common/visible_text.h"
#include "tools/convert/new_file.h"

namespace {

void print_table(std::ostream &out, const table_report &table, bool applied) {
  const std::string name = visible(table.table) + ": ";
  for (const auto &[column, value] : table.added)
    out << name << "column " << visible(in_quotes(column)) << " is new, with "
        << (value ? visible(in_quotes(*value)) : "numbers from 1") << '\n';
  for (const auto &[former, column] : table.renamed)
    out << name << "column " << visible(in_quotes(former)) << " is " << visible(in_quotes(column))
        << " now\n";
  if (table.files.empty()) out << name << "stays as it is\n";
  for (const written_file &file : table.files) {
    out << name << counted(file.rows, "row") << " in "
        << visible(applied ? file.path : new_path(file.path));
    if (file.kept) out << ", the former file is " << visible(*file.kept);
    out << '\n';
  }
}

nlohmann::json json_of(const table_report &table, bool applied) {
  nlohmann::json added = nlohmann::json::array();
  for (const auto &[column, value] : table.added)
    added.push_back({{"column", visible(column)},
                     {"value", value ? nlohmann::json(visible(*value)) : nlohmann::json()}});
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
  return std::ranges::any_of(run.tables,
                             [](const table_report &table) { return !table.files.empty(); });
}

const char *name_of(run_outcome outcome) {
  switch (outcome) {
    case run_outcome::written:
      return "written";
    case run_outcome::applied:
      return "applied";
    case run_outcome::resumed:
      return "resumed";
    case run_outcome::unfinished:
      return "unfinished";
    case run_outcome::nothing:
      break;
  }
  return "nothing";
}

}  // namespace

void print_lines(std::ostream &out, const findings &found, const run_report &run) {
  print_findings(out, found);
  const bool applied = run.outcome == run_outcome::applied;
  switch (run.outcome) {
    case run_outcome::nothing:
      out << "nothing was changed\n";
      break;
    case run_outcome::written:
    case run_outcome::applied:
      for (const table_report &table : run.tables) print_table(out, table, applied);
      if (!applied && has_files(run)) out << "nothing was replaced: --apply does that\n";
      break;
    case run_outcome::resumed:
      for (const std::string &path : run.resumed) out << visible(path) << " is in its place\n";
      out << "the run that was cut off is finished\n";
      break;
    case run_outcome::unfinished:
      break;
  }
}

void print_json(std::ostream &out, const findings &found, const run_report &run) {
  const bool has_tables =
      run.outcome == run_outcome::written || run.outcome == run_outcome::applied;
  nlohmann::json tables = nlohmann::json::array();
  if (has_tables)
    for (const table_report &table : run.tables)
      tables.push_back(json_of(table, run.outcome == run_outcome::applied));
  nlohmann::json resumed = nlohmann::json::array();
  for (const std::string &path : run.resumed) resumed.push_back(visible(path));
  out << nlohmann::json{{"outcome", name_of(run.outcome)},
                        {"errors", found.errors()},
                        {"warnings", found.warnings()},
                        {"findings", json_of(found)},
                        {"resumed", resumed},
                        {"tables", tables}}
             .dump(2)
      << '\n';
}
