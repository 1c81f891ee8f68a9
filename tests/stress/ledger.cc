// The shared mapping, and how deviations are told.
#include "tests/stress/ledger.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace stress {

ledger *book;

ledger *make_ledger() {
  void *const room = mmap(nullptr, sizeof(ledger), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return room == MAP_FAILED ? nullptr : static_cast<ledger *>(room);
}

void deviation(const char *format, ...) {
  constexpr int TOLD = 20;
  if (book->deviations++ >= TOLD) return;
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  fprintf(stderr, "stress: deviation (process %d): %s\n", static_cast<int>(getpid()), text);
}

}  // namespace stress
