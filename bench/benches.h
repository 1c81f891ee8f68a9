// The groups of benchmarks, each registered by the file that holds it.
#pragma once

namespace bench {

// Engine against std::unordered_multimap and SQLite; the engine is on malloc then.
void register_engine_benches();

// Queries, files and scans of the module started on the stand-in host. Starts it.
void register_module_benches();
void register_query_benches();
void register_file_benches();
void register_scan_benches();

}  // namespace bench
