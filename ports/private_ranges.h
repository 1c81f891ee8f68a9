// Reading the private range file: per line a map's word and up to ten ports.
#pragma once

#include <cstdint>

#include "ports/port_map.h"

// Adds the ranges of private_ranges_file_path to their maps and marks their ports. 0, or -1 when
// there is no file, which is no fault, or no memory. Runs before the host forks.
int32_t load_port_range();

// Frees the map's ranges and their array, whose place in the map is the caller's to reset.
void free_private_ranges(port_m *m);

// Scans text by a scanf format. The number of items read.
int vread(const char *text, const char *format, ...) __attribute__((format(scanf, 2, 3)));
