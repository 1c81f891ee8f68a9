// Reading the private range file: per line a map's word and up to ten ports.
#pragma once

#include <cstdint>

#include "ports/port_map.h"

// A line of the file, scanned: the word of a map, then up to ten ports.
struct range_line {
  // Scans text. False if it has no word: the word of the line before then stays, without ports.
  bool scan(const char *text);

  char word[32] = "";  // cut to its room; no map has so long a word
  int32_t numbers[PRIVATE_RANGE_PORTS] = {};
  int count = 0;
  const char *rest = "";  // of the text: what is passed over
};

// What the place of a port in a scanned line makes of it.
struct range_port {
  int32_t number;
  bool is_marked;   // lies in the map, where ordinary allocation then skips it
  bool ends_range;  // this and what follows isn't given out
};

// Judges the port at a place of the line, from 0 to line.count - 1, in the range's map.
range_port judge_range_port(const port_m *m, const range_line &line, int place);

// Adds the ranges of the private range file to their maps and marks their ports. False when there
// is no file or no memory for them. Runs before the host forks.
bool load_port_range();

// Frees the map's ranges and their array, whose place in the map is the caller's to reset.
void free_private_ranges(port_m *m);

// Scans text by a scanf format. The number of items read.
int vread(const char *text, const char *format, ...) __attribute__((format(scanf, 2, 3)));
