// Making of rows.
#include "bench/rows.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <numeric>
#include <random>

namespace bench {

std::vector<row> make_rows(size_t count, key_ending ending) {
  std::vector<row> out;
  out.reserve(count);
  for (size_t i = 0; i < count; i++) {
    // Odd, so that the step visits every number below 10^8 once and no two keys are the same.
    const auto number = static_cast<unsigned>(i * 61803399 % 100000000);
    char key[32];
    char group[32];
    char value[64];
    snprintf(key, sizeof(key), "user%08u%s", number,
             ending == key_ending::common ? "@sip.example.org" : "");
    snprintf(group, sizeof(group), "group%03u", number % 100);
    snprintf(value, sizeof(value), "sip:user%08u@10.0.%u.%u:5060", number, number / 256 % 256,
             number % 256);
    out.push_back({key, group, value});
  }
  return out;
}

std::vector<size_t> shuffled_places(size_t count) {
  std::vector<size_t> out(count);
  std::iota(out.begin(), out.end(), size_t{0});
  std::mt19937 engine(20250601);  // NOLINT(cert-msc51-cpp): the same order in every run is wanted
  std::shuffle(out.begin(), out.end(), engine);
  return out;
}

}  // namespace bench
