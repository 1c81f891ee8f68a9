// Renaming and removing in thought.
#include "tools/check/start_disk.h"

#include <unistd.h>

#include <climits>
#include <filesystem>

#include "tables/files/table_paths.h"

namespace {

bool can_be_written(const std::string &folder) { return access(folder.c_str(), W_OK | X_OK) == 0; }

}  // namespace

std::string start_disk::text_at(const std::string &path) const {
  const auto moved = moved_.find(entry_name(path));
  return moved != moved_.end() ? moved->second : path;
}

file_entry start_disk::entry_at(const std::string &path) const {
  const std::string text = text_at(path);
  return text.empty() ? file_entry() : look_at(text);
}

std::string start_disk::hindrance(const std::string &path) const {
  const std::string aside = refused_path(path.c_str()).text;
  if (last_part_of(aside).size() > NAME_MAX) return "the name " + aside + " would be too long";
  const file_entry taken = entry_at(aside);
  if (taken.kind == entry_kind::directory && !taken.is_link) return aside + " is a directory";
  return {};
}

removal start_disk::put_away(const std::string &path) {
  const file_entry entry = entry_at(path);
  if (entry.kind == entry_kind::missing && !entry.is_link) return removal::nothing;
  const std::string name = last_part_of(path);
  if (name == "." || name == ".." || !can_be_written(folder_of(path))) return removal::stays;
  if (entry.kind == entry_kind::regular && !entry.is_link && hindrance(path).empty()) {
    set(refused_path(path.c_str()).text, text_at(path));
    set(path, "");
    return removal::set_aside;
  }
  std::error_code ignored;
  if (entry.kind == entry_kind::directory && !entry.is_link &&
      !std::filesystem::is_empty(text_at(path), ignored))
    return removal::stays;
  set(path, "");
  return removal::removed;
}
