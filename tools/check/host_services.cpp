// Every symbol of the host that the reading code needs.
#include "tools/check/host_services.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "host/imports.h"

namespace {

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
  return malloc(size);
}

void *reallocate(void *, void *block, size_t size, const char *, const char *, unsigned int,
                 const char *) {
  return realloc(block, size);
}

void release(void *, void *block, const char *, const char *, unsigned int, const char *) {
  free(block);
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
    .xmallocxz = allocate,
    .xrealloc = reallocate,
    .xreallocxf = nullptr,
    .xfree = release,
    .unused = {},
};

sr_shm_api_t _shm_root = {
    .mname = nullptr,
    .mem_pool = nullptr,
    .mem_block = nullptr,
    .xmalloc = allocate,
    .xmallocxz = allocate,
    .xmalloc_unsafe = nullptr,
    .xrealloc = reallocate,
    .xreallocxf = nullptr,
    .xresize = nullptr,
    .xfree = release,
    .xfree_unsafe = nullptr,
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

std::string take_reason() {
  std::string reason;
  for (const std::string &message : take_messages()) {
    if (!reason.empty()) reason += "; ";
    reason += message;
  }
  return reason;
}
