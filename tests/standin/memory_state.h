// What the tracked allocators know, shared between memory.cpp and memory_queries.cpp alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tests/standin/memory.h"
#include "tests/standin/shared_mapping.h"

namespace standin {

// AddressSanitizer watches the bytes behind a block better, and only if they are its own.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr size_t GUARD_BYTES = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr size_t GUARD_BYTES = 0;
#else
inline constexpr size_t GUARD_BYTES = 16;
#endif
#else
inline constexpr size_t GUARD_BYTES = 16;
#endif

struct tracked {
  size_t size;
  const char *file;
  const char *func;
  const char *owner;
  unsigned int line;
  uint64_t serial;
};

struct failure_plan {
  uint64_t calls = 0;
  uint64_t once = 0;  // number of the call to fail, 0 for none
  uint64_t from = 0;
};

struct memory_state {
  std::unordered_map<const void *, tracked> live[2];
  std::unordered_map<const void *, tracked> freed;
  std::unordered_set<std::string> names;
  std::vector<std::string> errors;
  failure_plan plans[3];
  uint64_t serial = 0;
  uint64_t failed = 0;
  size_t shm_available = PTRDIFF_MAX;
  uint64_t counted_from[3] = {};
};

// The one record, made at its first use and never taken down.
memory_state &memory();

inline size_t index_of(pool which) { return static_cast<size_t>(which); }
inline const char *name_of(pool which) { return which == pool::pkg ? "pkg" : "shm"; }
inline bool in_mapping(pool which) { return which == pool::shm && mapping_active(); }

// "file:line func", with question marks for what isn't known.
std::string place(const char *file, unsigned int line, const char *func);

// Keeps one error, in the mapping if there is one.
void note_memory_error(const std::string &text);

// True if nothing was written behind the block.
bool guard_intact(const void *block, size_t size);

}  // namespace standin
