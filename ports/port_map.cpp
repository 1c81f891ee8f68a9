// Making, clearing and freeing the port maps.
#include "ports/port_map.h"

#include <cstring>
#include <limits>

#include "host/log.h"
#include "ports/private_ranges.h"
#include "tables/shared/shared_memory.h"

int32_t g_min_int_port = 21000;
int32_t g_max_int_port = 21255;
int32_t g_min_ext_port = 10000;
int32_t g_max_ext_port = 15000;
int32_t g_min_static_int_port = 21000;
int32_t g_max_static_int_port = 21255;
int32_t g_min_static_ext_port = 9000;
int32_t g_max_static_ext_port = 9255;

port_m *port_m_int;
port_m *port_m_ext;
port_m *port_m_static_int;
port_m *port_m_static_ext;
tarn_lock *port_map_lock;

const port_map_kind port_map_kinds[4] = {
    {&port_m_int, "INT", "port_m_int", "internal range", "Dynamic Internal Range", &g_min_int_port,
     &g_max_int_port},
    {&port_m_ext, "EXT", "port_m_ext", "external range", "Dynamic External Range", &g_min_ext_port,
     &g_max_ext_port},
    {&port_m_static_int, "STATIC_INT", "port_m_static_int", "internal range for static endpoint",
     "Static Internal Range", &g_min_static_int_port, &g_max_static_int_port},
    {&port_m_static_ext, "STATIC_EXT", "port_m_static_ext", "external range for static endpoint",
     "Static External Range", &g_min_static_ext_port, &g_max_static_ext_port},
};

namespace {

size_t map_size(const port_m *m) {
  return static_cast<size_t>(int64_t{m->max_port} - m->min_port + 1);
}

// False if memory is short, or if the bounds give a count that 32 bits can't hold or that is
// negative. Bounds that meet back to front, the upper one below the lower by one, are a map of no
// ports.
bool make_port_bytes(port_m *m) {
  const int64_t count = int64_t{m->max_port} - m->min_port + 1;
  if (count < 0 || count > std::numeric_limits<int32_t>::max()) return false;
  m->port_map = static_cast<uint8_t *>(tarn_shm_calloc(map_size(m), 1));
  return m->port_map != nullptr;
}

void destroy_map(port_m *m) {
  tarn_shm_free(m->port_map);
  free_private_ranges(m);
  tarn_shm_free(m);
}

}  // namespace

port_m *port_map_by_word(std::string_view word) {
  for (const port_map_kind &kind : port_map_kinds)
    if (word == kind.word) return *kind.map;
  return nullptr;
}

int32_t init_port_map() {
  for (const port_map_kind &kind : port_map_kinds) {
    *kind.map = static_cast<port_m *>(tarn_shm_calloc(1, sizeof(port_m)));
    if (*kind.map == nullptr) {
      LM_INFO("Could not create port management in shared memory for %s\n", kind.range);
      return -1;
    }
  }
  for (const port_map_kind &kind : port_map_kinds) {
    port_m *const m = *kind.map;
    m->max_port = *kind.max_port;
    m->min_port = *kind.min_port;
    m->next_free_port = m->min_port;
    if (!make_port_bytes(m)) {
      LM_INFO("Could not allocate memory for %s->port_map\n", kind.global);
      return -1;
    }
  }
  if (init_port_map_lock() != 0) {
    LM_INFO("Could not initialize port map lock\n");
    return -1;
  }
  load_port_range();
  return 0;
}

int32_t init_port_map_lock() {
  port_map_lock = generate_lock();
  return port_map_lock != nullptr ? 0 : -1;
}

void clear_port_maps() {
  const lock_scope lock(port_map_lock);
  for (const port_map_kind &kind : port_map_kinds) {
    port_m *const m = *kind.map;
    memset(m->port_map, 0, map_size(m));
    m->next_free_port = m->min_port;
  }
}

void destroy_port_maps() {
  if (port_map_lock == nullptr) return;
  {
    const lock_scope lock(port_map_lock);
    for (const port_map_kind &kind : port_map_kinds)
      if (*kind.map != nullptr) destroy_map(*kind.map);
  }
  destroy_port_map_lock();
}

void destroy_port_map_lock() {
  tarn_shm_free(port_map_lock);
  port_map_lock = nullptr;
}
