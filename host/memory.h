// The host's two allocators: private to a process, and shared by all of the host's processes.
// The host's memory debugging is told the place of the call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/imports.h"

#define HOST_MEMORY_CALLER                                                      \
  const char *file = __builtin_FILE(), const char *func = __builtin_FUNCTION(), \
             unsigned int line = static_cast<unsigned int>(__builtin_LINE())

inline constexpr char HOST_MEMORY_OWNER[] = "tarn_memdb";

// Private block of size bytes, not cleared, or null.
inline void *pkg_malloc(size_t size, HOST_MEMORY_CALLER) {
  return _pkg_root.xmalloc(_pkg_root.mem_block, size, file, func, line, HOST_MEMORY_OWNER);
}

// Private block resized to size bytes, or null with the old block kept.
inline void *pkg_realloc(void *block, size_t size, HOST_MEMORY_CALLER) {
  return _pkg_root.xrealloc(_pkg_root.mem_block, block, size, file, func, line, HOST_MEMORY_OWNER);
}

// Gives a private block back; null is ignored.
inline void pkg_free(void *block, HOST_MEMORY_CALLER) {
  if (block != nullptr)
    _pkg_root.xfree(_pkg_root.mem_block, block, file, func, line, HOST_MEMORY_OWNER);
}

// Room for count records of type T in private memory, not cleared; null also when count records
// would pass the address space. No records give a valid block.
template <typename T>
T *pkg_array(size_t count, HOST_MEMORY_CALLER) {
  if (count > SIZE_MAX / sizeof(T)) return nullptr;
  return static_cast<T *>(pkg_malloc(count != 0 ? count * sizeof(T) : 1, file, func, line));
}

// The same three for memory that all processes share. Safe to call from any process at any time:
// the host's allocator has its own lock.
inline void *shm_malloc(size_t size, HOST_MEMORY_CALLER) {
  return _shm_root.xmalloc(_shm_root.mem_block, size, file, func, line, HOST_MEMORY_OWNER);
}

inline void *shm_realloc(void *block, size_t size, HOST_MEMORY_CALLER) {
  return _shm_root.xrealloc(_shm_root.mem_block, block, size, file, func, line, HOST_MEMORY_OWNER);
}

inline void shm_free(void *block, HOST_MEMORY_CALLER) {
  if (block != nullptr)
    _shm_root.xfree(_shm_root.mem_block, block, file, func, line, HOST_MEMORY_OWNER);
}

// Bytes of shared memory that are free, in pieces of any size; the greatest number from an
// allocator that can't tell. Costs the host's allocator its lock.
inline size_t shm_available() {
  return _shm_root.xavailable != nullptr ? _shm_root.xavailable(_shm_root.mem_block) : SIZE_MAX;
}

#undef HOST_MEMORY_CALLER

// Owns one private block and gives it back at the end of the scope.
template <typename T>
class pkg_owner {
 public:
  explicit pkg_owner(T *block = nullptr) : block_(block) {}
  ~pkg_owner() { pkg_free(block_); }
  pkg_owner(const pkg_owner &) = delete;
  pkg_owner &operator=(const pkg_owner &) = delete;

  T *get() const { return block_; }
  explicit operator bool() const { return block_ != nullptr; }
  T &operator[](size_t i) const { return block_[i]; }

  // Takes over another block, after giving the present one back.
  void reset(T *other) {
    pkg_free(block_);
    block_ = other;
  }

  // Hands the block to the caller.
  T *release() {
    T *const out = block_;
    block_ = nullptr;
    return out;
  }

 private:
  T *block_;
};
