// Keeping counters.
#include "tests/standin/counters.h"

#include <stdexcept>

#include "tests/standin/calls.h"

namespace standin {
namespace {

std::vector<counter_record> &records() {
  static auto &only = *new std::vector<counter_record>;
  return only;
}

const counter_record *find_counter(const std::string &group, const std::string &name) {
  for (const counter_record &each : records())
    if (each.group == group && each.name == name) return &each;
  return nullptr;
}

}  // namespace

const std::vector<counter_record> &counters() { return records(); }
void forget_counters() { records().clear(); }

long counter_value(const std::string &group, const std::string &name) {
  const counter_record *const found = find_counter(group, name);
  if (found == nullptr) throw std::out_of_range("no counter " + group + "." + name);
  return found->callback({0}, found->param);
}

}  // namespace standin

int counter_register(counter_handle_t *, const char *group, const char *name, int flags,
                     counter_callback callback, void *param, const char *doc, int) {
  if (standin::call_fails("counter_register")) return -1;
  if (standin::find_counter(group, name) != nullptr) return COUNTER_NAME_TAKEN;
  standin::records().push_back({group, name, doc, flags, callback, param});
  return 0;
}
