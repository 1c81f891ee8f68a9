// The tracked allocators behind _pkg_root and _shm_root, over malloc so that sanitizers see errors.
#include "tests/standin/memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "host/imports.h"
#include "tests/standin/shared_mapping.h"

#if defined(__SANITIZE_ADDRESS__)
#define STANDIN_GUARD_BYTES 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define STANDIN_GUARD_BYTES 0
#endif
#endif
#ifndef STANDIN_GUARD_BYTES
#define STANDIN_GUARD_BYTES 16
#endif

namespace standin {
namespace {

constexpr unsigned char FRESH = 0xA5;  // so that code that counts on zeros is seen
constexpr unsigned char FREED = 0xDD;  // so that code that reads freed blocks is seen
constexpr unsigned char GUARD = 0xFD;

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
  uint64_t counted_from[3] = {};
};

memory_state &state() {
  static memory_state &only = *new memory_state;
  return only;
}

size_t index_of(pool which) { return static_cast<size_t>(which); }
const char *name_of(pool which) { return which == pool::pkg ? "pkg" : "shm"; }
bool in_mapping(pool which) { return which == pool::shm && mapping_active(); }

char pkg_tag, shm_tag;
void *tag_of(pool which) { return which == pool::pkg ? &pkg_tag : &shm_tag; }

void note(const std::string &text) {
  if (mapping_active())
    mapping_note(text.c_str());
  else
    state().errors.push_back(text);
}

std::string place(const char *file, unsigned int line, const char *func) {
  return std::string(file != nullptr ? file : "?") + ":" + std::to_string(line) + " " +
         (func != nullptr ? func : "?");
}

bool guard_intact(const void *block, size_t size) {
  const unsigned char *end = static_cast<const unsigned char *>(block) + size;
  return std::all_of(end, end + STANDIN_GUARD_BYTES, [](unsigned char c) { return c == GUARD; });
}

bool counted_out(failure_plan &plan) {
  ++plan.calls;
  if (plan.once == plan.calls) {
    plan.once = 0;
    return true;
  }
  return plan.from != 0 && plan.calls >= plan.from;
}

bool must_fail(pool which) {
  memory_state &s = state();
  const bool own = counted_out(s.plans[index_of(which)]);
  const bool both = counted_out(s.plans[index_of(pool::both)]);
  if (own || both) ++s.failed;
  return own || both;
}

void check_tag(pool which, const void *tag, const char *file, const char *func, unsigned int line) {
  if (tag != tag_of(which))
    note(std::string(name_of(which)) + ": called with a block argument that isn't the pool's at " +
         place(file, line, func));
}

void *make_block(pool which, size_t size, const char *file, const char *func, unsigned int line,
                 const char *owner) {
  memory_state &s = state();
  if (in_mapping(which)) {
    void *block = mapping_malloc(size, file, func, line, owner);
    if (block == nullptr)
      ++s.failed;
    else
      memset(block, FRESH, size);
    return block;
  }
  if (size > SIZE_MAX / 2) {
    ++s.failed;
    return nullptr;
  }
  void *block = malloc(size + STANDIN_GUARD_BYTES > 0 ? size + STANDIN_GUARD_BYTES : 1);
  if (block == nullptr) {
    ++s.failed;
    return nullptr;
  }
  memset(block, FRESH, size);
  memset(static_cast<char *>(block) + size, GUARD, STANDIN_GUARD_BYTES);
  s.freed.erase(block);
  s.live[index_of(which)][block] = {size, file, func, owner, line, ++s.serial};
  return block;
}

void drop_block(pool which, void *block, const char *file, const char *func, unsigned int line) {
  memory_state &s = state();
  if (in_mapping(which) && mapping_owns(block)) {
    mapping_free(block, file, func, line);
    return;
  }
  auto &live = s.live[index_of(which)];
  const auto found = live.find(block);
  if (found != live.end()) {
    if (!guard_intact(block, found->second.size))
      note(std::string(name_of(which)) + ": bytes written behind the block of " +
           place(found->second.file, found->second.line, found->second.func) + ", freed at " +
           place(file, line, func));
    memset(block, FREED, found->second.size);
    s.freed[block] = found->second;
    live.erase(found);
    free(block);
    return;
  }
  const pool other = which == pool::pkg ? pool::shm : pool::pkg;
  const bool others = s.live[index_of(other)].count(block) != 0 ||
                      (other == pool::shm && mapping_active() && mapping_owns(block));
  const char *what = others                      ? ": free of a block of the other pool at "
                     : s.freed.count(block) != 0 ? ": block freed twice at "
                     : block == nullptr          ? ": free of null at "
                                                 : ": free of an unknown pointer at ";
  note(std::string(name_of(which)) + what + place(file, line, func));
}

size_t size_of(pool which, void *block) {
  if (in_mapping(which) && mapping_owns(block)) return mapping_block_size(block);
  const auto &live = state().live[index_of(which)];
  const auto found = live.find(block);
  return found != live.end() ? found->second.size : SIZE_MAX;
}

template <pool which>
void *pool_malloc(void *tag, size_t size, const char *file, const char *func, unsigned int line,
                  const char *owner) {
  check_tag(which, tag, file, func, line);
  return must_fail(which) ? nullptr : make_block(which, size, file, func, line, owner);
}

template <pool which>
void *pool_mallocxz(void *tag, size_t size, const char *file, const char *func, unsigned int line,
                    const char *owner) {
  void *block = pool_malloc<which>(tag, size, file, func, line, owner);
  if (block != nullptr) memset(block, 0, size);
  return block;
}

template <pool which>
void pool_free(void *tag, void *block, const char *file, const char *func, unsigned int line,
               const char *) {
  check_tag(which, tag, file, func, line);
  drop_block(which, block, file, func, line);
}

// Always moves the block, so that a pointer kept to the old place is seen.
template <pool which>
void *pool_realloc(void *tag, void *block, size_t size, const char *file, const char *func,
                   unsigned int line, const char *owner) {
  if (block == nullptr) return pool_malloc<which>(tag, size, file, func, line, owner);
  if (size == 0) {
    pool_free<which>(tag, block, file, func, line, owner);
    return nullptr;
  }
  check_tag(which, tag, file, func, line);
  if (must_fail(which)) return nullptr;
  const size_t old_size = size_of(which, block);
  if (old_size == SIZE_MAX) {
    note(std::string(name_of(which)) + ": realloc of a pointer that isn't live at " +
         place(file, line, func));
    return nullptr;
  }
  void *moved = make_block(which, size, file, func, line, owner);
  if (moved == nullptr) return nullptr;
  memcpy(moved, block, std::min(size, old_size));
  drop_block(which, block, file, func, line);
  return moved;
}

char pkg_name[] = "standin_pkg";
char shm_name[] = "standin_shm";

void collect(pool which, std::vector<block_info> &out) {
  for (const auto &[address, block] : state().live[index_of(which)])
    out.push_back({address, block.size, block.file != nullptr ? block.file : "", block.line,
                   block.func != nullptr ? block.func : "",
                   block.owner != nullptr ? block.owner : "", block.serial});
  if (in_mapping(which)) mapping_collect(out);
}

}  // namespace

size_t live_count(pool which) {
  if (which == pool::both) return live_count(pool::pkg) + live_count(pool::shm);
  return state().live[index_of(which)].size() + (in_mapping(which) ? mapping_live_count() : 0);
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
  return std::max(state().serial, mapping_active() ? mapping_last_serial() : 0);
}

std::vector<std::string> memory_errors() {
  std::vector<std::string> out = state().errors;
  if (mapping_active()) mapping_errors(out);
  return out;
}

void clear_memory_errors() {
  state().errors.clear();
  if (mapping_active()) mapping_clear_errors();
}

void check_blocks() {
  for (const pool which : {pool::pkg, pool::shm})
    for (const auto &[address, block] : state().live[index_of(which)])
      if (!guard_intact(address, block.size))
        note(std::string(name_of(which)) + ": bytes written behind the live block of " +
             place(block.file, block.line, block.func));
  if (mapping_active()) mapping_check();
}

uint64_t allocation_count(pool which) {
  return state().plans[index_of(which)].calls - state().counted_from[index_of(which)];
}

void reset_allocation_count() {
  for (size_t i = 0; i < 3; ++i) state().counted_from[i] = state().plans[i].calls;
}

void fail_at(pool which, uint64_t n) {
  failure_plan &plan = state().plans[index_of(which)];
  plan.once = plan.calls + n;
}

void fail_from(pool which, uint64_t n) {
  failure_plan &plan = state().plans[index_of(which)];
  plan.from = plan.calls + n;
}

void stop_failing() {
  for (failure_plan &plan : state().plans) plan.once = plan.from = 0;
}

uint64_t failed_allocations() { return state().failed; }

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
  memory_state &s = state();
  mapping_close();
  for (auto &live : s.live) {
    for (const auto &block : live) free(const_cast<void *>(block.first));
    live.clear();
  }
  s.freed.clear();
  s.errors.clear();
  s.failed = 0;
  for (failure_plan &plan : s.plans) plan = {};
  for (uint64_t &start : s.counted_from) start = 0;
}

void keep_block_names() {
  memory_state &s = state();
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

sr_pkg_api_t _pkg_root = {standin::pkg_name,
                          nullptr,
                          &standin::pkg_tag,
                          standin::pool_malloc<standin::pool::pkg>,
                          standin::pool_mallocxz<standin::pool::pkg>,
                          standin::pool_realloc<standin::pool::pkg>,
                          nullptr,
                          standin::pool_free<standin::pool::pkg>,
                          {}};

sr_shm_api_t _shm_root = {standin::shm_name,
                          nullptr,
                          &standin::shm_tag,
                          standin::pool_malloc<standin::pool::shm>,
                          standin::pool_mallocxz<standin::pool::shm>,
                          nullptr,
                          standin::pool_realloc<standin::pool::shm>,
                          nullptr,
                          nullptr,
                          standin::pool_free<standin::pool::shm>,
                          nullptr,
                          {}};
