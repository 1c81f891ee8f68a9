// Failing each of a function's calls into the host, and each of its allocations, one at a time.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/module/shared_view.h"

namespace module_test {

// The function's results when its first, second, ... call of that name fails. Calls that the
// function makes in a run without failures and that aren't named here fail the test, so that none
// is forgotten.
using failing_results = std::map<std::string, std::vector<int>>;

class InjectionTest : public SharedViewTest {
 protected:
  // Every host operation that a script function may call while it runs.
  static const texts &run_time_calls() {
    static const texts names = {"pv_printf",        "pv_get_spec_value", "pv_set_spec_value",
                                "pv_get_avp_name",  "add_avp",           "get_str_fparam",
                                "explode_params",   "parse_params",      "free_params",
                                "find_export",      "pv_parse_format",   "pv_parse_spec2",
                                "parse_pvname_list"};
    return names;
  }

  // before runs ahead of every call, after behind every call that failed.
  struct scene {
    std::function<void()> before = [] {};
    std::function<void()> after = [] {};
  };

  void expect_results_of_failing_calls(const standin::command &prepared, int good,
                                       const failing_results &expected, const scene &around) {
    around.before();
    standin::reset_calls();
    ASSERT_EQ(call(prepared), good);
    for (const std::string &name : run_time_calls()) {
      const auto found = expected.find(name);
      const size_t named = found != expected.end() ? found->second.size() : 0;
      EXPECT_EQ(static_cast<size_t>(standin::calls(name)), named) << name;
    }
    for (const auto &[name, results] : expected) {
      for (size_t n = 0; n < results.size(); n++) {
        around.before();
        standin::reset_calls();
        standin::fail_call(name, static_cast<int>(n) + 1);
        EXPECT_EQ(call(prepared), results[n]) << name << " number " << n + 1;
        standin::stop_failing_calls();
        around.after();
      }
    }
  }

  // The same for allocations of one pool, which have no names.
  void expect_results_of_failing_allocations(pool which, const standin::command &prepared, int good,
                                             const std::vector<int> &expected,
                                             const scene &around) {
    around.before();
    standin::reset_allocation_count();
    ASSERT_EQ(call(prepared), good);
    EXPECT_EQ(standin::allocation_count(which), expected.size());
    for (size_t n = 0; n < expected.size(); n++) {
      around.before();
      standin::fail_at(which, n + 1);
      EXPECT_EQ(call(prepared), expected[n]) << "allocation " << n + 1;
      standin::stop_failing();
      around.after();
    }
    around.before();
    standin::fail_from(which, 1);
    EXPECT_EQ(call(prepared), expected.empty() ? good : expected[0]) << "no memory at all";
    standin::stop_failing();
    around.after();
  }
};

}  // namespace module_test
