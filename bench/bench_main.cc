// Runs all benchmarks: the sides of each case in turn, several times, and prints the medians.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/benches.h"
#include "bench/started_module.h"
#include "bench/table_reporter.h"

namespace {

// Ahead of the arguments, so that these win.
char *with_defaults[] = {const_cast<char *>("--benchmark_repetitions=7"),
                         const_cast<char *>("--benchmark_enable_random_interleaving=true"),
                         const_cast<char *>("--benchmark_min_time=0.02")};

void run_all(int argc, char **argv) {
  std::vector<char *> arguments{argv[0]};
  arguments.insert(arguments.end(), std::begin(with_defaults), std::end(with_defaults));
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
    bench::give_up("unknown options");
  bench::register_engine_benches();
  bench::register_module_benches();
  bench::table_reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
}

}  // namespace

int main(int argc, char **argv) {
  return bench::run_main([argc, argv] { run_all(argc, argv); });
}
