// Small helpers on texts that the stand-in's parts share.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

#include "host/abi.h"

namespace standin {

// The format with its arguments. The list is used up.
std::string print_text(const char *format, va_list arguments);

// A view of the host's string; empty for null.
inline std::string_view view_of(const str &text) {
  return text.s != nullptr && text.len > 0 ? std::string_view(text.s, static_cast<size_t>(text.len))
                                           : std::string_view();
}

// The other way round. The host's string isn't const, so the text has to be treated as if it were.
inline str str_of(std::string_view text) {
  return {const_cast<char *>(text.data()), static_cast<int>(text.size())};
}

// True for the four blanks that the host's parsers skip.
inline bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The text without blanks at both ends.
std::string_view trimmed(std::string_view text);

// Reads the byte behind the text, as the host's parsers do. A sanitizer reports a text without one.
void touch_byte_behind(const str &text);

}  // namespace standin
