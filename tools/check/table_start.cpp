// The main file, or else the backup.
#include "tools/check/table_start.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tables/files/table_paths.h"
#include "tables/files/table_reader.h"
#include "tables/shared/file_handle.h"
#include "tools/check/index_memory.h"
#include "tools/check/row_watch.h"
#include "tools/common/host_services.h"
#include "tools/common/shared_pool.h"
#include "tools/common/visible_text.h"

namespace {

size_t size_of(const std::string &path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

// Rows of a file that the memory had no room for, seen from outside.
size_t count_rows(const std::string &path) {
  const file_handle file(fopen(path.c_str(), "r"));
  if (!file) return 0;
  char *line = nullptr;
  size_t size = 0;
  size_t rows = 0;
  for (bool is_first = true; getline(&line, &size, file.get()) > 0; is_first = false)
    if (!is_first && *line != '\n' && *line != '#') rows++;
  free(line);
  return rows;
}

size_t row_cost(const tarn_tbl *table) {
  return server_memory.cost(sizeof(memdb_row) + table->tbl->row_len);
}

}  // namespace

// False for an entry that is read as a file; else tells what it is, and what comes of that.
bool table_starts::odd_entry(const std::string &path, reading *outcome, findings *out) {
  const file_entry entry = disk_.entry_at(path);
  const std::string is = std::string("is ") + kind_name(entry.kind);
  switch (entry.kind) {
    case entry_kind::missing:
      *outcome = reading::absent;
      if (entry.is_link) out->error(path, 0, "is a link that leads nowhere");
      return true;
    case entry_kind::directory:
    case entry_kind::socket:
      out->error(path, 0, is + ", which has no rows");
      *outcome = reading::refused;
      return true;
    case entry_kind::pipe:
      out->error(path, 0, is + ": the start waits for ever for somebody to write to it");
      *outcome = reading::unknown;
      outcome_ = start_outcome::hangs;
      return true;
    case entry_kind::device:
      out->error(path, 0, is + ": it isn't read here, and what the start makes of it isn't told");
      *outcome = reading::unknown;
      return true;
    case entry_kind::regular:
      break;
  }
  return false;
}

table_starts::reading table_starts::read(tarn_tbl *table, const std::string &path, findings *out) {
  reading outcome;
  if (odd_entry(path, &outcome, out)) return outcome;
  empty_table(table);
  const std::string text = disk_.text_at(path);
  if (access(text.c_str(), R_OK) == 0) return watched_read(table, path, text, out);
  out->unreadable(path, 0,
                  "can't be read by who runs this check: a server that can't either takes it for "
                  "a bad file");
  return reading::unknown;
}

table_starts::reading table_starts::watched_read(tarn_tbl *table, const std::string &path,
                                                 const std::string &text, findings *out) {
  paths_.push_back(path);
  row_watch watch(table, paths_.back(), ports_, size_of(text), out);
  server_memory.was_short();
  const table_file_state state = read_table_file(table, text.c_str(), &watch);
  watch.finish(state, take_messages());
  if (server_memory.was_short()) {
    was_short_ = true;
    rows_wanted_ = std::max(rows_wanted_, count_rows(text));
    if (state == table_file_state::refused) row_memory_.holds_files = false;
  } else if (state == table_file_state::loaded) {
    rows_wanted_ = std::max(rows_wanted_, static_cast<size_t>(table->row_count));
  }
  if (state == table_file_state::loaded) {
    ports_.add_all(watch.own_ports());
    return reading::loaded;
  }
  left_ports(path, watch, out);
  return reading::refused;
}

// What the rows ahead of a bad one have taken isn't given back.
void table_starts::left_ports(const std::string &path, const row_watch &watch, findings *out) {
  if (watch.own_ports().empty()) return;
  out->warn(path, 0,
            "the ports of the rows ahead of line " + std::to_string(watch.last_line()) +
                " stay taken until the server is started once more");
}

// Reads a backup that the start doesn't read, and leaves the memory as it was.
void table_starts::rehearse_backup(tarn_tbl *table, const std::string &path) {
  const size_t used = server_memory.used();
  findings unheard;
  const reading outcome = [&] {
    table_starts rehearsal(best_matches_, &unheard);
    rehearsal.disk_ = disk_;
    return rehearsal.read(table, path, &unheard);
  }();
  if (outcome == reading::absent) return;
  empty_table(table);
  server_memory.set_used(used);
  if (outcome == reading::unknown || outcome == reading::refused)
    out_->warn(path, 0,
               "is bad and couldn't stand in for the main file" +
                   (unheard.kept().empty() ? "" : ": " + unheard.kept().back().text));
}

// Tells what becomes of a file that can't be loaded.
std::string table_starts::put_away(const std::string &path) {
  const std::string why = disk_.hindrance(path);
  const bool replaces = disk_.entry_at(refused_path(path.c_str()).text).kind != entry_kind::missing;
  switch (disk_.put_away(path)) {
    case removal::set_aside: {
      const std::string aside = refused_path(path.c_str()).text;
      put_away_.push_back({path, aside});
      return "is set aside as " + aside + (replaces ? ", in place of the one there" : "");
    }
    case removal::removed:
      put_away_.push_back({path, {}});
      return "is removed" + (why.empty() ? "" : ", since " + why);
    case removal::stays:
      return "stays where it is, in the way of the next stores";
    case removal::nothing:
      break;
  }
  return "is missing";
}

// With so many rows, as far as it can be told without them.
size_t table_starts::memory_for(const tarn_tbl *table, size_t rows) const {
  const auto named = best_matches_.find(table->table_name);
  const size_t look_ups = named != best_matches_.end() ? named->second : 0;
  return rows * row_cost(table) + directory_memory(table, rows) +
         std::min(look_ups, MEMDB_PREFIX_FORMS) * look_up_memory(rows);
}

void table_starts::count_memory(const tarn_tbl *table, size_t used_before) {
  const size_t most = std::max(rows_wanted_, static_cast<size_t>(std::max(table->max_rows, 0)));
  size_t at_start = memory_for(table, rows_wanted_);
  // What the indexes of rows that are in the table take depends on their texts, and is there to be
  // seen.
  if (!was_short_ && rows_wanted_ == static_cast<size_t>(table->row_count))
    at_start += server_memory.used() - used_before - rows_wanted_ * row_cost(table) -
                directory_memory(table, rows_wanted_);
  row_memory_.at_start += at_start;
  row_memory_.when_full += std::max(at_start, memory_for(table, most));
}

table_forecast table_starts::start(tarn_tbl *table) {
  rows_wanted_ = 0;
  was_short_ = false;
  const size_t used_before = server_memory.used();
  table_forecast told = start_with_files(table);
  count_memory(table, used_before);
  return told;
}

table_forecast table_starts::start_with_files(tarn_tbl *table) {
  table_forecast told{table->table_name, main_path(table).text, backup_path(table).text, {}, {}};
  const reading main = names_file(told.main) ? read(table, told.main, out_) : reading::absent;
  if (main == reading::unknown) {
    if (outcome_ == start_outcome::works) outcome_ = start_outcome::unknown;
    return told;
  }
  if (main != reading::loaded) {
    start_without_main(table, main, &told);
    return told;
  }
  told.loaded_from = told.main;
  told.rows = table->row_count;
  rehearse_backup(table, told.backup);
  return told;
}

void table_starts::start_without_main(tarn_tbl *table, reading main, table_forecast *told) {
  const bool is_there = main != reading::absent || disk_.entry_at(told->main).is_link;
  const std::string fate = is_there ? put_away(told->main) : "is missing";
  const std::string rows = "table " + in_quotes(table->table_name);
  const reading backup = read(table, told->backup, out_);
  if (backup == reading::unknown) {
    if (outcome_ == start_outcome::works) outcome_ = start_outcome::unknown;
    if (is_there) out_->error(told->main, 0, fate);
    return;
  }
  if (backup == reading::loaded) {
    told->loaded_from = told->backup;
    told->rows = table->row_count;
    out_->add({told->main, 0, is_there ? severity::error : severity::warning,
               fate + (is_there ? ", and " : ": ") + rows + " is loaded from " + told->backup});
    return;
  }
  empty_table(table);
  told->rows = 0;
  const bool has_backup = backup == reading::refused || disk_.entry_at(told->backup).is_link;
  const std::string end = ": " + rows + " starts empty";
  const std::string backup_fate = has_backup ? put_away(told->backup) : "";
  if (is_there)
    out_->error(told->main, 0,
                fate +
                    (has_backup ? ", and " + told->backup + " " + backup_fate
                                : ", and there is no backup") +
                    end);
  else if (has_backup)
    out_->error(told->backup, 0, backup_fate + ", and there is no main file" + end);
}
