// Composing names.
#include "counters/counter_name.h"

#include <algorithm>
#include <cstdio>
#include <span>

namespace {

constexpr bool is_plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

bool is_plain_name(std::string_view name) {
  return std::all_of(name.begin(), name.end(), is_plain);
}

counter_name::counter_name(const char *what, std::string_view about, int number) {
  const int start = snprintf(text, sizeof(text), "%s_", what);
  const int end = start + snprintf(text + start, sizeof(text) - static_cast<size_t>(start), "%.*s",
                                   static_cast<int>(about.size()), about.data());
  for (char &c : std::span(text + start, text + end))
    if (!is_plain(c)) c = '_';
  if (number > 1) snprintf(text + end, sizeof(text) - static_cast<size_t>(end), "_%d", number);
}
