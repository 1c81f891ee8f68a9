// Character by character.
#include "tools/convert/csv.h"

#include <unistd.h>

#include <cerrno>

namespace {

constexpr char QUOTE = '"';
constexpr char SEPARATOR = ',';

// What spreadsheets put ahead of UTF-8.
constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

constexpr char BARE_RETURN[] = "a carriage return stands outside of quotes and ends no line";

}  // namespace

int csv_reader::peek() {
  if (at_ < size_) return static_cast<unsigned char>(block_[at_]);
  if (has_failed_) return FAILED;
  at_ = 0;
  size_ = 0;
  for (;;) {
    const ssize_t read = ::read(file_, block_.data(), BLOCK);
    if (read < 0 && errno == EINTR) continue;
    if (read < 0) {
      has_failed_ = true;
      return FAILED;
    }
    if (read == 0) return END;
    size_ = static_cast<size_t>(read);
    break;
  }
  if (!is_begun_) {
    is_begun_ = true;
    skip_mark();
  }
  return peek();
}

// A pipe gives the three bytes in one piece, as they were written.
void csv_reader::skip_mark() {
  if (std::string_view(block_.data(), size_).starts_with(BYTE_ORDER_MARK))
    at_ = BYTE_ORDER_MARK.size();
}

bool csv_reader::refuse(const char *why) {
  why_ = why;
  return false;
}

bool csv_reader::plain_field() {
  for (int c = peek(); c >= 0 && c != SEPARATOR && c != '\n'; c = peek()) {
    take();
    if (c == QUOTE) return refuse("a quote stands within a value that doesn't begin with one");
    if (c == '\r') {
      if (peek() == '\n') return true;
      return refuse(BARE_RETURN);
    }
    text_ += static_cast<char>(c);
    if (is_too_long()) return refuse("the line has no end within 64 MB");
  }
  return true;
}

bool csv_reader::quoted_field() {
  take();
  for (;;) {
    const int c = peek();
    if (c < 0) return refuse("a quote isn't closed");
    take();
    if (c == '\n') end_line();
    if (c != QUOTE) {
      text_ += static_cast<char>(c);
      if (is_too_long()) return refuse("a quote isn't closed within 64 MB");
      continue;
    }
    if (peek() == QUOTE) {
      take();
      text_ += QUOTE;
      continue;
    }
    if (peek() == '\r') {
      take();
      if (peek() != '\n') return refuse("a carriage return stands behind a closed quote");
    }
    const int behind = peek();
    return behind < 0 || behind == SEPARATOR || behind == '\n' ||
           refuse("something stands behind a closed quote");
  }
}

bool csv_reader::field() {
  const bool is_good = peek() == QUOTE ? quoted_field() : plain_field();
  ends_.push_back(text_.size());
  return is_good;
}

csv_reader::outcome csv_reader::next() {
  int c = peek();
  for (; c == '\n' || c == '\r'; c = peek()) {
    take();
    if (c == '\n') {
      end_line();
    } else if (peek() != '\n') {
      line_ = next_line_;
      refuse(BARE_RETURN);
      return has_failed_ ? outcome::unreadable : outcome::bad;
    }
  }
  line_ = next_line_;
  if (c == END) return outcome::end;
  text_.clear();
  ends_.clear();
  for (bool is_last = false; !is_last;) {
    if (!field()) return has_failed_ ? outcome::unreadable : outcome::bad;
    c = peek();
    if (c == FAILED) return outcome::unreadable;
    is_last = c != SEPARATOR;
    if (c != END) take();
    if (c == '\n') end_line();
  }
  fields_.clear();
  size_t start = 0;
  for (const size_t end : ends_) {
    fields_.push_back(std::string_view(text_).substr(start, end - start));
    start = end;
  }
  return outcome::record;
}

void append_csv_field(std::string_view field, std::string *out) {
  if (field.find_first_of(",\"\r\n") == field.npos) {
    *out += field;
    return;
  }
  *out += QUOTE;
  for (const char c : field) {
    if (c == QUOTE) *out += QUOTE;
    *out += c;
  }
  *out += QUOTE;
}
