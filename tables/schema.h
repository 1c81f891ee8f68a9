// Reading the schema file.
#pragma once

#include <cstdio>

// Path of the schema file, from the module parameter; empty unless it is set.
extern const char *cfg_file_path;

// Reads the schema and makes every table in it, empty and without a lock, into the registry, which
// has to stand. False with the reason logged; what was made by then stays with the registry. Runs
// in one process, before the host forks.
bool create_tables();

// The same from an open file, which stays the caller's.
bool create_tables_from(FILE *file);
