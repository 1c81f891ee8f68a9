// Names beside names.
#include "tools/convert/column_plan.h"

#include <algorithm>
#include <set>

#include "tables/rows/port_claim.h"
#include "tools/common/visible_text.h"

namespace {

// The name of the column of that number, or nothing if the table lacks it.
std::string name_at(const std::vector<std::string> &names, int32_t number) {
  const auto at = static_cast<size_t>(number);
  return number >= 0 && at < names.size() ? names[at] : std::string();
}

column_source source_of_new(const tarn_tbl &table, uint32_t column, const std::string *fixed) {
  if (fixed != nullptr) return {column_source::kind::fixed, 0, *fixed};
  if (column == 0 && table.use_index != 0) return {column_source::kind::counted, 0, {}};
  return {column_source::kind::fixed, 0, {}};
}

}  // namespace

const std::string *column_options::find(const std::string &table, const std::string &column) {
  const std::string *found = nullptr;
  for (size_t i = 0; i < all_.size(); i++) {
    if (all_[i].column != table + "." + column) continue;
    used_[i] = true;
    found = &all_[i].text;
  }
  return found;
}

void column_options::tell_unused(const std::string &schema, const char *why,
                                 findings *found) const {
  for (size_t i = 0; i < all_.size(); i++)
    if (!used_[i]) found->error(schema, 0, in_quotes(all_[i].column) + " " + why);
}

bool column_names(const tarn_tbl &table, const std::string &schema, std::vector<std::string> *out,
                  findings *found) {
  std::set<std::string> seen;
  bool are_unlike = true;
  for (uint32_t i = 0; i < table.tbl->col_cnt; i++) {
    out->emplace_back(column_name(&table, i));
    if (seen.insert(out->back()).second) continue;
    found->error(schema, 0,
                 "table " + in_quotes(table.table_name) + " has two columns of the name " +
                     in_quotes(out->back()));
    are_unlike = false;
  }
  return are_unlike;
}

column_plan plan_columns(const std::vector<std::string> &given, const tarn_tbl &table,
                         column_options *defaults, const missing_columns &missing,
                         table_report *report, findings *found) {
  column_plan plan;
  plan.is_same = given.size() == table.tbl->col_cnt;
  for (uint32_t i = 0; i < table.tbl->col_cnt; i++) {
    const std::string name(column_name(&table, i));
    const auto at = std::ranges::find(given, name);
    if (at != given.end()) {
      const auto number = static_cast<uint32_t>(at - given.begin());
      if (number != i) plan.is_same = false;
      plan.sources.push_back({column_source::kind::given, number, {}});
      continue;
    }
    plan.is_same = false;
    const std::string *const fixed = defaults->find(table.table_name, name);
    plan.sources.push_back(source_of_new(table, i, fixed));
    const column_source &source = plan.sources.back();
    const bool is_counted = source.from == column_source::kind::counted;
    report->added.emplace_back(name, is_counted ? std::nullopt : std::optional(source.text));
    if (missing.are_errors && fixed == nullptr && !is_counted)
      found->error(missing.file, 1,
                   "has no column " + in_quotes(name) + ": --default " + table.table_name + "." +
                       name + "= gives it a value");
  }
  return plan;
}

void check_places(const tarn_tbl &from, const std::vector<std::string> &former, const tarn_tbl &to,
                  const std::vector<std::string> &names, const std::string &schema,
                  findings *found) {
  const auto check = [&](int32_t before, int32_t now, const char *what) {
    const std::string old_name = name_at(former, before);
    const std::string new_name = name_at(names, now);
    if (old_name == new_name || old_name.empty()) return;
    const std::string instead =
        new_name.empty() ? "would be in none" : "would be in column " + in_quotes(new_name);
    found->error(schema, 0,
                 std::string(what) + " of table " + in_quotes(to.table_name) + " is in column " +
                     in_quotes(old_name) + " and " + instead);
  };
  if (from.use_index != 0 && to.use_index != 0) check(0, 0, "the index");
  if (!holds_ports(from) || !holds_ports(to)) return;
  const port_columns was = port_columns_of(from);
  const port_columns is = port_columns_of(to);
  check(was.location, is.location, "the location");
  check(was.type, is.type, "the type");
  check(was.int_port, is.int_port, "the internal port");
  check(was.ext_port, is.ext_port, "the external port");
}
