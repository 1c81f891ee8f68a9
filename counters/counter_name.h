// Names of counters that every reader takes: a metric of Prometheus has letters, digits and
// underscores.
#pragma once

#include <string_view>

#include "tables/tarn_tbl.h"

// Letters, digits and underscores of ASCII alone.
bool is_plain_name(std::string_view name);

// A counter's name: what is counted, of at most 31 characters, and whom it is about, of at most a
// table's name, with an underscore between them and in place of each byte that isn't plain; from
// number 2 on with the number behind another one.
struct counter_name {
  explicit counter_name(const char *what, std::string_view about, int number = 1);
  char text[32 + TARN_NAME_SIZE + 12];
};
