// The disk as the start changes it on its way from table to table, without a change to the disk.
#pragma once

#include <map>
#include <string>

#include "tools/common/file_entry.h"

// What a start does to a file that it can't load.
enum class removal {
  nothing,    // nothing is there
  set_aside,  // renamed beside itself
  removed,
  stays  // neither can be done
};

class start_disk {
 public:
  // Where the text lies that the start finds at path; empty if it finds nothing there.
  std::string text_at(const std::string &path) const;
  file_entry entry_at(const std::string &path) const;

  // Does what the start does to a file that it can't load.
  removal put_away(const std::string &path);

  // Why a regular file can't be set aside, or nothing.
  std::string hindrance(const std::string &path) const;

 private:
  void set(const std::string &path, const std::string &text) { moved_[entry_name(path)] = text; }

  std::map<std::string, std::string> moved_;  // by entry: where its text lies, empty if it is gone
};
