// Parsing of a query beside the plainest way to cut the same text: into a vector of strings.
#include "query/query_input.h"

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "bench/benches.h"
#include "bench/started_module.h"
#include "host/log.h"

namespace bench {
namespace {

constexpr std::string_view QUERY = "flat,user00000042|*|*|sip:user@10.0.0.1:5060|5,1";

void parse_query(benchmark::State &state) {
  std::string text(QUERY);
  const str query{text.data(), static_cast<int>(text.size())};
  const host_log_scope log;
  for (auto _ : state) {
    query_scope in;
    char name[TARN_NAME_SIZE] = "";
    if (!tarn_memdb_parse_input(query, OP_SELECT, &in, name)) give_up("the query isn't one");
    benchmark::DoNotOptimize(in.flds);
  }
}

std::vector<std::string> cut(std::string_view text, char separator) {
  std::vector<std::string> out;
  for (size_t from = 0; from <= text.size();) {
    const size_t end = std::min(text.find(separator, from), text.size());
    out.emplace_back(text.substr(from, end - from));
    from = end + 1;
  }
  return out;
}

void cut_into_strings(benchmark::State &state) {
  for (auto _ : state) {
    const std::vector<std::string> parts = cut(QUERY, ',');
    const std::vector<std::string> fields = cut(parts[1], '|');
    if (fields.size() != 5 || parts.size() != 3) give_up("the query is cut wrong");
    benchmark::DoNotOptimize(fields.data());
  }
}

}  // namespace

void register_query_benches() {
  benchmark::RegisterBenchmark("parse of a query of 5 fields/module", parse_query);
  benchmark::RegisterBenchmark("parse of a query of 5 fields/vector of strings", cut_into_strings);
}

}  // namespace bench
