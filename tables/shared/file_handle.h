// An open file that closes itself.
#pragma once

#include <cstdio>

class file_handle {
 public:
  explicit file_handle(FILE *file) : file_(file) {}
  ~file_handle() { close(); }
  file_handle(const file_handle &) = delete;
  file_handle &operator=(const file_handle &) = delete;

  FILE *get() const { return file_; }
  explicit operator bool() const { return file_ != nullptr; }
  void close() {
    if (file_ != nullptr) fclose(file_);
    file_ = nullptr;
  }

 private:
  FILE *file_;
};
