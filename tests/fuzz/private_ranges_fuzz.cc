// The private range file, and then the allocation from whatever it said.
//
// Choices: allocation that fails. Then the file.
#include "ports/private_ranges.h"

#include <algorithm>

#include "ports/port_allocation.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// Every in-range port of a range carries the mark, and nothing else is marked or taken.
void check_marks(const port_m *m) {
  std::vector<uint8_t> expected(static_cast<size_t>(m->max_port - m->min_port + 1), 0);
  for (const private_range_ports *range : private_ranges(m)) {
    if (range == nullptr) continue;
    REQUIRE(range->port[PRIVATE_RANGE_PORTS] == NO_PORT);
    for (int i = 0; i < PRIVATE_RANGE_PORTS; ++i)
      if (is_port_in_range(m, range->port[i]))
        expected[static_cast<size_t>(range->port[i] - m->min_port)] = PORT_PRIVATE;
  }
  // Of a list that found no memory only the marks are left.
  if (m->private_range == nullptr && m->private_range_count > 0) return;
  REQUIRE(std::equal(expected.begin(), expected.end(), m->port_map));
}

// Takes ports from the range until there is none; each was free and stands in the range.
void drain(port_m *m, int32_t base) {
  const private_range_ports *found = nullptr;
  for (const private_range_ports *range : private_ranges(m))
    if (found == nullptr && range != nullptr && range->port[0] == base) found = range;
  for (int taken = 0;; ++taken) {
    const int32_t port = find_free_port_in_range(m, base);
    if (port == NO_PORT) return;
    REQUIRE(found != nullptr);
    REQUIRE(taken < PRIVATE_RANGE_PORTS - 1);
    REQUIRE(is_port_in_range(m, port));
    REQUIRE(std::find(found->port + 1, found->port + PRIVATE_RANGE_PORTS, port) !=
            found->port + PRIVATE_RANGE_PORTS);
    REQUIRE(is_port_free(m, port));
    REQUIRE(set_port(m, port) == port_result::done);
  }
}

void use(port_m *m) {
  for (const private_range_ports *range : private_ranges(m))
    if (range != nullptr) drain(m, range->port[0]);
  // Ordinary allocation never hands out a private port but for the one that it starts on.
  for (int taken = 0; m->next_free_port != NO_PORT; ++taken) {
    const int32_t port = m->next_free_port;
    REQUIRE(taken <= m->max_port - m->min_port);
    REQUIRE(taken == 0 || !is_port_private(m, port));
    REQUIRE(set_port(m, port) == port_result::done);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const unsigned failing = given.choice();
  const std::string text = given.rest();
  const auto lines = std::count(text.begin(), text.end(), '\n') + 1;

  const fuzz::run run;
  const fuzz::port_maps maps;
  const fuzz::memory_file file(text);
  port_settings.private_ranges_file_path = file.path();
  fuzz::fail_allocation(failing);
  const bool read = load_port_range();
  standin::stop_failing();
  REQUIRE(read || fuzz::memory_was_short());
  // What follows logs more than it does.
  standin::set_debug_level(L_INFO);
  int64_t ranges = 0;
  for (const port_map_kind &kind : port_map_kinds) {
    const port_m *const m = *kind.map;
    REQUIRE(m->next_free_port == m->min_port);
    REQUIRE(m->private_range_count >= 0);
    ranges += m->private_range_count;
    check_marks(m);
  }
  REQUIRE(ranges <= lines);
  for (const port_map_kind &kind : port_map_kinds) use(*kind.map);
  clear_port_maps();
  for (const port_map_kind &kind : port_map_kinds) {
    REQUIRE(!is_port_private(*kind.map, 100));
    REQUIRE(find_free_port(*kind.map) == 100);
    use(*kind.map);
  }
  port_settings.private_ranges_file_path = "";
  return 0;
}
