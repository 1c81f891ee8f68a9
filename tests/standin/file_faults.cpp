// Definitions under the C library's own names (by assembler labels, so that its headers' inline
// versions and checks don't meet them) that count, fail or pass on.
#undef _FORTIFY_SOURCE
#include "tests/standin/file_faults.h"

#include <dlfcn.h>
#include <stdio_ext.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

#include "tests/standin/calls.h"

namespace standin {
namespace {

struct op_plan {
  int count = 0;
  int once = 0;
  int from = 0;
  int error = 0;
};

struct watch_state {
  std::string prefix;
  std::map<std::string, op_plan> plans;
  std::vector<std::string> history;
  std::map<int, FILE *> streams;  // by descriptor
};

// Null until a test watches, so that calls before main touch nothing of this.
watch_state *watching;

// True while this file itself runs, so that what it calls isn't counted.
bool inside;

template <typename F>
F next(const char *name) {
  void *found = dlsym(RTLD_NEXT, name);
  F out = nullptr;
  static_assert(sizeof(out) == sizeof(found));
  memcpy(&out, &found, sizeof(out));
  return out;
}

bool active() { return watching != nullptr && !inside; }

bool watched(const char *path) {
  return active() && path != nullptr &&
         strncmp(path, watching->prefix.c_str(), watching->prefix.size()) == 0;
}

bool watched(FILE *stream) {
  if (!active() || watching->streams.empty() || stream == nullptr) return false;
  for (const auto &entry : watching->streams)
    if (entry.second == stream) return true;
  return false;
}

bool counted_out(const char *name, int *error) {
  op_plan &plan = watching->plans[name];
  ++plan.count;
  const bool now = plan.once == plan.count;
  if (now) plan.once = 0;
  if (!now && (plan.from == 0 || plan.count < plan.from)) return false;
  *error = plan.error;
  return true;
}

bool is_write(const char *op) {
  return strcmp(op, "fprintf") == 0 || strcmp(op, "fputs") == 0 || strcmp(op, "fputc") == 0 ||
         strcmp(op, "fwrite") == 0;
}

// Counts the operation; true, with errno set, if it has to fail.
bool must_fail(const char *op, const char *path = nullptr, const char *other = nullptr) {
  ahead_of_step();
  inside = true;
  int error = 0;
  bool failing = counted_out(op, &error);
  if (counted_out("any", &error)) failing = true;
  if (is_write(op) && counted_out("write", &error)) failing = true;
  std::string told = op;
  for (const char *part : {path, other})
    if (part != nullptr) told += std::string(" ") + part;
  watching->history.push_back(told + (failing ? " (failed)" : ""));
  inside = false;
  if (failing) errno = error;
  return failing;
}

bool file_fails(const char *op, int descriptor) {
  return active() && watching->streams.count(descriptor) != 0 && must_fail(op);
}

bool stream_fails(const char *op, FILE *stream) {
  if (!watched(stream) || !must_fail(op)) return false;
  stream->_flags |= _IO_ERR_SEEN;
  return true;
}

FILE *open_watched(FILE *stream) {
  if (stream != nullptr) {
    inside = true;
    watching->streams[fileno(stream)] = stream;
    inside = false;
  }
  return stream;
}

}  // namespace

void watch_files(const std::string &prefix) {
  inside = true;
  delete watching;
  watching = nullptr;
  if (!prefix.empty()) {
    watching = new watch_state;
    watching->prefix = prefix;
  }
  inside = false;
}

int file_ops(const std::string &op) { return watching != nullptr ? watching->plans[op].count : 0; }

void fail_file_op(const std::string &op, int n, int error) {
  if (watching == nullptr) return;
  op_plan &plan = watching->plans[op];
  plan.once = plan.count + n;
  plan.error = error;
}

void fail_file_ops_from(const std::string &op, int n, int error) {
  if (watching == nullptr) return;
  op_plan &plan = watching->plans[op];
  plan.from = plan.count + n;
  plan.error = error;
}

void stop_failing_files() {
  if (watching == nullptr) return;
  for (auto &entry : watching->plans) entry.second.once = entry.second.from = 0;
}

std::vector<std::string> file_history() {
  return watching != nullptr ? watching->history : std::vector<std::string>();
}

int open_streams() { return watching != nullptr ? static_cast<int>(watching->streams.size()) : 0; }

}  // namespace standin

using read_function = size_t (*)(void *, size_t, size_t, FILE *);
using write_function = size_t (*)(const void *, size_t, size_t, FILE *);

#define LABEL(name) __asm__(#name)
#define FORWARD(type, name, ...)                        \
  do {                                                  \
    static const auto real = standin::next<type>(name); \
    return real(__VA_ARGS__);                           \
  } while (false)

using standin::must_fail;
using standin::stream_fails;
using standin::watched;

extern "C" {

FILE *faulty_fopen(const char *path, const char *mode) LABEL(fopen);
FILE *faulty_fopen64(const char *path, const char *mode) LABEL(fopen64);
int faulty_fclose(FILE *stream) LABEL(fclose);
ssize_t faulty_getline(char **line, size_t *size, FILE *stream) LABEL(getline);
ssize_t faulty_getdelim(char **line, size_t *size, int end, FILE *stream) LABEL(getdelim);
ssize_t faulty_getdelim_(char **line, size_t *size, int end, FILE *stream) LABEL(__getdelim);
char *faulty_fgets(char *line, int size, FILE *stream) LABEL(fgets);
size_t faulty_fread(void *data, size_t size, size_t count, FILE *stream) LABEL(fread);
int faulty_fprintf(FILE *stream, const char *format, ...) LABEL(fprintf);
int faulty_fprintf_chk(FILE *stream, int flag, const char *format, ...) LABEL(__fprintf_chk);
int faulty_vfprintf(FILE *stream, const char *format, va_list list) LABEL(vfprintf);
int faulty_vfprintf_chk(FILE *stream, int, const char *format, va_list list) LABEL(__vfprintf_chk);
int faulty_fputs(const char *text, FILE *stream) LABEL(fputs);
int faulty_fputc(int c, FILE *stream) LABEL(fputc);
int faulty_putc(int c, FILE *stream) LABEL(putc);
size_t faulty_fwrite(const void *data, size_t size, size_t count, FILE *stream) LABEL(fwrite);
size_t faulty_fwrite_unlocked(const void *data, size_t size, size_t count, FILE *stream)
    LABEL(fwrite_unlocked);
int faulty_fflush(FILE *stream) LABEL(fflush);
int faulty_fsync(int descriptor) LABEL(fsync);
int faulty_fchmod(int descriptor, mode_t mode) LABEL(fchmod);
int faulty_rename(const char *from, const char *to) LABEL(rename);
int faulty_remove(const char *path) LABEL(remove);
int faulty_unlink(const char *path) LABEL(unlink);
int faulty_access(const char *path, int mode) LABEL(access);
long faulty_syscall(long number, long a, long b, long c, long d, long e, long f) LABEL(syscall);

FILE *faulty_fopen(const char *path, const char *mode) {
  static const auto real = standin::next<FILE *(*)(const char *, const char *)>("fopen");
  if (!watched(path)) return real(path, mode);
  return must_fail("fopen", path) ? nullptr : standin::open_watched(real(path, mode));
}

FILE *faulty_fopen64(const char *path, const char *mode) { return faulty_fopen(path, mode); }

int faulty_fclose(FILE *stream) {
  static const auto real = standin::next<int (*)(FILE *)>("fclose");
  if (!watched(stream)) return real(stream);
  const bool failing = must_fail("fclose");
  const int error = errno;
  standin::inside = true;
  standin::watching->streams.erase(fileno(stream));
  standin::inside = false;
  if (failing) __fpurge(stream);
  const int result = real(stream);
  if (!failing) return result;
  errno = error;
  return EOF;
}

ssize_t faulty_getline(char **line, size_t *size, FILE *stream) {
  if (stream_fails("getline", stream)) return -1;
  FORWARD(ssize_t(*)(char **, size_t *, FILE *), "getline", line, size, stream);
}

ssize_t faulty_getdelim(char **line, size_t *size, int end, FILE *stream) {
  if (stream_fails("getline", stream)) return -1;
  FORWARD(ssize_t(*)(char **, size_t *, int, FILE *), "getdelim", line, size, end, stream);
}

ssize_t faulty_getdelim_(char **line, size_t *size, int end, FILE *stream) {
  return faulty_getdelim(line, size, end, stream);
}

char *faulty_fgets(char *line, int size, FILE *stream) {
  if (stream_fails("fgets", stream)) return nullptr;
  FORWARD(char *(*)(char *, int, FILE *), "fgets", line, size, stream);
}

size_t faulty_fread(void *data, size_t size, size_t count, FILE *stream) {
  if (stream_fails("fread", stream)) return 0;
  FORWARD(read_function, "fread", data, size, count, stream);
}

int faulty_vfprintf(FILE *stream, const char *format, va_list list) {
  if (stream_fails("fprintf", stream)) return -1;
  FORWARD(int (*)(FILE *, const char *, va_list), "vfprintf", stream, format, list);
}

int faulty_vfprintf_chk(FILE *stream, int, const char *format, va_list list) {
  return faulty_vfprintf(stream, format, list);
}

int faulty_fprintf(FILE *stream, const char *format, ...) {
  va_list list;
  va_start(list, format);
  const int result = faulty_vfprintf(stream, format, list);
  va_end(list);
  return result;
}

int faulty_fprintf_chk(FILE *stream, int, const char *format, ...) {
  va_list list;
  va_start(list, format);
  const int result = faulty_vfprintf(stream, format, list);
  va_end(list);
  return result;
}

int faulty_fputs(const char *text, FILE *stream) {
  if (stream_fails("fputs", stream)) return EOF;
  FORWARD(int (*)(const char *, FILE *), "fputs", text, stream);
}

int faulty_fputc(int c, FILE *stream) {
  if (stream_fails("fputc", stream)) return EOF;
  FORWARD(int (*)(int, FILE *), "fputc", c, stream);
}

int faulty_putc(int c, FILE *stream) { return faulty_fputc(c, stream); }

size_t faulty_fwrite(const void *data, size_t size, size_t count, FILE *stream) {
  if (stream_fails("fwrite", stream)) return 0;
  FORWARD(write_function, "fwrite", data, size, count, stream);
}

size_t faulty_fwrite_unlocked(const void *data, size_t size, size_t count, FILE *stream) {
  if (stream_fails("fwrite", stream)) return 0;
  FORWARD(write_function, "fwrite_unlocked", data, size, count, stream);
}

int faulty_fflush(FILE *stream) {
  if (stream_fails("fflush", stream)) return EOF;
  FORWARD(int (*)(FILE *), "fflush", stream);
}

int faulty_fsync(int descriptor) {
  if (standin::file_fails("fsync", descriptor)) return -1;
  FORWARD(int (*)(int), "fsync", descriptor);
}

int faulty_fchmod(int descriptor, mode_t mode) {
  if (standin::file_fails("fchmod", descriptor)) return -1;
  FORWARD(int (*)(int, mode_t), "fchmod", descriptor, mode);
}

int faulty_rename(const char *from, const char *to) {
  if ((watched(from) || watched(to)) && must_fail("rename", from, to)) return -1;
  FORWARD(int (*)(const char *, const char *), "rename", from, to);
}

int faulty_remove(const char *path) {
  if (watched(path) && must_fail("remove", path)) return -1;
  FORWARD(int (*)(const char *), "remove", path);
}

int faulty_unlink(const char *path) {
  if (watched(path) && must_fail("unlink", path)) return -1;
  FORWARD(int (*)(const char *), "unlink", path);
}

int faulty_access(const char *path, int mode) {
  if (watched(path) && must_fail("access", path)) return -1;
  FORWARD(int (*)(const char *, int), "access", path, mode);
}

// Whatever a call has no use for is passed on as it stands.
long faulty_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const auto *const path = reinterpret_cast<const char *>(b);
  if (number == SYS_newfstatat && watched(path) && must_fail("stat", path)) return -1;
  if (number == SYS_fstat && standin::file_fails("fstat", static_cast<int>(a))) return -1;
  FORWARD(long (*)(long, long, long, long, long, long, long), "syscall", number, a, b, c, d, e, f);
}
}
