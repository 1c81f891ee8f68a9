// The private range file.
#include "ports/private_ranges.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "host/log.h"
#include "host/memory.h"
#include "ports/port_map.h"
#include "tables/shared/file_handle.h"
#include "tables/shared/shared_memory.h"

namespace {

// One place more at the end of the map's ranges, with a new record in it. Null if memory is short;
// the count stays raised, and every reader of the ranges knows that a record may be missing.
private_range_ports *add_range(port_m *m) {
  const int32_t count = m->private_range_count;
  auto **const ranges = static_cast<private_range_ports **>(shm_realloc(
      m->private_range, (static_cast<size_t>(count) + 1) * sizeof(private_range_ports *)));
  if (ranges == nullptr) free_private_ranges(m);
  m->private_range = ranges;
  m->private_range_count = count + 1;
  if (ranges == nullptr) return nullptr;
  ranges[count] = static_cast<private_range_ports *>(tarn_shm_malloc(sizeof(private_range_ports)));
  return ranges[count];
}

void fill_range(port_m *m, private_range_ports *range, const range_line &line) {
  alone_with_port_maps();
  for (int i = 0; i <= PRIVATE_RANGE_PORTS; i++) {
    if (i >= line.count) {
      range->port[i] = NO_PORT;
      continue;
    }
    const range_port port = judge_range_port(m, line, i);
    range->port[i] = port.number;
    if (port.is_marked) *port_entry(m, port.number) |= PORT_PRIVATE;
    LM_DBG("Port %d was reserved to a private range for %s!\n", port.number, line.word);
  }
}

bool add_line(port_m *m, const range_line &line) {
  private_range_ports *const range = add_range(m);
  if (range == nullptr) {
    LM_ERR("Could not allocate memory for port_m->private_range\n");
    return false;
  }
  fill_range(m, range, line);
  return true;
}

bool read_ranges(FILE *file, char **buffer) {
  size_t size = 0;
  range_line line;
  port_m *map = nullptr;
  for (int number = 1; getline(buffer, &size, file) > 0; number++) {
    line.scan(*buffer);
    if (port_m *const named = port_map_by_word(line.word)) map = named;
    if (map == nullptr) {
      LM_WARN(
          "Line %d of the private port ranges names no port map, nor did one before it. It is skipped\n",
          number);
      continue;
    }
    if (!add_line(map, line)) return false;
  }
  return true;
}

}  // namespace

bool range_line::scan(const char *text) {
  count = 0;
  int used = 0;
  const bool has_word = vread(text, "%31s%n", word, &used) == 1;
  rest = text + used;
  // What is left of a word that has no room isn't the first number.
  while (has_word && *rest != '\0' && isspace(static_cast<unsigned char>(*rest)) == 0) rest++;
  for (; count < PRIVATE_RANGE_PORTS && vread(rest, "%d%n", &numbers[count], &used) == 1; count++)
    rest += used;
  return has_word;
}

range_port judge_range_port(const port_m *m, const range_line &line, int place) {
  const int32_t number = line.numbers[place];
  return {number, is_port_in_range(m, number), place > 0 && number == NO_PORT};
}

void free_private_ranges(port_m *m) {
  for (private_range_ports *range : private_ranges(m)) tarn_shm_free(range);
  tarn_shm_free(m->private_range);
}

int vread(const char *text, const char *format, ...) {
  va_list places;
  va_start(places, format);
  const int items = vsscanf(text, format, places);
  va_end(places);
  return items;
}

bool load_port_range() {
  const char *const path = port_settings.private_ranges_file_path;
  const file_handle file(fopen(path, "r"));
  if (!file) {
    LM_DBG("Could not open file '%s' with private port range\n", path);
    return false;
  }
  char *buffer = nullptr;
  const bool read = read_ranges(file.get(), &buffer);
  free(buffer);
  if (!read) return false;
  LM_DBG("Reading private port range file '%s' OK!\n", path);
  return true;
}
