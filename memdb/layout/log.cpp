// The sink that stands until the embedder sets its own.
#include "memdb/layout/log.h"

#include <cstdarg>
#include <cstdio>

namespace {

__attribute__((format(printf, 3, 4))) void log_to_stderr(memdb_log_level level,
                                                         const memdb_log_site &site,
                                                         const char *fmt, ...) {
  fprintf(stderr, "%s: memdb [%s:%d]: %s(): ", level == memdb_log_level::err ? "ERROR" : "WARNING",
          site.file, site.line, site.function);
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
}

}  // namespace

void (*memdb_log_sink)(memdb_log_level level, const memdb_log_site &site, const char *fmt,
                       ...) = log_to_stderr;
