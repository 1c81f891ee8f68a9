// Comma-separated values, after RFC 4180.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Reads records of an open file, which stays the caller's.
class csv_reader {
 public:
  explicit csv_reader(int file) : file_(file), block_(BLOCK, '\0') {}

  enum class outcome {
    record,
    end,
    bad,        // against the form, told by why()
    unreadable  // with errno
  };

  // Reads the next record; lines without anything are passed over. Lines end with a line feed, with
  // or without a carriage return ahead of it.
  outcome next();

  // Of the record read last. They are there until the next one is read.
  const std::vector<std::string_view> &fields() const { return fields_; }

  // Where it begins, from 1.
  size_t line() const { return line_; }

  const std::string &why() const { return why_; }

 private:
  static constexpr size_t BLOCK = 262144;
  static constexpr size_t MOST = size_t{64} << 20;  // bytes of a record
  static constexpr int END = -1;
  static constexpr int FAILED = -2;

  int peek();
  void take() { at_++; }
  void end_line() { next_line_++; }
  bool refuse(const char *why);
  bool field();
  bool quoted_field();
  bool plain_field();
  void skip_mark();
  bool is_too_long() const { return text_.size() > MOST; }

  int file_;
  std::string block_;
  size_t at_ = 0;
  size_t size_ = 0;
  size_t line_ = 0;
  size_t next_line_ = 1;
  bool is_begun_ = false;
  bool has_failed_ = false;
  std::string text_;  // of the fields, one behind the other
  std::vector<size_t> ends_;
  std::vector<std::string_view> fields_;
  std::string why_;
};

// A field as a record has it, between quotes where it has to be.
void append_csv_field(std::string_view field, std::string *out);

inline constexpr char CSV_LINE_END[] = "\r\n";
