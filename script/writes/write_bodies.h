// The writes behind their parameters, for every script language. Formats and results are those of
// the native script's functions, see write_functions.h. Each is false for a failure, logged up to
// the function's own last line.
#pragma once

#include "host/abi.h"

// Which values a write takes.
enum class taken_values {
  all,      // by position, those of an update by name as well
  storable  // by position, and none that would come back otherwise from the table's file
};

bool insert_row(sip_msg *msg, const char *query, taken_values taken, int32_t *result);
bool update_matching_rows(sip_msg *msg, const char *query, const char *values, taken_values taken,
                          int *result);

// The rows of the table, as counted a moment ago.
bool count_table_rows(sip_msg *msg, const char *table, int32_t *count);
