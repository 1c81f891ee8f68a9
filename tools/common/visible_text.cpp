// UTF-8 character by character, after RFC 3629.
#include "tools/common/visible_text.h"

#include <cstdint>

namespace {

constexpr size_t MOST_QUOTED = 400;

uint8_t byte_at(std::string_view text, size_t at) { return static_cast<uint8_t>(text[at]); }

bool is_continuation(std::string_view text, size_t at) {
  return at < text.size() && (byte_at(text, at) & 0xc0) == 0x80;
}

// How many bytes the character at the beginning of text has, and its number; 0 for what is none.
size_t character(std::string_view text, uint32_t *number) {
  const uint8_t first = byte_at(text, 0);
  if (first < 0x80) {
    *number = first;
    return 1;
  }
  const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4) return 0;
  *number = first & (0x7fU >> size);
  for (size_t i = 1; i < size; i++) {
    if (!is_continuation(text, i)) return 0;
    *number = *number << 6 | (byte_at(text, i) & 0x3fU);
  }
  // Longer forms than needed, halves of pairs, and what lies beyond the last character.
  constexpr uint32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
  if (*number < LEAST[size] || *number > 0x10ffff || (*number & ~0x7ffU) == 0xd800) return 0;
  return size;
}

// Control characters, and those that show as a blank or not at all.
bool has_form(uint32_t number) {
  constexpr struct {
    uint32_t first;
    uint32_t last;
  } FORMLESS[] = {
      {0, 0x1f},        {0x7f, 0xa0},     {0xad, 0xad},     {0x061c, 0x061c},
      {0x180e, 0x180e}, {0x2000, 0x200f}, {0x2028, 0x202f}, {0x205f, 0x206f},
      {0x3000, 0x3000}, {0xfeff, 0xfeff}, {0xfff9, 0xfffb},
  };
  for (const auto &range : FORMLESS)
    if (range.first <= number && number <= range.last) return false;
  return true;
}

void append_escaped(std::string_view bytes, std::string *out) {
  constexpr char DIGITS[] = "0123456789abcdef";
  for (size_t i = 0; i < bytes.size(); i++)
    *out += {'\\', 'x', DIGITS[byte_at(bytes, i) / 16], DIGITS[byte_at(bytes, i) % 16]};
}

}  // namespace

std::string visible(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    uint32_t number = 0;
    const size_t size = character(text, &number);
    const std::string_view bytes = text.substr(0, size != 0 ? size : 1);
    if (size != 0 && has_form(number))
      out += bytes;
    else
      append_escaped(bytes, &out);
    text.remove_prefix(bytes.size());
  }
  return out;
}

std::string in_quotes(std::string_view text) {
  if (text.size() <= MOST_QUOTED) return "'" + std::string(text) + "'";
  return "'" + std::string(text.substr(0, MOST_QUOTED)) + "...' of " + std::to_string(text.size()) +
         " bytes";
}

std::string counted(size_t number, const char *thing) {
  return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}
