// Reading the schema file.
#pragma once

#include <cstdint>
#include <cstdio>

// Path of the schema file, from the module parameter; empty unless it is set.
extern const char *cfg_file_path;

// Reads the schema and makes every table in it, empty and without a lock, into the registry, which
// has to stand. 0, or -1 with the reason logged; what was made by then stays with the registry.
// Runs in one process, before the host forks.
int32_t create_table();

// The same from an open file, which stays the caller's.
int32_t create_tables_from(FILE *file);
