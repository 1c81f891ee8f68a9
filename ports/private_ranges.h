// Reading the private range file: per line a map's word and up to ten ports.
#pragma once

#include <cstdint>

// Adds the ranges of private_ranges_file_path to their maps and marks their ports. 0, or -1 when
// there is no file, which is no fault, or no memory. Runs before the host forks.
int32_t load_port_range();

// Scans text by a scanf format. The number of items read.
int vread(const char *text, const char *format, ...) __attribute__((format(scanf, 2, 3)));
