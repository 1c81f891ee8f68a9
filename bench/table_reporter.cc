// Collecting medians and printing rows.
#include "bench/table_reporter.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

constexpr char OWN_SIDE[] = "module";

std::string shown(double nanoseconds, double bytes_per_second) {
  char out[64];
  if (bytes_per_second > 0)
    snprintf(out, sizeof(out), "%.0f MB/s", bytes_per_second / 1e6);
  else if (nanoseconds < 1e4)
    snprintf(out, sizeof(out), "%.1f ns", nanoseconds);
  else if (nanoseconds < 1e7)
    snprintf(out, sizeof(out), "%.1f us", nanoseconds / 1e3);
  else
    snprintf(out, sizeof(out), "%.1f ms", nanoseconds / 1e6);
  return out;
}

}  // namespace

bool table_reporter::ReportContext(const Context &context) {
  printf("%d processors\n", context.cpu_info.num_cpus);
  return true;
}

void table_reporter::ReportRuns(const std::vector<Run> &runs) {
  for (const Run &run : runs) {
    if (run.error_occurred) {
      fprintf(stderr, "bench: %s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      continue;
    }
    if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
    const std::string &name = run.run_name.function_name;
    const size_t cut = name.rfind('/');
    const auto bytes = run.counters.find("bytes_per_second");
    // What a benchmark takes itself is processor time as well (see stopwatch.h).
    const bool timed_by_itself = run.run_name.time_type == "manual_time";
    figures_[run.family_index] = {
        name.substr(0, cut), name.substr(cut + 1),
        timed_by_itself ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime(),
        bytes != run.counters.end() ? static_cast<double>(bytes->second) : 0.0};
  }
}

void table_reporter::print_case(const std::string &of_case) const {
  const auto own = std::find_if(figures_.begin(), figures_.end(), [&of_case](const auto &f) {
    return f.second.of_case == of_case && f.second.side == OWN_SIDE;
  });
  if (own == figures_.end()) return;
  printf("%-36s %12s", of_case.c_str(),
         shown(own->second.nanoseconds, own->second.bytes_per_second).c_str());
  for (const auto &[place, peer] : figures_) {
    if (peer.of_case != of_case || peer.side == OWN_SIDE) continue;
    printf("   %s %s (%.2f)", peer.side.c_str(),
           shown(peer.nanoseconds, peer.bytes_per_second).c_str(),
           own->second.nanoseconds / peer.nanoseconds);
  }
  printf("\n");
}

void table_reporter::Finalize() {
  printf("Medians of processor time; in brackets the module's time divided by the peer's.\n\n");
  std::string last;
  for (const auto &[place, one] : figures_) {
    if (one.of_case == last) continue;
    print_case(one.of_case);
    last = one.of_case;
  }
}

}  // namespace bench
