// Out of a table's file and into one.
#include "tools/convert/csv_tables.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "tables/files/table_paths.h"
#include "tools/common/file_entry.h"
#include "tools/common/made_tables.h"
#include "tools/common/repeated_findings.h"
#include "tools/common/visible_text.h"
#include "tools/convert/column_plan.h"
#include "tools/convert/csv.h"
#include "tools/convert/new_file.h"
#include "tools/convert/old_rows.h"
#include "tools/convert/placing.h"
#include "tools/convert/sole_use.h"

namespace {

bool is_there(const std::string &path) {
  const file_entry entry = look_at(path);
  return entry.kind != entry_kind::missing || entry.is_link;
}

// Reads the schema and finds the table. Null, told, if that fails.
tarn_tbl *open_table(const options &given, site *at, findings *found) {
  if (!make_module_records()) {
    found->unreadable(given.schema, 0, "memory is short");
    return nullptr;
  }
  if (!read_site(given.schema, at, found)) return nullptr;
  tarn_tbl *const table = find_table(*at, given.table);
  if (table == nullptr) found->error(given.schema, 0, "has no table " + in_quotes(given.table));
  return table;
}

// Standard output in large pieces.
class output {
 public:
  bool put(const std::string &text) {
    text_ += text;
    return text_.size() < SIZE || flush();
  }
  bool flush() {
    for (size_t at = 0; at < text_.size();) {
      const ssize_t written = write(STDOUT_FILENO, text_.data() + at, text_.size() - at);
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return false;
      at += static_cast<size_t>(written);
    }
    text_.clear();
    return true;
  }

 private:
  static constexpr size_t SIZE = 262144;
  std::string text_;
};

void unwritable(findings *found) {
  found->unreadable("standard output", 0, std::string("can't be written: ") + strerror(errno));
}

template <typename Fields>
bool put_record(size_t count, Fields field, std::string *line, output *out) {
  line->clear();
  for (size_t i = 0; i < count; i++) {
    if (i > 0) *line += ',';
    append_csv_field(field(i), line);
  }
  // A record of one empty field would be no record at all.
  if (line->empty()) *line = "\"\"";
  *line += CSV_LINE_END;
  return out->put(*line);
}

bool put_rows(const memdb_tbl *tbl, const old_rows &rows, output *out) {
  std::string line;
  bool is_written = true;
  rows.each([&](const memdb_row *row, size_t) {
    is_written = is_written &&
                 put_record(
                     tbl->col_cnt,
                     [&](size_t i) {
                       return std::string_view(memdb_get_field(tbl, row, static_cast<uint32_t>(i)));
                     },
                     &line, out);
  });
  return is_written && out->flush();
}

class csv_import {
 public:
  csv_import(const options &given, run_report *run, findings *found)
      : given_(given),
        run_(run),
        found_(found),
        name_(given.csv.empty() ? "standard input" : given.csv),
        defaults_(given.defaults) {}
  ~csv_import() {
    if (file_ > STDIN_FILENO) close(file_);
  }
  csv_import(const csv_import &) = delete;
  csv_import &operator=(const csv_import &) = delete;

  void run() {
    sole_lock run_lock;
    if (!keep_runs_off(given_.schema, &run_lock, found_)) return;
    table_ = open_table(given_, &at_, found_);
    if (table_ == nullptr || !may_start()) return;
    report_.table = table_->table_name;
    path_ = places_of(at_, *table_).main;
    if (!open_csv()) return;
    csv_reader csv(file_);
    if (!read_head(&csv)) return;
    write_file(&csv);
    run_->tables.push_back(report_);
  }

 private:
  bool may_start() {
    if (!(given_.apply ? keep_servers_off : keep_placing_off)(at_, &folder_lock_, found_))
      return false;
    return !goes_on(at_, given_.apply, run_, found_);
  }

  bool open_csv() {
    file_ = given_.csv.empty() ? STDIN_FILENO : open(given_.csv.c_str(), O_RDONLY | O_CLOEXEC);
    if (file_ >= 0) return true;
    unreadable();
    return false;
  }

  void unreadable() {
    found_->unreadable(name_, 0, std::string("can't be read: ") + strerror(errno));
  }

  // False, told, behind the last record as well.
  bool read_record(csv_reader *csv, bool *is_end) {
    const csv_reader::outcome outcome = csv->next();
    *is_end = outcome == csv_reader::outcome::end;
    if (outcome == csv_reader::outcome::bad)
      found_->error(name_, csv->line(), csv->why());
    else if (outcome == csv_reader::outcome::unreadable)
      unreadable();
    return outcome == csv_reader::outcome::record;
  }

  // The first line, and what of the table's columns comes from where.
  bool read_head(csv_reader *csv) {
    bool is_end;
    std::vector<std::string> names;
    if (!column_names(*table_, given_.schema, &names, found_)) return false;
    if (!read_record(csv, &is_end)) {
      if (is_end) found_->error(name_, 0, "is empty: the first line has the names of the columns");
      return false;
    }
    for (const std::string_view field : csv->fields()) {
      const std::string name(field);
      if (std::ranges::find(names, name) == names.end())
        found_->error(name_, csv->line(),
                      in_quotes(name) + " is no column of table " + in_quotes(given_.table));
      else if (std::ranges::find(given_names_, name) != given_names_.end())
        found_->error(name_, csv->line(), "column " + in_quotes(name) + " stands there twice");
      given_names_.push_back(name);
    }
    plan_ = plan_columns(given_names_, *table_, &defaults_, {true, name_}, &report_, found_);
    defaults_.tell_unused(given_.schema, "is no column that is missing: its --default is of no use",
                          found_);
    return found_->errors() == 0;
  }

  void write_file(csv_reader *csv) {
    new_file file(at_, table_, path_, name_, {given_.cut, severity::error}, found_);
    are_free_names({path_}, {&at_}, found_);
    const table_places places = places_of(at_, *table_);
    const file_access access = access_of_first({places.main.c_str(), places.backup.c_str(),
                                                refused_path(places.main.c_str()).text,
                                                refused_path(places.backup.c_str()).text});
    if (found_->errors() != 0 || !file.make(access)) return;
    if (!copy_rows(csv, &file)) {
      file.remove();
      return;
    }
    const bool is_good = file.finish();
    const size_t errors = found_->errors();
    odd_.tell(name_, file.rows(), found_);
    if (found_->errors() != errors) file.remove();
    if (!is_good || found_->errors() != errors) return;
    report_.files.push_back({name_, path_, file.rows(), {}});
    run_->outcome = given_.apply ? place(&file) : run_outcome::written;
  }

  bool copy_rows(csv_reader *csv, new_file *file) {
    std::vector<std::string_view> values(plan_.sources.size());
    for (bool is_end = false;;) {
      if (!read_record(csv, &is_end)) return is_end;
      const size_t count = csv->fields().size();
      if (count != given_names_.size()) {
        odd_.note({0, 0, severity::error, false}, csv->line(), [&] {
          return "has " + counted(count, "value") + " for " +
                 counted(given_names_.size(), "column");
        });
        continue;
      }
      const std::string number = std::to_string(file->rows() + 1);
      for (size_t i = 0; i < values.size(); i++) values[i] = value(plan_.sources[i], *csv, number);
      if (!file->add(values, csv->line())) return false;
    }
  }

  static std::string_view value(const column_source &source, const csv_reader &csv,
                                const std::string &number) {
    switch (source.from) {
      case column_source::kind::given:
        return csv.fields()[source.number];
      case column_source::kind::counted:
        return number;
      case column_source::kind::fixed:
        break;
    }
    return source.text;
  }

  run_outcome place(new_file *file) {
    std::map<std::string, std::string> kept;
    const run_outcome outcome = place_files(at_, {path_}, &kept, found_);
    if (outcome == run_outcome::nothing) file->remove();
    if (const auto at = kept.find(path_); at != kept.end()) report_.files.back().kept = at->second;
    return outcome;
  }

  const options &given_;
  run_report *run_;
  findings *found_;
  std::string name_;  // of the CSV
  column_options defaults_;
  site at_;
  tarn_tbl *table_ = nullptr;
  std::string path_;
  sole_lock folder_lock_;
  int file_ = -1;
  std::vector<std::string> given_names_;
  column_plan plan_;
  table_report report_;
  repeated_findings odd_;  // lines that are no rows
};

}  // namespace

void export_csv(const options &given, findings *found) {
  site at;
  tarn_tbl *const table = open_table(given, &at, found);
  std::vector<std::string> names;
  if (table == nullptr || !column_names(*table, given.schema, &names, found)) return;
  const table_places places = places_of(at, *table);
  const bool has_main = is_there(places.main);
  const bool has_backup = !has_main && is_there(places.backup);
  old_rows rows(at, table, has_main ? places.main : places.backup, found);
  if ((has_main || has_backup) && !rows.read()) return;
  if (has_backup)
    found->warn(places.main, 0, "is missing: the rows are those of " + places.backup);
  else if (!has_main)
    found->warn(places.main, 0, "is missing, and so is the backup: the table has no rows");
  output out;
  std::string line;
  if (!put_record(
          names.size(), [&](size_t i) { return std::string_view(names[i]); }, &line, &out) ||
      !put_rows(table->tbl, rows, &out))
    unwritable(found);
}

void import_csv(const options &given, run_report *run, findings *found) {
  csv_import(given, run, found).run();
}
