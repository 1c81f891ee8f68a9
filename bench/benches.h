// The groups of benchmarks, each registered by the file that holds it.
#pragma once

#include <vector>

#include "bench/started_module.h"

namespace bench {

// Engine against std::unordered_multimap and SQLite; the engine is on malloc then.
void register_engine_benches();

// Queries, files and scans of the module started on the stand-in host. Starts it.
void register_module_benches();
void register_query_benches();
void register_file_benches();
void register_scan_benches();

// Best matches by a look-up, on tables of their own.
std::vector<table> prefix_tables();
void register_prefix_benches(started_module *module);

}  // namespace bench
