// Finding marks 16 characters at a time.
#include "query/text/query_marks.h"

#include <emmintrin.h>

#include <bit>
#include <cstring>

#include "query/text/field_strings.h"

namespace {

constexpr uint32_t BLOCK = sizeof(__m128i);

// Which of 16 characters are marks, bit by bit.
struct block_marks {
  uint32_t separators;
  uint32_t others;  // escapes and zero bytes
};

block_marks marks_of(const char *text) {
  const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(text));
  const auto either = [block](char a, char b) {
    const __m128i found = _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8(a)),
                                       _mm_cmpeq_epi8(block, _mm_set1_epi8(b)));
    return static_cast<uint32_t>(_mm_movemask_epi8(found));
  };
  return {either(FIELD_SEPARATOR, PART_SEPARATOR), either(FIELD_ESCAPE, '\0')};
}

// Of a block that begins so many characters ahead of what hasn't been looked at yet.
block_marks behind(block_marks marks, uint32_t seen) {
  return {marks.separators >> seen, marks.others >> seen};
}

block_marks marks_of_rest(std::string_view text, uint32_t at) {
  const auto size = static_cast<uint32_t>(text.size());
  if (size >= BLOCK) return behind(marks_of(text.data() + size - BLOCK), at + BLOCK - size);
  char rest[BLOCK];
  memset(rest, WILDCARD[0], sizeof(rest));
  memcpy(rest, text.data(), size);
  return marks_of(rest);
}

}  // namespace

query_marks::query_marks(std::string_view text) {
  const auto size = static_cast<uint32_t>(text.size());
  for (uint32_t at = 0; at < size; at += BLOCK) {
    const block_marks marks =
        at + BLOCK <= size ? marks_of(text.data() + at) : marks_of_rest(text, at);
    if (marks.others != 0 || count_ + BLOCK > CAPACITY) return;
    for (uint32_t left = marks.separators; left != 0; left &= left - 1)
      places_[count_++] = at + static_cast<uint32_t>(std::countr_zero(left));
  }
  tell_ = true;
}
