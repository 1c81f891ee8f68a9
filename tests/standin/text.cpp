// Helpers on texts.
#include "tests/standin/text.h"

#include <cstdio>

namespace standin {

std::string print_text(const char *format, va_list arguments) {
  va_list measured;
  va_copy(measured, arguments);
  const int length = vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) return "(format error)";
  std::string out(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(out.data(), out.size(), format, arguments);
  out.pop_back();
  return out;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

void touch_byte_behind(const str &text) {
  const volatile char *behind = text.s + text.len;
  static_cast<void>(*behind);
}

}  // namespace standin
