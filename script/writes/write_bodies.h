// The writes behind their parameters, for every script language. Formats and results are those of
// the native script's functions, see write_functions.h.
#pragma once

#include "host/abi.h"

// Which values a write takes.
enum class taken_values {
  all,      // by position, those of an update by name as well
  storable  // by position, and none that would come back otherwise from the table's file
};

int insert_row(sip_msg *msg, const char *query, taken_values taken);
int update_matching_rows(sip_msg *msg, const char *query, const char *values, taken_values taken);

// The rows of the table, as counted a moment ago; -1, logged, if there is no such table.
int32_t count_table_rows(sip_msg *msg, const char *table);
