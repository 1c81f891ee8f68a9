// The stand-in's two allocators: what the module gets through _pkg_root and _shm_root. Every block
// is tracked with the place of its allocation, and any allocation can be made to fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace standin {

// A pool, or (where a function says so) both of them.
enum class pool { pkg, shm, both };

// One block that is live.
struct block_info {
  const void *address;
  size_t size;
  std::string file;
  unsigned int line;
  std::string func;
  std::string owner;  // the name the caller gave; "core" for blocks made by the stand-in itself
  uint64_t serial;    // grows with every allocation of either pool
};

// Number of live blocks, and the sum of the sizes asked for. Takes pool::both too.
size_t live_count(pool which);
size_t live_bytes(pool which);

// All live blocks, oldest first. Takes pool::both too. With an owner, only blocks of that owner.
std::vector<block_info> live_blocks(pool which);
std::vector<block_info> live_blocks(pool which, const std::string &owner);

// The live blocks as text, one line each with size, file, line and function; empty without any.
// The two-argument form tells only blocks made after the one with that serial number.
std::string leak_report(pool which);
std::string leak_report(pool which, uint64_t after_serial);

// Serial number of the youngest allocation so far, for leak_report.
uint64_t last_serial();

// What went wrong with blocks so far: a block freed twice, a pointer that no pool knows, a block
// given to the wrong pool, bytes written behind a block (found when it is freed or checked; left to
// AddressSanitizer where that is on), a call with a block argument that isn't the pool's own.
// With a shared mapping the errors of forked processes are told too.
std::vector<std::string> memory_errors();
void clear_memory_errors();

// Looks at all live blocks for bytes written behind them, and records what it finds.
void check_blocks();

// True if the pools themselves watch the bytes behind their blocks; false if AddressSanitizer does.
bool guards_blocks();

// Allocation calls (xmalloc, xmallocxz, growing or shrinking xrealloc) since the last
// reset_allocation_count, failed ones included. Takes pool::both too.
uint64_t allocation_count(pool which);
void reset_allocation_count();

// Makes the n-th allocation from now fail, once; n counts from 1. pool::both counts over both.
void fail_at(pool which, uint64_t n);

// Makes every allocation from the n-th on fail, until stop_failing.
void fail_from(pool which, uint64_t n);

// Drops all that fail_at and fail_from asked for.
void stop_failing();

// Number of allocations failed by injection (or by a full mapping) since the last reset.
uint64_t failed_allocations();

// What the shared pool tells of its free bytes from now on, whatever it has; more than anybody
// takes until then. Undone by reset.
void tell_available(size_t bytes);

// From now on shared blocks live in one mapping of that many bytes, which forked processes share.
// Needs a shared pool without live blocks; false if that isn't so or the mapping can't be had.
// Blocks there aren't watched by AddressSanitizer; bytes behind them are checked when they are
// freed. The failure injection and the counters of calls are each process's own. Undone by reset.
bool use_shared_mapping(size_t bytes);

// A piece of the pools' private memory on behalf of the host itself (owner "core"), as the host's
// own functions take it. For the stand-in's other parts and for tests.
void *core_pkg_malloc(size_t size, const char *func, unsigned int line);
void core_pkg_free(void *block);

// Frees every live block of both pools, forgets errors and counters, drops injected failures and
// the shared mapping. Part of reset().
void reset_memory();

// Copies what the tracker knows only as pointers into a module's image (file and function names);
// called before the image goes.
void keep_block_names();

}  // namespace standin
