// What stands at a path, and which paths are one.
#pragma once

#include <string>

enum class entry_kind { missing, regular, directory, pipe, socket, device };

struct file_entry {
  entry_kind kind = entry_kind::missing;  // of what a link leads to
  bool is_link = false;                   // and, where kind is missing, one that leads nowhere
  std::string id;                         // of the file itself, links followed; empty if missing
};

file_entry look_at(const std::string &path);

// The same text for all paths that name one entry of one folder, whether it is there or not. Links
// among the folders are followed, a link that is the entry itself isn't.
std::string entry_name(const std::string &path);

// The folder that the path's last part lies in, and that part, which may be empty.
std::string folder_of(const std::string &path);
std::string last_part_of(const std::string &path);

// "a pipe" and so on, for messages.
const char *kind_name(entry_kind kind);

// A folder by the file system, and the place where that is mounted: between two that differ nothing
// can be renamed. Empty if there is no such folder.
std::string mount_of(const std::string &folder);
