// Taking, counting, releasing and finding ports of one map.
//
// Ordinary allocation is a pointer that climbs by one, and falls back to a first-fit scan from the
// bottom when it meets an obstacle. Ports of private ranges are given out by their base port only.
#pragma once

#include <cstdint>

#include "ports/port_map.h"

enum class port_result { done, no_map, out_of_range };

// Takes the port, whatever its entry holds, and moves the pointer on if it stood there. m may be
// null.
port_result set_port(port_m *m, int32_t port) NEEDS_LOCK(port_map_lock);

// Counts one more row on the port; the pointer stays. m may be null.
port_result increment_port_count(port_m *m, int32_t port) NEEDS_LOCK(port_map_lock);

// Gives back one holder, and frees the port with the last. done also for a port that stays held.
port_result free_port(port_m *m, int32_t port) NEEDS_LOCK(port_map_lock);

// Moves the pointer to the port above if that is free and not private, else to what find_free_port
// finds.
void update_next_free_port(port_m *m) NEEDS_LOCK(port_map_lock);

// True if the port is in range and free.
bool is_port_free(const port_m *m, int32_t port) NEEDS_LOCK(port_map_lock);

// True if the port is marked private in a map that has private ranges.
bool is_port_private(const port_m *m, int32_t port) NEEDS_LOCK(port_map_lock);

// The lowest port that is free and not private, or NO_PORT.
int32_t find_free_port(const port_m *m) NEEDS_LOCK(port_map_lock);

// The first free port behind the base port of the first range of that base. NO_PORT if there is no
// such range or no port left in it, 0 if the map has no ranges. Takes nothing.
int32_t find_free_port_in_range(const port_m *m, int32_t base) NEEDS_LOCK(port_map_lock);
