// Whether the tables fit into the server's shared memory.
#pragma once

#include <string>

#include "tools/check/forecast.h"
#include "tools/common/findings.h"

// Tells of tables that don't fit, leave the server too little, or won't fit when they are full.
void check_memory(const std::string &schema, const memory_forecast &need, size_t limit_mb,
                  findings *out);

// "12.3 MB", rounded up.
std::string in_mb(size_t bytes);
