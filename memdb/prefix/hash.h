// The hash by which look-ups for prefixes find their slots. Serves them.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

// The hash of an entry: the given texts first, then the entry character by character, so that one
// pass over a key gives the hash of each of its beginnings.

inline constexpr uint64_t MEMDB_PREFIX_HASH_BEGIN = 0x9E3779B97F4A7C15;

// Multiplies in as Fowler, Noll and Vo's hash FNV-1a does.
inline uint64_t memdb_prefix_hash_word(uint64_t hash, uint64_t word) {
  return (hash ^ word) * 0xD6E8FEB86659FD93;
}

inline uint64_t memdb_prefix_hash_char(uint64_t hash, char c) {
  return memdb_prefix_hash_word(hash, static_cast<unsigned char>(c));
}

inline uint64_t memdb_prefix_hash_text(uint64_t hash, std::string_view text) {
  hash = memdb_prefix_hash_word(hash, text.size());
  for (;; text.remove_prefix(sizeof(uint64_t))) {
    uint64_t word = 0;
    if (text.size() <= sizeof(word)) {
      memcpy(&word, text.data(), text.size());
      hash = memdb_prefix_hash_word(hash, word);
      return hash ^ hash >> 32;
    }
    memcpy(&word, text.data(), sizeof(word));
    hash = memdb_prefix_hash_word(hash, word);
    hash ^= hash >> 32;
  }
}

// The slots' part of it, never 0 (the last steps of Steele's SplitMix64, "Fast Splittable
// Pseudorandom Number Generators", 2014).
inline uint32_t memdb_prefix_hash_end(uint64_t hash) {
  hash = (hash ^ hash >> 30) * 0xBF58476D1CE4E5B9;
  hash = (hash ^ hash >> 27) * 0x94D049BB133111EB;
  const auto end = static_cast<uint32_t>(hash >> 32);
  return end != 0 ? end : 1;
}

// The hash of texts in the columns of the bits in given; text_of(column) gives each.
template <typename TextOf>
uint64_t memdb_prefix_hash_given(uint32_t given, TextOf text_of) {
  uint64_t hash = MEMDB_PREFIX_HASH_BEGIN;
  for (; given != 0; given &= given - 1)
    hash = memdb_prefix_hash_text(hash, text_of(static_cast<uint32_t>(std::countr_zero(given))));
  return hash;
}
