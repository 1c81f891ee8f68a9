// Lines and JSON.
#include "tools/common/finding_report.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/common/visible_text.h"

namespace {

const char *name_of(severity weight) { return weight == severity::error ? "error" : "warning"; }

}  // namespace

void print_findings(std::ostream &out, const findings &found) {
  for (const finding &one : found.kept()) {
    out << visible(one.file) << ':';
    if (one.line != 0) out << one.line << ':';
    out << ' ' << name_of(one.weight) << ": " << visible(one.text) << '\n';
  }
}

nlohmann::json json_of(const findings &found) {
  nlohmann::json list = nlohmann::json::array();
  for (const finding &one : found.kept())
    list.push_back({{"file", visible(one.file)},
                    {"line", one.line},
                    {"severity", name_of(one.weight)},
                    {"text", visible(one.text)}});
  return list;
}
