// Finding marks 16 characters at a time.
#include "query/text/query_marks.h"

#include <emmintrin.h>

#include <bit>
#include <cstring>

#include "query/text/field_strings.h"

namespace {

constexpr uint32_t BLOCK = sizeof(__m128i);

// Which of the 16 characters are marks, bit by bit.
uint32_t marks_among(__m128i characters) {
  const auto equal = [characters](char c) { return _mm_cmpeq_epi8(characters, _mm_set1_epi8(c)); };
  const __m128i separators = _mm_or_si128(equal(FIELD_SEPARATOR), equal(PART_SEPARATOR));
  const __m128i others = _mm_or_si128(equal(FIELD_ESCAPE), equal('\0'));
  return static_cast<uint32_t>(_mm_movemask_epi8(_mm_or_si128(separators, others)));
}

__m128i block_at(const char *text) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(text));
}

}  // namespace

// False at a character that is no separator, and where there is no room.
bool query_marks::take(const char *text, uint32_t from, uint32_t which) {
  for (; which != 0; which &= which - 1) {
    const uint32_t place = from + static_cast<uint32_t>(std::countr_zero(which));
    if (text[place] == FIELD_ESCAPE || text[place] == '\0' || count_ == CAPACITY) return false;
    places_[count_++] = place;
  }
  return true;
}

query_marks::query_marks(std::string_view text) {
  const auto size = static_cast<uint32_t>(text.size());
  uint32_t at = 0;
  for (; at + BLOCK <= size; at += BLOCK)
    if (!take(text.data(), at, marks_among(block_at(text.data() + at)))) return;
  if (at < size) {
    uint32_t which;
    if (size >= BLOCK) {
      // The last block begins within the one before it, which has been looked at.
      const uint32_t last = size - BLOCK;
      which = marks_among(block_at(text.data() + last)) >> (at - last);
    } else {
      char rest[BLOCK] = {};
      memcpy(rest, text.data(), size);
      which = marks_among(block_at(rest)) & ((1U << size) - 1);
    }
    if (!take(text.data(), at, which)) return;
  }
  tell_ = true;
}
