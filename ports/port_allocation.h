// Taking, counting, releasing and finding ports of one map. The callers settle the locking.
//
// Ordinary allocation is a pointer that climbs by one, and falls back to a first-fit scan from the
// bottom when it meets an obstacle. Ports of private ranges are given out by their base port only.
#pragma once

#include <cstdint>

#include "ports/port_map.h"

// Takes the port, whatever its entry holds, and moves the pointer on if it stood there.
// 1, or -1 for a null map, or -2 for a port out of range.
int32_t set_port(port_m *m, int32_t port);

// Counts one more row on the port; the pointer stays. Results as set_port.
int32_t increment_port_count(port_m *m, int32_t port);

// Gives back one holder, and frees the port with the last. 0, also for a port that stays held, or
// -2 for a port out of range.
int32_t free_port(port_m *m, int32_t port);

// Moves the pointer to the port above if that is free and not private, else to what find_free_port
// finds.
void update_next_free_port(port_m *m);

// 1 if the port is in range and free.
int32_t is_port_free(const port_m *m, int32_t port);

// 1 if the port is marked private in a map that has private ranges.
int32_t is_port_private(const port_m *m, int32_t port);

// The lowest port that is free and not private, or NO_PORT.
int32_t find_free_port(const port_m *m);

// The first free port behind the base port of the first range of that base. NO_PORT if there is no
// such range or no port left in it, 0 if the map has no ranges. Takes nothing.
int32_t find_free_port_in_range(const port_m *m, int32_t base);
