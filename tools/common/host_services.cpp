// Every symbol of the host that the reading code needs.
#include "tools/common/host_services.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "host/imports.h"
#include "tools/common/shared_pool.h"

namespace {

// A mistyped number of columns mustn't take the machine's memory; no process of a server has so
// much.
constexpr size_t MOST_PRIVATE = size_t{1} << 30;

std::vector<std::string> messages;

void keep_message(ksr_logdata_t *, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char *text = nullptr;
  const int len = vasprintf(&text, fmt, args);
  va_end(args);
  if (len < 0) return;
  std::string message(text, static_cast<size_t>(len));
  free(text);
  while (!message.empty() && message.back() == '\n') message.pop_back();
  messages.push_back(message);
}

void *allocate(void *, size_t size, const char *, const char *, unsigned int, const char *) {
  return size <= MOST_PRIVATE ? malloc(size) : nullptr;
}

void *reallocate(void *, void *block, size_t size, const char *, const char *, unsigned int,
                 const char *) {
  return size <= MOST_PRIVATE ? realloc(block, size) : nullptr;
}

void release(void *, void *block, const char *, const char *, unsigned int, const char *) {
  free(block);
}

// Shared blocks remember their size, for the day on which they are given back.
union shared_block {
  size_t size;
  max_align_t behind;
};

void *allocate_shared(void *, size_t size, const char *, const char *, unsigned int, const char *) {
  if (!server_memory.take(size)) return nullptr;
  auto *const block = static_cast<shared_block *>(malloc(sizeof(shared_block) + size));
  if (block == nullptr) {
    server_memory.give_back(size);
    return nullptr;
  }
  block->size = size;
  return block + 1;
}

unsigned long shared_that_is_left(void *) { return server_memory.left(); }

void release_shared(void *, void *block, const char *, const char *, unsigned int, const char *) {
  auto *const whole = static_cast<shared_block *>(block) - 1;
  server_memory.give_back(whole->size);
  free(whole);
}

}  // namespace

extern "C" {

void (*_ksr_slog_func)(ksr_logdata_t *, const char *, ...) = keep_message;
void (*_km_log_func)(int, const char *, ...) = nullptr;
int log_stderr = 0;
int log_color = 0;
str *log_prefix_val = nullptr;
volatile int dprint_crit = 0;
int process_no = 0;

log_level_info_t log_level_info[] = {
    {"ALERT", 1},   {"BUG", 2},    {"CRITICAL", 2}, {"CRITICAL", 2}, {"ERROR", 3},
    {"WARNING", 4}, {"NOTICE", 5}, {"INFO", 6},     {"DEBUG", 7},
};

sr_pkg_api_t _pkg_root = {
    .mname = nullptr,
    .mem_pool = nullptr,
    .mem_block = nullptr,
    .xmalloc = allocate,
    .xmallocxz = nullptr,
    .xrealloc = reallocate,
    .xreallocxf = nullptr,
    .xfree = release,
    .unused = {},
};

sr_shm_api_t _shm_root = {
    .mname = nullptr,
    .mem_pool = nullptr,
    .mem_block = nullptr,
    .xmalloc = allocate_shared,
    .xmallocxz = nullptr,
    .xmalloc_unsafe = nullptr,
    .xrealloc = nullptr,
    .xreallocxf = nullptr,
    .xresize = nullptr,
    .xfree = release_shared,
    .xfree_unsafe = nullptr,
    .xstatus = nullptr,
    .xstatus_filter = nullptr,
    .xinfo = nullptr,
    .xreport = nullptr,
    .xavailable = shared_that_is_left,
    .unused = {},
};

int my_pid() { return 0; }
void dprint_color(int) {}
void dprint_color_reset() {}
int get_debug_level(const char *, int) { return L_WARN; }
int get_debug_facility(const char *, int) { return 0; }
}

std::vector<std::string> take_messages() {
  std::vector<std::string> out;
  out.swap(messages);
  return out;
}

std::string joined(const std::vector<std::string> &texts) {
  std::string out;
  for (const std::string &text : texts) {
    if (!out.empty()) out += "; ";
    out += text;
  }
  return out;
}
