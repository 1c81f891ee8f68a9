// Prints benchmarks as a table with the module's figure beside its peers'. A benchmark is named
// "case/side", where the side "module" leads the row; the other sides show their time and how often
// it goes into the module's.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bench {

class table_reporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &context) override;
  void ReportRuns(const std::vector<Run> &runs) override;
  void Finalize() override;

 private:
  struct figure {
    std::string of_case;
    std::string side;
    double nanoseconds;
    double bytes_per_second;  // 0 where the case has none
  };

  void print_case(const std::string &of_case) const;

  std::map<int64_t, figure> figures_;  // by the order of registration; the runs' order is random
};

}  // namespace bench
