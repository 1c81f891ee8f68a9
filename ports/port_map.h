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

#include "host/message_text.h"
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

// One lock over all four maps.
extern tarn_lock *port_map_lock;

struct port_m {
  int32_t min_port;
  int32_t max_port;
  // What the next ordinary allocation hands out; NO_PORT when none is free.
  int32_t next_free_port GUARDED_BY(port_map_lock);
  uint32_t refused_requests;  // that found no free port; atomic
  // The byte of port p stands at p - min_port.
  uint8_t *port_map PT_GUARDED_BY(port_map_lock);
  private_range_ports **private_range;  // null until the first range; a place may be null
  int32_t private_range_count;
};

struct port_bounds {
  int32_t min;
  int32_t max;
};

// Module parameters.
struct port_parameters {
  const char *private_ranges_file_path;
  port_bounds internal;
  port_bounds external;
  port_bounds static_internal;
  port_bounds static_external;
};
extern port_parameters port_settings;

// The maps, in shared memory; null before init_port_maps.
extern port_m *port_m_int;
extern port_m *port_m_ext;
extern port_m *port_m_static_int;
extern port_m *port_m_static_ext;

// A map, the word and the texts that it goes by, and its bounds. Everything that treats the maps
// alike walks port_map_kinds, in this order.
struct port_map_kind {
  port_m **map;
  const char *word;  // in scripts and in the private range file
  const port_bounds *bounds;
  message_text<> no_map;
  message_text<> no_entries;
  message_text<int, int, int, const char *> info;  // bounds, next port, whether there are ranges
};
extern const port_map_kind port_map_kinds[4];

// The map that the word names, or null.
port_m *port_map_by_word(std::string_view word);

// Counts of a map's ports, as they are while others take and give back: taken ones, and free ones
// that aren't set aside.
struct port_counts {
  int64_t taken;
  int64_t free;
};
port_counts count_ports(const port_m *m);

// One more request that found no free port.
void count_refused_request(port_m *m);

inline bool is_port_in_range(const port_m *m, int32_t port) {
  return m->min_port <= port && port <= m->max_port;
}

// For the compiler's check of lock rules: the code that follows is the only process's, at the start
// before the host forks.
inline void alone_with_port_maps() COUNTS_AS_LOCKED(port_map_lock) {}

// The same for code that works on the maps without their lock while the server runs: a row's port
// is taken and given back under the lock of its table alone, and tarn_memdb_free_port gives one
// back under none. A release can race with an allocation, which is known and kept.
inline void beside_port_map_lock() COUNTS_AS_LOCKED(port_map_lock) {}

// The byte of a port that is in range.
inline uint8_t *port_entry(const port_m *m, int32_t port) NEEDS_LOCK(port_map_lock) {
  return &m->port_map[static_cast<int64_t>(port) - m->min_port];
}

inline std::span<private_range_ports *> private_ranges(const port_m *m) {
  if (m->private_range == nullptr) return {};
  return {m->private_range, static_cast<size_t>(m->private_range_count)};
}

// Makes the maps and their lock and reads the private ranges. False, logged, with what was made
// left in place, if memory is short or bounds make no map. Runs before the host forks.
bool init_port_maps();

// Frees every port of every map, private marks included, and starts allocation anew. The private
// ranges stay listed. Takes port_map_lock.
void clear_port_maps() WITHOUT_LOCK(port_map_lock);

// Frees maps and lock; nothing if there is no lock. Takes port_map_lock.
void destroy_port_maps();
