// Rows that a select holds until it has seen enough to deliver them.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "memdb/memdb.h"

// In the frame of the call, in the order in which the rows were visited.
class row_list {
 public:
  static constexpr int32_t CAPACITY = 512;

  bool is_full() const { return count_ == CAPACITY; }
  int32_t count() const { return count_; }
  void clear() { count_ = 0; }
  // The list must not be full.
  void add(const memdb_row *row) { rows_[static_cast<size_t>(count_++)] = row; }
  std::span<const memdb_row *const> rows() const {
    return {rows_.data(), static_cast<size_t>(count_)};
  }

 private:
  std::array<const memdb_row *, CAPACITY> rows_;
  int32_t count_ = 0;
};
