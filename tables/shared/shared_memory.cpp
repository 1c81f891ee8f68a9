// The engine's hooks on the host: shared memory, and the host's log.
#include "tables/shared/shared_memory.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "host/log.h"
#include "host/memory.h"
#include "memdb/memdb.h"
#include "tables/shared/read_section.h"

namespace {

// Room for any engine message but those on values from a file, whose lines may be of any length.
constexpr size_t ENGINE_MESSAGE_SIZE = 4096 + 128;

__attribute__((format(printf, 3, 4))) void log_engine_message(memdb_log_level level,
                                                              const memdb_log_site &site,
                                                              const char *fmt, ...) {
  const int host_level = level == memdb_log_level::err ? L_ERR : L_WARN;
  if (!host_log_enabled(host_level)) return;
  char message[ENGINE_MESSAGE_SIZE];
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const auto size = static_cast<size_t>(vsnprintf(message, sizeof(message), fmt, args)) + 1;
  va_end(args);
  // Without memory, as much of it is told as there is room for.
  const pkg_owner<char> longer(size > sizeof(message) ? pkg_array<char>(size) : nullptr);
  if (longer) vsnprintf(longer.get(), size, fmt, again);
  va_end(again);
  HOST_LOG_AT(host_level, site.file, site.line, site.function, "%s",
              longer ? longer.get() : message);
}

// What is left has to be as much again: tables do without the block better than rows and the rest
// of the server without memory, and the host's allocators log each block that they haven't got.
bool may_take(size_t size) { return shm_available() / 2 >= size; }

}  // namespace

void *tarn_shm_malloc(size_t size) {
  // The host's allocators round sizes up, which would turn one near the limit into a small block.
  if (size > PTRDIFF_MAX) return nullptr;
  return shm_malloc(size != 0 ? size : 1);
}

void *tarn_shm_calloc(size_t count, size_t size) {
  size_t total;
  if (__builtin_mul_overflow(count, size, &total)) return nullptr;
  void *const block = tarn_shm_malloc(total);
  if (block != nullptr) memset(block, 0, total);
  return block;
}

void tarn_shm_free(void *block) { shm_free(block); }

void install_engine_hooks() {
  memdb_malloc = tarn_shm_malloc;
  memdb_calloc = tarn_shm_calloc;
  memdb_free = tarn_shm_free;
  memdb_may_take = may_take;
  memdb_retire = [](void *block) { retire_row(static_cast<memdb_row *>(block)); };
  memdb_log_sink = log_engine_message;
}
