// Second names, renames, and the list of both.
#include "tools/convert/placing.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "tables/files/table_paths.h"
#include "tools/common/file_entry.h"
#include "tools/common/input_text.h"
#include "tools/common/unfinished_run.h"
#include "tools/common/visible_text.h"
#include "tools/convert/disk_file.h"
#include "tools/convert/new_file.h"

namespace {

constexpr char LIST_HEAD[] = "tarn-memdb-convert 1";
constexpr char LIST_END[] = "end";
constexpr char NOTHING[] = "-";

std::string list_path(const site &of) {
  enter(of);
  return unfinished_run_path();
}

std::string kept_path(const std::string &path, int number) {
  return path + ".old-" + std::to_string(number);
}

bool is_there(const std::string &path) {
  const file_entry entry = look_at(path);
  return entry.kind != entry_kind::missing || entry.is_link;
}

// By which a file that was changed since is known. A second name leaves it as it is.
std::string state_of(const std::string &path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return NOTHING;
  std::ostringstream out;
  out << status.st_dev << ':' << status.st_ino << ':' << status.st_size << ':'
      << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec;
  return out.str();
}

struct placing {
  std::string path;
  std::string state;  // of what stood there ahead of all
};

struct placing_list {
  int number = 0;  // behind the names of kept files
  std::vector<placing> files;
};

int free_number(const std::vector<std::string> &paths) {
  const auto is_taken = [&](int number) {
    return std::ranges::any_of(
        paths, [number](const std::string &path) { return is_there(kept_path(path, number)); });
  };
  int number = 1;
  while (is_taken(number)) number++;
  return number;
}

bool fail(const std::string &path, const std::string &what, findings *found) {
  const std::string why = strerror(errno);
  found->unreadable(path, 0, what + ": " + why);
  return false;
}

bool sync_folders(const placing_list &list, findings *found) {
  std::set<std::string> folders;
  for (const placing &file : list.files) folders.insert(folder_of(file.path));
  for (const std::string &folder : folders)
    if (!sync_folder(folder)) return fail(folder, "can't be brought to the disk", found);
  return true;
}

bool write_list(const site &of, const placing_list &list, findings *found) {
  const std::string path = list_path(of);
  disk_file file;
  const auto write = [&] {
    if (!file.make(new_path(path), {true, 0600, geteuid(), getegid()})) return false;
    file.put(std::string(LIST_HEAD) + "\n" + std::to_string(list.number) + "\n");
    for (const placing &one : list.files) file.put(one.state + " " + one.path + "\n");
    file.put(std::string(LIST_END) + "\n");
    return file.finish();
  };
  if (!write()) {
    errno = file.error();
    return fail(new_path(path), "can't be written", found);
  }
  if (rename(new_path(path).c_str(), path.c_str()) == 0 && sync_folder(folder_of(path)))
    return true;
  fail(path, "can't be written", found);
  unlink(new_path(path).c_str());
  unlink(path.c_str());
  return false;
}

bool read_list(const site &of, placing_list *out) {
  std::string why;
  const auto text = input_text(list_path(of), &why);
  if (!text) return false;
  std::istringstream lines(*text);
  std::string line;
  if (!std::getline(lines, line) || line != LIST_HEAD || !std::getline(lines, line)) return false;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), out->number);
  if (error != std::errc() || end != line.data() + line.size()) return false;
  while (std::getline(lines, line) && line != LIST_END) {
    const size_t blank = line.find(' ');
    if (blank == line.npos) return false;
    out->files.push_back({line.substr(blank + 1), line.substr(0, blank)});
  }
  return line == LIST_END;
}

bool remove_list(const site &of, findings *found) {
  const std::string path = list_path(of);
  if (unlink(path.c_str()) != 0) return fail(path, "can't be removed", found);
  // A list that comes back after a cut has nothing left to do.
  sync_folder(folder_of(path));
  return true;
}

// Gives all that stands at the paths its second name. What was placed already has no new file any
// more.
bool keep_old(const placing_list &list, findings *found) {
  for (const placing &file : list.files) {
    const std::string kept = kept_path(file.path, list.number);
    if (!is_there(new_path(file.path)) || !is_there(file.path) || is_there(kept)) continue;
    if (link(file.path.c_str(), kept.c_str()) != 0)
      return fail(file.path, "can't be kept as " + kept, found);
  }
  return sync_folders(list, found);
}

bool place_new(const placing_list &list, findings *found) {
  for (const placing &file : list.files) {
    const std::string fresh = new_path(file.path);
    if (!is_there(fresh)) continue;
    if (rename(fresh.c_str(), file.path.c_str()) != 0)
      return fail(fresh, "can't be renamed to " + file.path, found);
  }
  return sync_folders(list, found);
}

void remove_second_names(const placing_list &list) {
  for (const placing &file : list.files)
    if (file.state != NOTHING) unlink(kept_path(file.path, list.number).c_str());
}

// The renames, and then their list goes. False, told, if some of that is left to do.
bool follow_list(const site &of, const placing_list &list, findings *found) {
  if (place_new(list, found) && remove_list(of, found)) return true;
  found->unreadable(list_path(of), 0,
                    "has what is left to do: the same command once more goes on with it");
  return false;
}

std::set<std::string> entries_of(const std::vector<const site *> &sites) {
  std::set<std::string> out;
  for (const site *of : sites) {
    for (const tarn_tbl &table : tables_of(*of)) {
      const table_places places = places_of(*of, table);
      for (const std::string &path : {places.main, places.backup}) {
        out.insert(entry_name(path));
        out.insert(entry_name(refused_path(path.c_str()).text));
      }
    }
  }
  return out;
}

bool belongs_to(const site &of, const std::string &path) {
  return std::ranges::any_of(tables_of(of), [&](const tarn_tbl &table) {
    const table_places places = places_of(of, table);
    return path == places.main || path == places.backup;
  });
}

// *paths gets those that were left to do.
bool finish_placing(const site &of, std::vector<std::string> *paths, findings *found) {
  placing_list list;
  if (!read_list(of, &list)) {
    found->unreadable(list_path(of), 0, "can't be read as the list of a run that was cut off");
    return false;
  }
  bool is_as_left = true;
  for (const placing &file : list.files) {
    if (!belongs_to(of, file.path)) {
      found->error(
          list_path(of), 0,
          "is of a run with another schema: " + in_quotes(file.path) + " is no table's file here");
      is_as_left = false;
    } else if (is_there(new_path(file.path))) {
      paths->push_back(file.path);
      if (state_of(file.path) == file.state) continue;
      found->error(file.path, 0,
                   "has changed since the run that was cut off: take " +
                       in_quotes(new_path(file.path)) +
                       " to replace it, or remove that, and then " + in_quotes(list_path(of)));
      is_as_left = false;
    }
  }
  if (!is_as_left) return false;
  return follow_list(of, list, found);
}

}  // namespace

bool are_free_names(const std::vector<std::string> &paths, const std::vector<const site *> &sites,
                    findings *found) {
  const std::set<std::string> taken = entries_of(sites);
  const int number = free_number(paths);
  bool are_free = true;
  for (const std::string &path : paths) {
    for (const std::string &name : {new_path(path), kept_path(path, number)}) {
      if (!taken.contains(entry_name(name))) continue;
      found->error(name, 0, "is the name of a table's file and needed for another one");
      are_free = false;
    }
  }
  return are_free;
}

run_outcome place_files(const site &of, const std::vector<std::string> &paths,
                        std::map<std::string, std::string> *kept, findings *found) {
  placing_list list{free_number(paths), {}};
  for (const std::string &path : paths) {
    list.files.push_back({path, state_of(path)});
    if (list.files.back().state != NOTHING) (*kept)[path] = kept_path(path, list.number);
  }
  // The second names come ahead of the list: until the first rename all can be taken back.
  if (!sync_folders(list, found) || !keep_old(list, found) || !write_list(of, list, found)) {
    remove_second_names(list);
    return run_outcome::nothing;
  }
  return follow_list(of, list, found) ? run_outcome::applied : run_outcome::unfinished;
}

bool goes_on(const site &of, bool may_apply, run_report *run, findings *found) {
  if (!is_there(list_path(of))) return false;
  if (may_apply)
    run->outcome =
        finish_placing(of, &run->resumed, found) ? run_outcome::resumed : run_outcome::unfinished;
  else
    found->error(
        of.schema, 0,
        "a run with this schema was cut off: the same command with --apply goes on with it");
  return true;
}
