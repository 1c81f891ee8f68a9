// Preloaded into a program: one of the steps by which it changes files is its last one, or fails.
//
// Steps are counted from 1: files made, writes, writes to the disk, second names, renames,
// removals. TARN_STEP names the one, and TARN_STEP_ERROR the errno that it fails with; without that
// the process is killed ahead of it. Without TARN_STEP all are counted, and their number goes to
// the file TARN_STEPS at the end.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

int steps;

int number_in(const char *name) {
  const char *const text = getenv(name);
  return text != nullptr ? atoi(text) : 0;
}

// True if this step is to fail.
bool fails() {
  if (++steps != number_in("TARN_STEP")) return false;
  const int error = number_in("TARN_STEP_ERROR");
  if (error == 0) raise(SIGKILL);
  errno = error;
  return true;
}

template <typename Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

__attribute__((destructor)) void tell() {
  const char *const path = getenv("TARN_STEPS");
  if (path == nullptr) return;
  FILE *const file = fopen(path, "w");
  if (file == nullptr) return;
  fprintf(file, "%d", steps);
  fclose(file);
}

}  // namespace

extern "C" {

int open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = va_arg(args, mode_t);
  va_end(args);
  if ((flags & O_CREAT) != 0 && fails()) return -1;
  return real<int(const char *, int, ...)>("open")(path, flags, mode);
}

ssize_t write(int file, const void *text, size_t size) {
  if (file > STDERR_FILENO && fails()) return -1;
  return real<ssize_t(int, const void *, size_t)>("write")(file, text, size);
}

int fsync(int file) { return fails() ? -1 : real<int(int)>("fsync")(file); }

int link(const char *from, const char *to) noexcept {
  return fails() ? -1 : real<int(const char *, const char *)>("link")(from, to);
}

int rename(const char *from, const char *to) noexcept {
  return fails() ? -1 : real<int(const char *, const char *)>("rename")(from, to);
}

int unlink(const char *path) noexcept {
  return fails() ? -1 : real<int(const char *)>("unlink")(path);
}
}
