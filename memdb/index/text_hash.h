// The hash that tells apart the texts of one bucket. The buckets' own hash can't: it is bound to
// how a text ends, so that texts with a common ending have few values of it or one.
#pragma once

#include <cstdint>
#include <cstring>

namespace memdb_hash_words {

inline uint64_t eight_bytes(const char *at) {
  uint64_t word;
  memcpy(&word, at, sizeof(word));
  return word;
}

inline uint64_t four_bytes(const char *at) {
  uint32_t word;
  memcpy(&word, at, sizeof(word));
  return word;
}

inline uint64_t folded_product(uint64_t a, uint64_t b) {
  __extension__ using wide = unsigned __int128;
  const wide product = static_cast<wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

}  // namespace memdb_hash_words

// 64 bits of a text of len bytes, by whole words and folded products (Wang Yi's wyhash, 2019, in
// the public domain). All bits are as good as each other. Nothing beyond the text is read.
inline uint64_t memdb_text_hash(const char *text, size_t len, uint64_t seed) {
  using namespace memdb_hash_words;
  constexpr uint64_t FIRST = 0xA0761D6478BD642F;
  constexpr uint64_t SECOND = 0xE7037ED1A0B428DB;
  uint64_t hash = seed ^ FIRST;
  uint64_t head = 0;
  uint64_t tail = 0;
  if (len > 16) {
    const char *const last = text + len - 16;
    for (; text < last; text += 16)
      hash = folded_product(eight_bytes(text) ^ SECOND, eight_bytes(text + 8) ^ hash);
    head = eight_bytes(last);
    tail = eight_bytes(last + 8);
  } else if (len >= 8) {
    head = eight_bytes(text);
    tail = eight_bytes(text + len - 8);
  } else if (len >= 4) {
    head = four_bytes(text);
    tail = four_bytes(text + len - 4);
  } else if (len > 0) {
    const auto byte = [text](size_t at) { return uint64_t{static_cast<unsigned char>(text[at])}; };
    head = byte(0) << 16 | byte(len / 2) << 8 | byte(len - 1);
  }
  return folded_product(SECOND ^ len, folded_product(head ^ SECOND, tail ^ hash));
}
