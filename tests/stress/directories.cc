// directories SEEDS [FIRST]: the engine beside plain chains, in long runs of random operations. See
// tests/unit/memdb/engine_differential.h.
#include <cstdio>
#include <cstdlib>

#include "tests/unit/memdb/engine_differential.h"

int main(int argc, char **argv) {
  using engine_test::engine_differential;
  const auto number = [&](int at, uint32_t otherwise) {
    return argc > at ? static_cast<uint32_t>(strtoul(argv[at], nullptr, 10)) : otherwise;
  };
  const uint32_t first = number(2, 1);
  const uint32_t seeds = number(1, 1000);
  for (uint32_t seed = first; seed < first + seeds; seed++) {
    const std::string deviation = engine_differential(seed).run(4000);
    if (deviation.empty()) continue;
    fprintf(stderr, "directories: seed %u: %s\n", seed, deviation.c_str());
    return 1;
  }
  const engine_test::differential_sums &met = engine_differential::sums;
  printf(
      "directories: %u seeds the same; met: tables %zu, parts %zu, dissolved by an overwrite %zu, "
      "entries missing %zu, rows hidden %zu, allocations refused %zu\n",
      seeds, met.directories, met.parts, met.dissolved, met.missing, met.hidden, met.refused);
  return 0;
}
