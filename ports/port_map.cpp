// Making, clearing and freeing the port maps.
#include "ports/port_map.h"

#include <atomic>
#include <cstring>
#include <limits>

#include "host/log.h"
#include "ports/private_ranges.h"
#include "tables/shared/shared_memory.h"

port_parameters port_settings = {
    .private_ranges_file_path = "/var/lib/sipserver/gw_private_range.txt",
    .internal = {21000, 21255},
    .external = {10000, 15000},
    .static_internal = {21000, 21255},
    .static_external = {9000, 9255},
};

port_m *port_m_int;
port_m *port_m_ext;
port_m *port_m_static_int;
port_m *port_m_static_ext;
tarn_lock *port_map_lock;

const port_map_kind port_map_kinds[4] = {
    {&port_m_int, "INT", &port_settings.internal,
     "Could not create port management in shared memory for internal range\n",
     "Could not allocate memory for port_m_int->port_map\n",
     "Dynamic Internal Range:\nMin port = %d; Max port = %d; Next free port = %d; Private Port Range = %s;"},
    {&port_m_ext, "EXT", &port_settings.external,
     "Could not create port management in shared memory for external range\n",
     "Could not allocate memory for port_m_ext->port_map\n",
     "Dynamic External Range:\nMin port = %d; Max port = %d; Next free port = %d; Private Port Range = %s;"},
    {&port_m_static_int, "STATIC_INT", &port_settings.static_internal,
     "Could not create port management in shared memory for internal range for static endpoint\n",
     "Could not allocate memory for port_m_static_int->port_map\n",
     "Static Internal Range:\nMin port = %d; Max port = %d; Next free port = %d; Private Port Range = %s;"},
    {&port_m_static_ext, "STATIC_EXT", &port_settings.static_external,
     "Could not create port management in shared memory for external range for static endpoint\n",
     "Could not allocate memory for port_m_static_ext->port_map\n",
     "Static External Range:\nMin port = %d; Max port = %d; Next free port = %d; Private Port Range = %s;"},
};

namespace {

size_t map_size(const port_m *m) {
  return static_cast<size_t>(int64_t{m->max_port} - m->min_port + 1);
}

// False if memory is short, or if the bounds give a count that 32 bits can't hold or that is
// negative. Bounds that meet back to front, the upper one below the lower by one, are a map of no
// ports.
bool make_entries(port_m *m) {
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

// A byte of a map is whole at any time, so the lock would add nothing but waiting.
port_counts count_ports(const port_m *m) UNCHECKED_LOCKING {
  port_counts counts{};
  for (const uint8_t entry : std::span(m->port_map, map_size(m))) {
    if ((entry & PORT_IN_USE) != 0) counts.taken++;
    if ((entry & (PORT_IN_USE | PORT_PRIVATE)) == 0) counts.free++;
  }
  return counts;
}

void count_refused_request(port_m *m) {
  std::atomic_ref(m->refused_requests).fetch_add(1, std::memory_order_relaxed);
}

bool init_port_maps() {
  alone_with_port_maps();
  for (const port_map_kind &kind : port_map_kinds) {
    *kind.map = static_cast<port_m *>(tarn_shm_calloc(1, sizeof(port_m)));
    if (*kind.map == nullptr) {
      LM_TEXT(L_INFO, kind.no_map);
      return false;
    }
  }
  for (const port_map_kind &kind : port_map_kinds) {
    port_m *const m = *kind.map;
    m->max_port = kind.bounds->max;
    m->min_port = kind.bounds->min;
    m->next_free_port = m->min_port;
    if (!make_entries(m)) {
      LM_TEXT(L_INFO, kind.no_entries);
      return false;
    }
  }
  port_map_lock = generate_lock();
  if (port_map_lock == nullptr) {
    LM_INFO("Could not initialize port map lock\n");
    return false;
  }
  // A server without private ranges has no such file.
  load_port_range();
  return true;
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
  tarn_shm_free(port_map_lock);
  port_map_lock = nullptr;
}
