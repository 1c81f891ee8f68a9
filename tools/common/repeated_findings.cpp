// Telling the groups.
#include "tools/common/repeated_findings.h"

#include <algorithm>

void repeated_findings::tell(const std::string &path, size_t rows, findings *out) const {
  std::vector<finding> told;
  for (const auto &[what, all] : groups_) {
    if (what.is_of_rows && all.count == rows && rows > 1) {
      const auto &[line, text] = all.first.front();
      told.push_back({path, line, what.weight,
                      "in each of the " + std::to_string(rows) + " rows from here on: " + text});
      continue;
    }
    for (const auto &[line, text] : all.first) told.push_back({path, line, what.weight, text});
    if (all.count > all.first.size())
      told.push_back({path, all.last_line, what.weight,
                      "likewise in " + std::to_string(all.count - all.first.size()) +
                          " more rows up to here: " + all.first.back().second});
  }
  std::stable_sort(told.begin(), told.end(),
                   [](const finding &a, const finding &b) { return a.line < b.line; });
  for (const finding &one : told) out->add(one);
}
