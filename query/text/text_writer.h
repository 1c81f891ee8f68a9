// Writes text into a fixed buffer, cut at the buffer's end and terminated at all times.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

class text_writer {
 public:
  // The buffer has to hold at least the terminator.
  explicit text_writer(std::span<char> buffer) : buffer_(buffer) { buffer_[0] = '\0'; }

  text_writer &append(std::string_view text) {
    const size_t taken = std::min(text.size(), buffer_.size() - 1 - len_);
    if (taken > 0) memcpy(&buffer_[len_], text.data(), taken);
    len_ += taken;
    buffer_[len_] = '\0';
    return *this;
  }
  text_writer &append(char c) { return append(std::string_view(&c, 1)); }

  std::string_view text() const { return {buffer_.data(), len_}; }

 private:
  std::span<char> buffer_;
  size_t len_ = 0;
};
