// Table by table, first all new files, then all renames.
#include "tools/convert/conversion.h"

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>

#include "tools/common/file_entry.h"
#include "tools/common/made_tables.h"
#include "tools/common/visible_text.h"
#include "tools/convert/column_plan.h"
#include "tools/convert/new_file.h"
#include "tools/convert/old_rows.h"
#include "tools/convert/placing.h"
#include "tools/convert/sole_use.h"

namespace {

bool is_there(const std::string &path) {
  const file_entry entry = look_at(path);
  return entry.kind != entry_kind::missing || entry.is_link;
}

// A table that both schemas have.
struct table_pair {
  tarn_tbl *from;
  tarn_tbl *to;
  column_plan plan;
  table_report report;
};

struct file_job {
  table_pair *pair;
  std::string from;
  std::string to;
};

class conversion {
 public:
  conversion(const options &given, run_report *run, findings *found)
      : given_(given),
        run_(run),
        found_(found),
        defaults_(given.defaults),
        renames_(given.renames) {}

  void run() {
    if (!open_sites() || !may_start()) return;
    pair_tables();
    tell_unpaired();
    defaults_.tell_unused(given_.schema, "is no new column: its --default is of no use", found_);
    renames_.tell_unused(given_.former_schema, "is no column of a table: it can't be renamed",
                         found_);
    if (found_->errors() == 0) write_files();
    if (found_->errors() == 0) run_->outcome = given_.apply ? place() : run_outcome::written;
    if (run_->outcome == run_outcome::nothing) remove_files();
    for (table_pair &pair : pairs_) run_->tables.push_back(pair.report);
  }

 private:
  bool open_sites() {
    if (!keep_runs_off(given_.schema, &run_lock_, found_)) return false;
    if (!make_module_records()) {
      found_->unreadable(given_.schema, 0, "memory is short");
      return false;
    }
    return read_site(given_.former_schema, &from_, found_) &&
           read_site(given_.schema, &to_, found_);
  }

  // Servers are kept off from here on, and what an earlier run has left is done first.
  bool may_start() {
    if (given_.apply) {
      const bool is_one_folder = look_at(folder_of(from_)).id == look_at(folder_of(to_)).id;
      if (!keep_servers_off(to_, &to_lock_, found_) ||
          (!is_one_folder && !keep_servers_off(from_, &from_lock_, found_)))
        return false;
    } else if (!keep_placing_off(to_, &to_lock_, found_)) {
      return false;
    }
    return !goes_on(to_, given_.apply, run_, found_);
  }

  void pair_tables() {
    for (tarn_tbl &to : tables_of(to_)) {
      tarn_tbl *const from = find_table(from_, to.table_name);
      if (from == nullptr) {
        found_->warn(given_.schema, 0,
                     "table " + in_quotes(to.table_name) + " is new: no rows are converted");
        continue;
      }
      pairs_.push_back({from, &to, {}, {to.table_name, {}, {}, {}, {}}});
      plan(&pairs_.back());
    }
  }

  void tell_unpaired() {
    for (const tarn_tbl &from : tables_of(from_))
      if (find_table(to_, from.table_name) == nullptr)
        found_->warn(given_.former_schema, 0,
                     "table " + in_quotes(from.table_name) +
                         " isn't in the new schema: its files stay as they are");
  }

  void plan(table_pair *pair) {
    std::vector<std::string> former;
    std::vector<std::string> names;
    if (!column_names(*pair->from, given_.former_schema, &former, found_) ||
        !column_names(*pair->to, given_.schema, &names, found_))
      return;
    rename_columns(*pair, names, &former, &pair->report);
    const size_t errors = found_->errors();
    check_places(*pair->from, former, *pair->to, names, given_.schema, found_);
    if (found_->errors() != errors) return;
    pair->plan = plan_columns(former, *pair->to, &defaults_, {false, {}}, &pair->report, found_);
    tell_dropped(pair, former, names);
  }

  void rename_columns(const table_pair &pair, const std::vector<std::string> &names,
                      std::vector<std::string> *former, table_report *report) {
    const std::vector<std::string> before = *former;
    for (std::string &name : *former) {
      const std::string *const renamed = renames_.find(pair.to->table_name, name);
      if (renamed == nullptr) continue;
      if (std::ranges::find(names, *renamed) == names.end() ||
          std::ranges::count(*former, *renamed) != 0) {
        found_->error(given_.schema, 0,
                      "column " + in_quotes(name) + " of table " + in_quotes(pair.to->table_name) +
                          " can't become " + in_quotes(*renamed) +
                          (std::ranges::find(names, *renamed) == names.end()
                               ? ": no such column"
                               : ": another one has this name"));
        continue;
      }
      report->renamed.emplace_back(name, *renamed);
      name = *renamed;
    }
  }

  void tell_dropped(table_pair *pair, const std::vector<std::string> &former,
                    const std::vector<std::string> &names) {
    for (size_t i = 0; i < former.size(); i++) {
      if (std::ranges::find(names, former[i]) != names.end()) continue;
      pair->report.dropped.push_back(former[i]);
      std::string hint;
      if (i < names.size() && std::ranges::find(former, names[i]) == former.end())
        hint = ". If " + in_quotes(names[i]) + " is its new name, say --rename " +
               pair->to->table_name + "." + former[i] + "=" + names[i];
      found_->warn(given_.schema, 0,
                   "column " + in_quotes(former[i]) + " of table " +
                       in_quotes(pair->to->table_name) + " is dropped, with its values" + hint);
    }
  }

  void write_files() {
    for (const tarn_tbl &table : tables_of(from_)) {
      const table_places places = places_of(from_, table);
      old_entries_.insert(entry_name(places.main));
      old_entries_.insert(entry_name(places.backup));
    }
    std::vector<file_job> jobs;
    std::vector<std::string> places;
    for (table_pair &pair : pairs_) {
      const table_places from = places_of(from_, *pair.from);
      const table_places to = places_of(to_, *pair.to);
      if (stays(pair, from, to)) continue;
      for (const file_job &job :
           {file_job{&pair, from.main, to.main}, file_job{&pair, from.backup, to.backup}}) {
        if (!is_there(job.from)) {
          stays_empty(job);
          continue;
        }
        jobs.push_back(job);
        places.push_back(job.to);
      }
    }
    // Nobody's file may be lost to a new one, be it beside its place.
    if (found_->errors() != 0 || !are_free_names(places, {&from_, &to_}, found_)) return;
    for (const file_job &job : jobs) write_file(job.pair, job.from, job.to);
  }

  // True if the files are good as they are.
  static bool stays(const table_pair &pair, const table_places &from, const table_places &to) {
    const tarn_tbl &was = *pair.from;
    const tarn_tbl &is = *pair.to;
    if (!pair.plan.is_same || entry_name(from.main) != entry_name(to.main) ||
        entry_name(from.backup) != entry_name(to.backup))
      return false;
    for (uint32_t i = 0; i < is.tbl->col_cnt; i++)
      if (is.tbl->cols[i].size < was.tbl->cols[i].size) return false;
    return was.max_rows == is.max_rows && was.use_index == is.use_index && was.flag == is.flag;
  }

  // Where a table had no file, none may stand that the next start takes for its own.
  void stays_empty(const file_job &job) {
    if (!is_there(job.to)) return;
    found_->error(job.to, 0,
                  "would be taken for table " + in_quotes(job.pair->to->table_name) +
                      ", which has no " + in_quotes(job.from) + " to be converted");
  }

  bool is_free_place(const std::string &path) {
    if (!is_there(path) || old_entries_.contains(entry_name(path))) return true;
    found_->error(path, 0, "is there already, and is no table's file by the former schema");
    return false;
  }

  void write_file(table_pair *pair, const std::string &from, const std::string &to) {
    if (!is_free_place(to)) return;
    old_rows rows(from_, pair->from, from, found_);
    if (!rows.read()) return;
    const bool had_numbers = (pair->from->use_index != 0) == (pair->to->use_index != 0) &&
                             pair->from->flag == pair->to->flag;
    const new_file_rules rules{given_.cut, had_numbers ? severity::warning : severity::error};
    new_file file(to_, pair->to, to, from, rules, found_);
    if (!file.make(access_of_first({from.c_str()}))) return;
    if (!copy_rows(*pair, rows, &file) || !file.finish()) return;
    written_.push_back(to);
    pair->report.files.push_back({from, to, file.rows(), {}});
  }

  static bool copy_rows(const table_pair &pair, const old_rows &rows, new_file *file) {
    const std::vector<column_source> &sources = pair.plan.sources;
    std::vector<std::string_view> values(sources.size());
    size_t number = 0;
    bool is_written = true;
    rows.each([&](const memdb_row *row, size_t line) {
      const std::string counted = std::to_string(++number);
      for (size_t i = 0; i < sources.size(); i++) {
        switch (sources[i].from) {
          case column_source::kind::given:
            values[i] = memdb_get_field(pair.from->tbl, row, sources[i].number);
            break;
          case column_source::kind::fixed:
            values[i] = sources[i].text;
            break;
          case column_source::kind::counted:
            values[i] = counted;
            break;
        }
      }
      is_written = is_written && file->add(values, line);
    });
    return is_written;
  }

  run_outcome place() {
    std::map<std::string, std::string> kept;
    if (!written_.empty()) {
      const run_outcome outcome = place_files(to_, written_, &kept, found_);
      if (outcome != run_outcome::applied) return outcome;
    }
    for (table_pair &pair : pairs_)
      for (written_file &file : pair.report.files)
        if (const auto at = kept.find(file.path); at != kept.end()) file.kept = at->second;
    return run_outcome::applied;
  }

  void remove_files() {
    for (const std::string &path : written_) unlink(new_path(path).c_str());
  }

  const options &given_;
  run_report *run_;
  findings *found_;
  column_options defaults_;
  column_options renames_;
  site from_;
  site to_;
  sole_lock run_lock_;
  sole_lock from_lock_;
  sole_lock to_lock_;
  std::deque<table_pair> pairs_;
  std::set<std::string> old_entries_;
  std::vector<std::string> written_;  // places that new files are for
};

}  // namespace

void convert(const options &given, run_report *run, findings *found) {
  conversion(given, run, found).run();
}
