// Folders first, then the files in them.
#include "tools/check/place_check.h"

#include <unistd.h>

#include <climits>
#include <map>
#include <set>

#include "tables/files/table_paths.h"
#include "tools/check/start_disk.h"
#include "tools/common/file_entry.h"
#include "tools/common/unfinished_run.h"
#include "tools/common/visible_text.h"

namespace {

bool names_directory(const std::string &path) {
  const std::string last = last_part_of(path);
  return last.empty() || last == "." || last == "..";
}

class place_walk {
 public:
  place_walk(const checked_inputs &inputs, const schema_places &lines, findings *out)
      : schema_(inputs.schema), lines_(lines), out_(out) {
    constexpr char LOST[] = ", which the start takes for a table's and puts away";
    owners_.emplace(entry_name(inputs.schema), std::string("is the schema itself") + LOST);
    if (!inputs.private_ranges.empty())
      owners_.emplace(entry_name(inputs.private_ranges),
                      std::string("is the private range file") + LOST);
  }

  void run() {
    if (const std::string list = unfinished_run_path(); look_at(list).kind != entry_kind::missing)
      out_->error(list, 0,
                  "a conversion was cut off: some files may be of another schema until the same "
                  "tarn-memdb-convert --apply has gone on with it");
    size_t number = 0;
    for (const tarn_tbl &table : all_tarn_tbls()) {
      line_ = number < lines_.file_names.size() ? lines_.file_names[number] : 0;
      number++;
      // The schema's end has cost such a table its file, which is told.
      if (table.file_name[0] != '\0') files(table);
    }
  }

 private:
  void warn(const std::string &text) { out_->warn(schema_, line_, text); }
  void error(const std::string &text) { out_->error(schema_, line_, text); }

  void files(const tarn_tbl &table) {
    const std::string main = main_path(&table).text;
    const std::string backup = backup_path(&table).text;
    const std::string name = "table " + in_quotes(table.table_name);
    if (names_directory(main)) {
      error("FILE_NAME=" + std::string(table.file_name) + " names a directory: " + name +
            " is never stored");
      return;
    }
    folders(main, backup);
    entries(name, main, backup);
    if (!owned(table, main, backup)) own(table, main, backup);
  }

  // Each folder is told of once: at the line of the directory, or of the file that leads elsewhere.
  void folder(const std::string &path, const char *base, size_t base_line, severity weight,
              const std::string &outcome) {
    const std::string name = folder_of(path);
    if (!told_.insert(name + outcome).second) return;
    const size_t line = name == base && base_line != 0 ? base_line : line_;
    const file_entry found = look_at(name);
    if (found.kind == entry_kind::missing)
      out_->add(
          {schema_, line, weight, "the folder " + in_quotes(name) + " isn't there: " + outcome});
    else if (found.kind != entry_kind::directory)
      out_->add({schema_, line, weight, in_quotes(name) + " is no folder: " + outcome});
    else if (access(name.c_str(), W_OK | X_OK) != 0)
      out_->warn(schema_, line, in_quotes(name) + " can't be written to by who runs this check");
  }

  void folders(const std::string &main, const std::string &backup) {
    folder(main, tarn_tbl_mngt->base_dir, lines_.base_dir, severity::error,
           "what is stored there is lost at a restart");
    folder(backup, tarn_tbl_mngt->base_backup_dir, lines_.base_backup_dir, severity::warning,
           "no backup is ever made there");
    const std::string from = folder_of(main);
    const std::string to = folder_of(backup);
    const std::string one = mount_of(from);
    const std::string other = mount_of(to);
    if (one.empty() || other.empty() || one == other || !told_.insert(from + '\0' + to).second)
      return;
    out_->warn(schema_, lines_.base_backup_dir,
               in_quotes(from) + " and " + in_quotes(to) +
                   " aren't on one file system: no backup is ever made, since a main file becomes "
                   "the backup by being renamed");
  }

  void entries(const std::string &name, const std::string &main, const std::string &backup) {
    const file_entry at_main = look_at(main);
    const file_entry at_backup = look_at(backup);
    if (last_part_of(backup).size() > NAME_MAX)
      warn("the name " + last_part_of(backup) + " is too long: no backup of " + name +
           " is ever made");
    else if (at_backup.kind == entry_kind::directory && !at_backup.is_link)
      warn(in_quotes(backup) + " is a directory: no backup of " + name + " is made");
    else if (!at_main.id.empty() && at_main.id == at_backup.id)
      warn(in_quotes(main) + " and " + in_quotes(backup) + " are one file: " + name +
           " has no backup");
    if (at_main.is_link && at_main.kind != entry_kind::missing)
      warn(in_quotes(main) +
           " is a link: the next store moves the link to the backup's place, and "
           "puts a file in its own");
    if (const std::string why = start_disk().hindrance(main); !why.empty())
      warn("a main file that can't be loaded would be removed, not set aside: " + why);
  }

  // Tells of the first file that is somebody else's.
  bool owned(const tarn_tbl &table, const std::string &main, const std::string &backup) {
    const auto check = [&](const std::string &path, const std::string &what) {
      const auto owner = owners_.find(entry_name(path));
      if (owner == owners_.end()) return false;
      error(what + " " + owner->second);
      return true;
    };
    const auto is_aside = [&](const std::string &path, const std::string &what) {
      const auto owner = asides_.find(entry_name(path));
      if (owner == asides_.end()) return false;
      warn(what + " " + owner->second);
      return true;
    };
    const std::string file = "FILE_NAME=" + std::string(table.file_name);
    const std::string behind = "the backup of " + file + ", " + in_quotes(backup) + ",";
    return check(main, file) || check(backup, behind) || is_aside(main, file) ||
           is_aside(backup, behind);
  }

  void own(const tarn_tbl &table, const std::string &main, const std::string &backup) {
    const std::string whose = "of table " + in_quotes(table.table_name);
    const auto claim = [&](const std::string &path, const std::string &what) {
      owners_.emplace(entry_name(path),
                      "is the " + what + " " + whose + " as well: each store overwrites the other");
      const std::string aside = refused_path(path.c_str()).text;
      asides_.emplace(entry_name(aside),
                      "is where the " + what + " " + whose + " goes if it can't be loaded");
      if (const auto taken = owners_.find(entry_name(aside)); taken != owners_.end())
        warn("if the " + what + " " + whose + " can't be loaded, it takes the place of " +
             in_quotes(aside) + ", which is another's");
    };
    claim(main, "file");
    claim(backup, "backup");
  }

  const std::string &schema_;
  const schema_places &lines_;
  findings *out_;
  size_t line_ = 0;
  std::set<std::string> told_;
  std::map<std::string, std::string> owners_;  // by entry
  std::map<std::string, std::string> asides_;
};

}  // namespace

void check_places(const checked_inputs &inputs, const schema_places &lines, findings *out) {
  place_walk(inputs, lines, out).run();
}
