// What is done while something fails.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/world.h"

namespace faults {

// When in the module's life a scenario's act comes.
enum class phase {
  start,     // mod_init itself
  fixup,     // the fix-ups of a function, and its call where they succeed
  run,       // a call of a function or command, or the timer
  shutdown,  // mod_destroy itself
};

struct scenario {
  std::string name;
  phase when;
  // Goes ahead of the act, with nothing failing.
  std::function<void(world &)> prepare;
  // Gives back what it came to, in words that are equal for equal outcomes.
  std::function<std::string(world &)> act;
  // A failed act may have done a part of its work; the reason stands beside each.
  bool in_parts = false;
  // Writes table files, so a device that is full is tried as well.
  bool stores = false;
  // Reads table files, and loses the text of none.
  bool loads = false;
  standin::host_kind host = standin::host_kind::exported_explode;
  row_count rows = row_count::few;
  // That the act has to take, so that it is known to come to what it is for.
  size_t least_allocations = 0;
};

std::vector<scenario> all_scenarios();
// Those of them whose tables have directories and look-ups.
std::vector<scenario> large_table_scenarios();

// Words of an act that failed.
bool is_failure(const std::string &outcome);

}  // namespace faults
