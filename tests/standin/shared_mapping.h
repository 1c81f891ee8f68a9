// The shared pool as one mapping that forked processes share: bump allocation with free lists by
// size, under one process-shared lock. For memory.cpp alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/standin/memory.h"

namespace standin {

// Makes the mapping, with block serials going on from first_serial. False if there is one already
// or it can't be had.
bool mapping_open(size_t bytes, uint64_t first_serial);
void mapping_close();
bool mapping_active();

// A block, or null when the mapping is full. The names have to outlive the mapping.
void *mapping_malloc(size_t size, const char *file, const char *func, unsigned int line,
                     const char *owner);
// Gives a block back; errors are noted, never fatal.
void mapping_free(void *block, const char *file, const char *func, unsigned int line);

// True for any address inside the mapping.
bool mapping_owns(const void *block);
// Size of a live block; SIZE_MAX if the address isn't one.
size_t mapping_block_size(const void *block);

size_t mapping_live_count();
uint64_t mapping_last_serial();
void mapping_collect(std::vector<block_info> &out);
void mapping_check();

// Errors noted by any process that shares the mapping; beyond a fixed number they are only counted.
void mapping_note(const char *text);
void mapping_errors(std::vector<std::string> &out);
void mapping_clear_errors();

}  // namespace standin
