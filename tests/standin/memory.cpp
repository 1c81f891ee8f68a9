// The tracked allocators behind _pkg_root and _shm_root, over malloc so that sanitizers see errors.
#include "tests/standin/memory_state.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "host/imports.h"
#include "tests/standin/calls.h"

namespace standin {

constexpr unsigned char GUARD = 0xFD;

memory_state &memory() {
  static memory_state &only = *new memory_state;
  return only;
}

void note_memory_error(const std::string &text) {
  if (mapping_active())
    mapping_note(text.c_str());
  else
    memory().errors.push_back(text);
}

std::string place(const char *file, unsigned int line, const char *func) {
  return std::string(file != nullptr ? file : "?") + ":" + std::to_string(line) + " " +
         (func != nullptr ? func : "?");
}

bool guard_intact(const void *block, size_t size) {
  const unsigned char *end = static_cast<const unsigned char *>(block) + size;
  return std::all_of(end, end + GUARD_BYTES, [](unsigned char c) { return c == GUARD; });
}

namespace {

constexpr unsigned char FRESH = 0xA5;  // so that code that counts on zeros is seen
constexpr unsigned char FREED = 0xDD;  // so that code that reads freed blocks is seen

char pkg_tag, shm_tag;
void *tag_of(pool which) { return which == pool::pkg ? &pkg_tag : &shm_tag; }

bool counted_out(failure_plan &plan) {
  ++plan.calls;
  if (plan.once == plan.calls) {
    plan.once = 0;
    return true;
  }
  return plan.from != 0 && plan.calls >= plan.from;
}

bool must_fail(pool which) {
  ahead_of_step();
  memory_state &s = memory();
  const bool own = counted_out(s.plans[index_of(which)]);
  const bool both = counted_out(s.plans[index_of(pool::both)]);
  if (own || both) ++s.failed;
  return own || both;
}

void check_tag(pool which, const void *tag, const char *file, const char *func, unsigned int line) {
  if (tag != tag_of(which))
    note_memory_error(std::string(name_of(which)) +
                      ": called with a block argument that isn't the pool's at " +
                      place(file, line, func));
}

void *make_block(pool which, size_t size, const char *file, const char *func, unsigned int line,
                 const char *owner) {
  memory_state &s = memory();
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
  void *block = malloc(std::max<size_t>(size + GUARD_BYTES, 1));
  if (block == nullptr) {
    ++s.failed;
    return nullptr;
  }
  memset(block, FRESH, size);
  std::fill_n(static_cast<unsigned char *>(block) + size, GUARD_BYTES, GUARD);
  s.freed.erase(block);
  s.live[index_of(which)][block] = {size, file, func, owner, line, ++s.serial};
  return block;
}

void drop_block(pool which, void *block, const char *file, const char *func, unsigned int line) {
  ahead_of_step();
  memory_state &s = memory();
  if (in_mapping(which) && mapping_owns(block)) {
    mapping_free(block, file, func, line);
    return;
  }
  auto &live = s.live[index_of(which)];
  const auto found = live.find(block);
  if (found != live.end()) {
    if (!guard_intact(block, found->second.size))
      note_memory_error(std::string(name_of(which)) + ": bytes written behind the block of " +
                        place(found->second.file, found->second.line, found->second.func) +
                        ", freed at " + place(file, line, func));
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
  note_memory_error(std::string(name_of(which)) + what + place(file, line, func));
}

size_t size_of(pool which, void *block) {
  if (in_mapping(which) && mapping_owns(block)) return mapping_block_size(block);
  const auto &live = memory().live[index_of(which)];
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
    note_memory_error(std::string(name_of(which)) + ": realloc of a pointer that isn't live at " +
                      place(file, line, func));
    return nullptr;
  }
  void *moved = make_block(which, size, file, func, line, owner);
  if (moved == nullptr) return nullptr;
  memcpy(moved, block, std::min(size, old_size));
  drop_block(which, block, file, func, line);
  return moved;
}

unsigned long shm_available(void *tag) {
  check_tag(pool::shm, tag, __FILE__, __func__, __LINE__);
  return memory().shm_available;
}

char pkg_name[] = "standin_pkg";
char shm_name[] = "standin_shm";

}  // namespace

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
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr,
                          standin::shm_available,
                          {}};
