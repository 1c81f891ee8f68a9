// Selects behind their parameters, for every script language. What they are is told at the native
// script's functions, see select_functions.h.
#pragma once

#include <string_view>

#include "script/params/fixup.h"
#include "script/select/select_run.h"

int select_rows(sip_msg *msg, const select_params &params, const select_flavour &flavour);

// Whether the table has been told of such searches ahead, by a fix-up, or a call that finds no
// look-up asks for it.
enum class look_ups { told, asked_for };

struct prefix_params {
  int32_t column;
  const num_or_pv *left_out;  // characters at the end of an entry that aren't compared; null for 0
  look_ups look_up;
};

int select_best_match(sip_msg *msg, const select_params &params, const prefix_params &prefix,
                      const select_flavour &flavour);

struct range_params {
  int32_t column;
  const num_or_pv *lower;  // null for 0
  const num_or_pv *upper;
};

int select_out_of_range(sip_msg *msg, const select_params &select, const range_params &params);

// The number of rows above the lower limit, or SCRIPT_FAILED, logged.
int32_t count_above_limit(sip_msg *msg, char *query, const range_params &params);

// Calls take(text) with the column's text in the first row that matches, while nobody changes it,
// and gives the result of that; SCRIPT_NO_ROW without a row, SCRIPT_FAILED, logged, also for a
// column that the table hasn't.
int select_text(sip_msg *msg, char *query, int32_t column, bool (*take)(std::string_view text));
