// The four port maps: which ports of a range are taken, by how many rows, and which are set aside.
//
// A map has one byte per port:
//
//   bits 0-5  use_count  rows that hold the port, a signed number of six bits
//   bit  6    private    the port stands in a private range
//   bit  7    in_use     the port is taken
//
// A port is free when in_use is clear. A port that a script took and no row holds is 0x80, one that
// a row holds 0x81. Maps are never stored; the load of the tables rebuilds what rows hold.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "tables/shared/lock.h"

inline constexpr int32_t NO_PORT = -1;
inline constexpr int PRIVATE_RANGE_PORTS = 10;

inline constexpr uint8_t PORT_USE_COUNT = 0x3F;
inline constexpr uint8_t PORT_PRIVATE = 0x40;
inline constexpr uint8_t PORT_IN_USE = 0x80;

// Ports set aside: the base port, by which the range is found, and up to nine that it gives out,
// ended by NO_PORT. One place more than the ports ends a range that is full.
struct private_range_ports {
  int32_t port[PRIVATE_RANGE_PORTS + 1];
};

struct port_m {
  int32_t min_port;
  int32_t max_port;
  int32_t next_free_port;  // what the next ordinary allocation hands out; NO_PORT when none is free
  uint8_t *port_map;       // the byte of port p stands at p - min_port
  private_range_ports **private_range;  // null until the first range; a place may be null
  int32_t private_range_count;
};

// Module parameters.
extern const char *private_ranges_file_path;
extern int32_t g_min_int_port;
extern int32_t g_max_int_port;
extern int32_t g_min_ext_port;
extern int32_t g_max_ext_port;
extern int32_t g_min_static_int_port;
extern int32_t g_max_static_int_port;
extern int32_t g_min_static_ext_port;
extern int32_t g_max_static_ext_port;

// The maps, in shared memory; null before init_port_map.
extern port_m *port_m_int;
extern port_m *port_m_ext;
extern port_m *port_m_static_int;
extern port_m *port_m_static_ext;

// One lock over all four maps.
extern tarn_lock *port_map_lock;

// A map, the words that it goes by, and its bounds. Everything that treats the maps alike walks
// port_map_kinds, in this order.
struct port_map_kind {
  port_m **map;
  const char *word;    // in scripts and in the private range file
  const char *global;  // in messages
  const char *range;   // in messages of the start
  const char *title;   // in the operator's view
  const int32_t *min_port;
  const int32_t *max_port;
};
extern const port_map_kind port_map_kinds[4];

// The map that the word names, or null.
port_m *port_map_by_word(std::string_view word);

inline bool is_port_in_range(const port_m *m, int32_t port) {
  return m->min_port <= port && port <= m->max_port;
}

// The byte of a port that is in range.
inline uint8_t *port_entry(const port_m *m, int32_t port) {
  return &m->port_map[static_cast<int64_t>(port) - m->min_port];
}

inline std::span<private_range_ports *> private_ranges(const port_m *m) {
  if (m->private_range == nullptr) return {};
  return {m->private_range, static_cast<size_t>(m->private_range_count)};
}

// Makes maps and lock and reads the private ranges. 0, or -1 with what was made left in place.
// Runs before the host forks.
int32_t init_port_map();

// Makes port_map_lock. 0 or -1.
int32_t init_port_map_lock();

// Frees every port of every map, private marks included, and starts allocation anew. The private
// ranges stay listed. Takes port_map_lock.
void clear_port_maps();

// Frees maps and lock; nothing if there is no lock. Takes port_map_lock.
void destroy_port_maps();

// Frees port_map_lock.
void destroy_port_map_lock();
