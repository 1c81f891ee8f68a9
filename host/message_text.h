// Whole texts of messages, for mechanisms that speak for several functions: each hands in the text
// that it is known by, and whoever searches the source for what a log or a reply says finds it.
#pragma once

#include <cstddef>
#include <string_view>

inline constexpr size_t MESSAGE_TEXT_SIZE = 256;  // of the longest format, with terminator

// What a printf conversion takes: %s a text, %d a number, an asterisk one more number ahead.
template <typename Value>
inline constexpr char conversion_class = 0;
template <>
inline constexpr char conversion_class<const char *> = 's';
template <>
inline constexpr char conversion_class<char *> = 's';
template <>
inline constexpr char conversion_class<int> = 'd';

// A printf format whose conversions take values of these types, checked when it is compiled.
template <typename... Values>
struct message_text {
  // NOLINTNEXTLINE(google-explicit-constructor): records of texts are written as their literals.
  consteval message_text(const char *literal) : format(literal) {
    if (!takes_values(literal)) conversions_and_values_differ();
  }

  const char *format;

 private:
  static void conversions_and_values_differ();  // names the slip in the compiler's message

  static consteval bool takes_values(std::string_view text) {
    constexpr char wanted[] = {conversion_class<Values>..., '\0'};
    size_t value = 0;
    const auto takes = [&value](char conversion) {
      const size_t next = value++;
      return next < sizeof...(Values) && wanted[next] == conversion;
    };
    for (size_t at = 0; at < text.size(); at++) {
      if (text[at] != '%') continue;
      for (at++; at < text.size() && (text[at] == '.' || text[at] == '*'); at++)
        if (text[at] == '*' && !takes('d')) return false;
      if (at == text.size()) return false;
      if (text[at] != '%' && !takes(text[at])) return false;
    }
    return value == sizeof...(Values) && text.size() < MESSAGE_TEXT_SIZE;
  }
};
