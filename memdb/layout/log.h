// Where the engine's messages go. The engine knows no logger: whoever embeds it sets the sink.
#pragma once

enum class memdb_log_level { err, warn };

// Place in the engine's source at which a message arose.
struct memdb_log_site {
  const char *file;
  int line;
  const char *function;
};

// Receives every message. Set once before the first table is made; the default writes to stderr.
extern void (*memdb_log_sink)(memdb_log_level level, const memdb_log_site &site, const char *fmt,
                              ...) __attribute__((format(printf, 3, 4)));

#define MEMDB_LOG(level, ...) \
  memdb_log_sink(memdb_log_level::level, memdb_log_site{__FILE__, __LINE__, __func__}, __VA_ARGS__)
