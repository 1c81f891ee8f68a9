// The host's counters: what a module registers, and what it tells whoever asks.
//
// Only programs that name something of this offer counter_register to a module. To the others the
// stand-in is a host without counters.
#pragma once

#include <string>
#include <vector>

#include "host/imports.h"

namespace standin {

// One registered counter, with the texts as the host copied them.
struct counter_record {
  std::string group;
  std::string name;
  std::string doc;
  int flags;
  counter_callback callback;
  void *param;
};

// In the order of their registration. A failed counter_register gives -1 and keeps nothing.
// forget_counters comes ahead of each start; reset doesn't know of it.
const std::vector<counter_record> &counters();
void forget_counters();

// What whoever asks for a counter is told. Throws std::out_of_range where there is none.
long counter_value(const std::string &group, const std::string &name);

}  // namespace standin
