// Counting and failing of host calls, and the list of misuses.
#include "tests/standin/calls.h"

#include <map>

namespace standin {
namespace {

struct call_plan {
  int count = 0;
  int once = 0;
  int from = 0;
};

std::map<std::string, call_plan, std::less<>> &plans() {
  static auto &only = *new std::map<std::string, call_plan, std::less<>>;
  return only;
}

call_plan &plan_of(const char *name) {
  const auto found = plans().find(name);
  return found != plans().end() ? found->second : plans()[name];
}

void (*on_step)();

std::vector<std::string> &misuse_list() {
  static auto &only = *new std::vector<std::string>;
  return only;
}

}  // namespace

int calls(const std::string &name) { return plan_of(name.c_str()).count; }

void fail_call(const std::string &name, int n) {
  call_plan &plan = plan_of(name.c_str());
  plan.once = plan.count + n;
}

void fail_calls_from(const std::string &name, int n) {
  call_plan &plan = plan_of(name.c_str());
  plan.from = plan.count + n;
}

void stop_failing_calls() {
  for (auto &entry : plans()) entry.second.once = entry.second.from = 0;
}

void reset_calls() {
  plans().clear();
  on_step = nullptr;
}

void call_ahead_of_steps(void (*step)()) { on_step = step; }
void ahead_of_step() {
  if (on_step != nullptr) on_step();
}

bool call_fails(const char *name) {
  ahead_of_step();
  call_plan &plan = plan_of(name);
  ++plan.count;
  if (plan.once == plan.count) {
    plan.once = 0;
    return true;
  }
  return plan.from != 0 && plan.count >= plan.from;
}

std::vector<std::string> misuses() { return misuse_list(); }
void note_misuse(const std::string &text) { misuse_list().push_back(text); }
void reset_misuses() { misuse_list().clear(); }

}  // namespace standin
