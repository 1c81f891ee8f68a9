// What the embedder gives the engine.
#pragma once

#include <cstddef>
#include <cstdint>

// Hooks, read at every use, to be set before the first table is made.
extern void *(*memdb_malloc)(size_t size);
extern void *(*memdb_calloc)(size_t count, size_t size);
extern void (*memdb_free)(void *block);  // accepts null
// Asked ahead of each block for something that a table can do without, a directory or a look-up:
// false does without. For an allocator that tells of its own failures. Null says yes to all.
extern bool (*memdb_may_take)(size_t size);
// Gives back a block that nothing in a table leads to any more, a row or a part of an index, by
// memdb_free if nothing else is set. For a caller whose readers take no lock, and so may be in it
// still: they read all of it but the first 8 bytes. Never called with null.
extern void (*memdb_retire)(void *block);
extern uint32_t (*memdb_hash_str)(const char *text);
extern void (*memdb_log_err)(const char *message);  // may be null
extern uint32_t memdb_idx_len;                      // buckets per index of tables made from now on

// Blocks of memdb_malloc and memdb_calloc for something that a table can do without; null if there
// is none or memdb_may_take is against it.
inline void *memdb_malloc_extra(size_t size) {
  return memdb_may_take == nullptr || memdb_may_take(size) ? memdb_malloc(size) : nullptr;
}
inline void *memdb_calloc_extra(size_t size) {
  return memdb_may_take == nullptr || memdb_may_take(size) ? memdb_calloc(1, size) : nullptr;
}
