// Runs one kind of call of the built module many times on the stand-in host, for a look from
// outside at what the calls execute (see bench/callgrind.sh). Prints how often each function of the
// host is called by one of them.
//
// Usage: bench_calls MODULE.so CASE COUNT
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/rows.h"
#include "bench/started_module.h"

namespace {

using bench::give_up;
using bench::started_module;

constexpr size_t ROWS = 1000;

struct step {
  const char *function;
  std::vector<std::string> parameters;
  int result = 1;
};

struct call_case {
  const char *name;
  std::vector<step> steps;
};

// The queries read their key from a script variable, as a routing script's do.
const call_case CASES[] = {
    {"select", {{"tarn_memdb_select", {"flat,$var(key)|*|*|*,1", "|$avp(a)|$avp(b)|$avp(c)"}}}},
    {"nl_select",
     {{"tarn_memdb_nl_select", {"flat,$var(key)|*|*|*,1", "|$avp(a)|$avp(b)|$avp(c)"}}}},
    {"insert_delete",
     {{"tarn_memdb_insert", {"flat,$var(new)|group|name|value"}},
      {"tarn_memdb_delete", {"flat,$var(new)|*|*|*"}}}},
    {"best_match",
     {{"tarn_memdb_nl_select_best_match", {"flat,*|$var(group)|*|*", "$avp(a)", "1"}}}},
    {"best_match_prefix",
     {{"tarn_memdb_nl_select_best_match_prefix", {"flat,*|$var(group)|*|*", "$avp(a)", "1", "1"}}}},
    {"out_of_range",
     {{"tarn_memdb_nl_select_field_out_of_range",
       {"flat,*|*|*|*", "$avp(a)", "3", "0", "100000000"},
       -2}}},
    {"within_the_range",
     {{"tarn_memdb_nl_select_field_within_the_range",
       {"flat,*|*|*|*", "$avp(a)", "3", "0", "9", "$avp(n)"},
       -2}}},
    {"subnet",
     {{"tarn_memdb_nl_select_subnetmask",
       {"remotes,*|*|*|*|*|*|*|*|*|*|*|*|*|*|*|*", "$avp(a)", "192.0.2.1", "", ""}}}},
};

const call_case &find_case(const char *name) {
  for (const call_case &one : CASES)
    if (strcmp(one.name, name) == 0) return one;
  give_up(std::string("there is no case ") + name);
}

void fill(started_module *module, const std::vector<bench::row> &rows) {
  const standin::command insert =
      module->prepare("tarn_memdb_insert", {"flat,$var(key)|$var(group)|name|$var(value)"});
  for (const bench::row &row : rows) {
    standin::set_var("key", row.key);
    standin::set_var("group", row.group);
    standin::set_var("value", row.value);
    module->expect(insert, 1);
  }
}

// As the subnet select wants them.
std::vector<schema_text::column> remote_columns() {
  std::vector<schema_text::column> out;
  for (int i = 0; i < 16; i++) out.push_back({"c" + std::to_string(i), 31});
  return out;
}

// The row that the source lies in is the last one of a hundred to be looked at.
void fill_remotes(started_module *module) {
  const standin::command insert = module->prepare(
      "tarn_memdb_insert", {"remotes,$var(id)|x|rome|$var(net)|255.255.255.0|||||||||1|0|0"});
  for (int i = 0; i < 100; i++) {
    standin::set_var("id", std::to_string(i));
    standin::set_var("net", i == 0 ? "192.0.2.0" : "10.0." + std::to_string(i) + ".0");
    module->expect(insert, 1);
  }
}

// Named for the profiler, which collects nothing outside of it.
extern "C" __attribute__((noinline)) int measured_step(started_module *module,
                                                       const standin::command &call) {
  return module->run(call);
}

void run_calls(const char *file, const char *name, int count) {
  const call_case &chosen = find_case(name);
  std::string error;
  auto image = standin::load_module(file, &error);
  if (image == nullptr) give_up(error);
  started_module module(
      std::move(image),
      {{"flat", {{"key", 31, true}, {"a", 15}, {"b", 31}, {"c", 63}}, bench::MAX_ROWS},
       {"remotes", remote_columns(), bench::MAX_ROWS}});
  const std::vector<bench::row> rows = bench::make_rows(ROWS);
  fill(&module, rows);
  fill_remotes(&module);
  std::vector<standin::command> calls;
  for (const step &one : chosen.steps)
    calls.push_back(module.prepare(one.function, one.parameters));
  bench::use_plain_allocators();

  standin::set_var("new", "another00000001");
  standin::reset_calls();
  for (int i = 0; i < count; i++) {
    const bench::row &row = rows[static_cast<size_t>(i) * 7 % ROWS];
    standin::set_var("key", row.key);
    standin::set_var("group", row.group);
    size_t step = 0;
    for (const standin::command &call : calls)
      if (measured_step(&module, call) != chosen.steps[step++].result)
        give_up("a call fails:\n" + standin::log_dump());
    standin::clear_avps();
  }
  for (const std::string &symbol : standin::offered_symbols())
    if (standin::calls(symbol) != 0)
      printf("%s %.2f\n", symbol.c_str(), static_cast<double>(standin::calls(symbol)) / count);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: bench_calls MODULE.so CASE COUNT\n");
    return 2;
  }
  return bench::run_main([argv] { run_calls(argv[1], argv[2], atoi(argv[3])); });
}
