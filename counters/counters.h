// The module's counters among the host's own, under the group tarn_memdb: a script reads them by
// $stat, an operator by RPC, a monitoring system by the host's modules for that.
//
// What a table or a map tells itself is looked up when somebody asks; the rest is counted where it
// happens.
#pragma once

// Tables beyond these have no counters of their own, as each takes some 1.7 KB of every process's
// private memory. What is told of all tables together counts them too.
inline constexpr int MOST_TABLES_WITH_COUNTERS = 128;

// Registers all counters. To be called at the end of mod_init, when tables and maps stand. A host
// without counters, or without memory for them, goes on without; the second is logged.
void register_counters();
