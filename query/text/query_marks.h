// Where the characters of a query stand that mean something in it, found in one pass over the text.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

// The separators of a text, for texts in which nothing else has a meaning.
class query_marks {
 public:
  explicit query_marks(std::string_view text);

  // False if the text holds an escape or a zero byte, or nearly as many separators as there is room
  // for: then only a walk tells where its parts end.
  bool tell() const { return tell_; }

  // Ascending.
  std::span<const uint32_t> places() const { return {places_, count_}; }

  static constexpr uint32_t CAPACITY = 128;

 private:
  uint32_t places_[CAPACITY];
  uint32_t count_ = 0;
  bool tell_ = false;
};
