// A file that is written whole or not at all.
#pragma once

#include <string>
#include <string_view>

#include "tables/files/file_access.h"

class disk_file {
 public:
  disk_file() = default;
  ~disk_file();
  disk_file(const disk_file &) = delete;
  disk_file &operator=(const disk_file &) = delete;

  // Makes the file anew, with these rights, or, where they aren't known, with those that a first
  // file has in its folder. What was there by that name is gone.
  bool make(const std::string &path, const file_access &access);

  bool put(std::string_view text) {
    if (text_.size() + text.size() > SIZE && !flush()) return false;
    text_ += text;
    return true;
  }
  bool put(char c) { return put(std::string_view(&c, 1)); }

  // Brings all to the disk. The file goes again if that, or anything before, failed.
  bool finish();

  // Why a step failed; errno's number.
  int error() const { return error_; }

 private:
  static constexpr size_t SIZE = 262144;

  bool flush();
  bool fail();

  std::string path_;
  std::string text_;
  int file_ = -1;
  int error_ = 0;
};

// Brings the names of a folder's files to the disk. False, with errno, if that fails.
bool sync_folder(const std::string &folder);
