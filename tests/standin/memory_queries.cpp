// What tests ask of the allocators, and what they ask them to do.
#include <algorithm>
#include <cstdlib>

#include "host/imports.h"
#include "tests/standin/memory_state.h"

namespace standin {
namespace {

void collect(pool which, std::vector<block_info> &out) {
  for (const auto &[address, block] : memory().live[index_of(which)])
    out.push_back({address, block.size, block.file != nullptr ? block.file : "", block.line,
                   block.func != nullptr ? block.func : "",
                   block.owner != nullptr ? block.owner : "", block.serial});
  if (in_mapping(which)) mapping_collect(out);
}

}  // namespace

size_t live_count(pool which) {
  if (which == pool::both) return live_count(pool::pkg) + live_count(pool::shm);
  return memory().live[index_of(which)].size() + (in_mapping(which) ? mapping_live_count() : 0);
}

size_t live_bytes(pool which) {
  size_t sum = 0;
  for (const block_info &block : live_blocks(which)) sum += block.size;
  return sum;
}

std::vector<block_info> live_blocks(pool which) {
  std::vector<block_info> out;
  if (which != pool::shm) collect(pool::pkg, out);
  if (which != pool::pkg) collect(pool::shm, out);
  std::sort(out.begin(), out.end(),
            [](const block_info &a, const block_info &b) { return a.serial < b.serial; });
  return out;
}

std::vector<block_info> live_blocks(pool which, const std::string &owner) {
  std::vector<block_info> out = live_blocks(which);
  out.erase(std::remove_if(out.begin(), out.end(),
                           [&](const block_info &block) { return block.owner != owner; }),
            out.end());
  return out;
}

std::string leak_report(pool which) { return leak_report(which, 0); }

std::string leak_report(pool which, uint64_t after_serial) {
  std::string out;
  for (const block_info &block : live_blocks(which)) {
    if (block.serial <= after_serial) continue;
    out += std::to_string(block.size) + " bytes by " + block.owner + " at " + block.file + ":" +
           std::to_string(block.line) + " " + block.func + "\n";
  }
  return out;
}

uint64_t last_serial() {
  return std::max(memory().serial, mapping_active() ? mapping_last_serial() : 0);
}

std::vector<std::string> memory_errors() {
  std::vector<std::string> out = memory().errors;
  if (mapping_active()) mapping_errors(out);
  return out;
}

void clear_memory_errors() {
  memory().errors.clear();
  if (mapping_active()) mapping_clear_errors();
}

void check_blocks() {
  for (const pool which : {pool::pkg, pool::shm})
    for (const auto &[address, block] : memory().live[index_of(which)])
      if (!guard_intact(address, block.size))
        note_memory_error(std::string(name_of(which)) +
                          ": bytes written behind the live block of " +
                          place(block.file, block.line, block.func));
  if (mapping_active()) mapping_check();
}

bool guards_blocks() { return GUARD_BYTES != 0; }

uint64_t allocation_count(pool which) {
  return memory().plans[index_of(which)].calls - memory().counted_from[index_of(which)];
}

void reset_allocation_count() {
  for (size_t i = 0; i < 3; ++i) memory().counted_from[i] = memory().plans[i].calls;
}

void fail_at(pool which, uint64_t n) {
  failure_plan &plan = memory().plans[index_of(which)];
  plan.once = plan.calls + n;
}

void fail_from(pool which, uint64_t n) {
  failure_plan &plan = memory().plans[index_of(which)];
  plan.from = plan.calls + n;
}

void stop_failing() {
  for (failure_plan &plan : memory().plans) plan.once = plan.from = 0;
}

uint64_t failed_allocations() { return memory().failed; }

void tell_available(size_t bytes) { memory().shm_available = bytes; }

bool use_shared_mapping(size_t bytes) {
  return live_count(pool::shm) == 0 && mapping_open(bytes, last_serial());
}

void *core_pkg_malloc(size_t size, const char *func, unsigned int line) {
  return _pkg_root.xmalloc(_pkg_root.mem_block, size, "core", func, line, "core");
}

void core_pkg_free(void *block) {
  _pkg_root.xfree(_pkg_root.mem_block, block, "core", "core", 0, "core");
}

void reset_memory() {
  memory_state &s = memory();
  mapping_close();
  for (auto &live : s.live) {
    for (const auto &block : live) free(const_cast<void *>(block.first));
    live.clear();
  }
  s.freed.clear();
  s.errors.clear();
  s.failed = 0;
  s.shm_available = PTRDIFF_MAX;
  for (failure_plan &plan : s.plans) plan = {};
  for (uint64_t &start : s.counted_from) start = 0;
}

void keep_block_names() {
  memory_state &s = memory();
  const auto kept = [&s](const char *text) {
    return text != nullptr ? s.names.insert(text).first->c_str() : nullptr;
  };
  for (auto *blocks : {&s.live[0], &s.live[1], &s.freed})
    for (auto &entry : *blocks) {
      entry.second.file = kept(entry.second.file);
      entry.second.func = kept(entry.second.func);
      entry.second.owner = kept(entry.second.owner);
    }
}

}  // namespace standin
