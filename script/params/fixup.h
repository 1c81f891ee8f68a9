// Fix-ups: turning the texts of a script's parameters, once at start, into what the functions read.
//
// Each gets a parameter's slot and its number, from 1, and gives 0 or a negative number, at which
// the host refuses the script. They run after mod_init in the host's main process. What they leave
// in a slot lives in that process's private memory, which the workers inherit, for good. The fix-up
// of the XAVP selects runs in the workers as well: see script/params/special_slot.h.
#pragma once

#include "host/abi.h"

// Slot forms: query format; AVP name list; decimal text read with atoi; num_or_pv; the host's own.

// A number that stands in the script, or a pseudo-variable that is read at each call.
struct num_or_pv {
  int32_t type;
  int32_t num;     // 0 or above
  pv_spec_t *pvs;  // set for NUM_FROM_PV
};
inline constexpr int32_t NUM_FROM_SCRIPT = 0;
inline constexpr int32_t NUM_FROM_PV = 2;

// Every parameter a format.
int fix_formats(void **param, int param_no);

// 1: format, a refused one left as text; 2: AVP name list.
int fix_query_and_avps(void **param, int param_no);

// As above; 3: number text; 4, 5: num_or_pv; 6: pseudo-variable to set.
int fix_query_avps_and_numbers(void **param, int param_no);

// As fix_query_and_avps; 3, 4, 5: format.
int fix_query_avps_and_formats(void **param, int param_no);

// 1: format; 2: AVP name list with the host's separators.
int fix_statement_and_avps(void **param, int param_no);

// 1: query of a table known by now, its list by position or by name; 2: AVP name list.
int fix_named_query_and_avps(void **param, int param_no);

// 1: as above; any other: format.
int fix_named_query_and_formats(void **param, int param_no);

// 1: as above; 2: XAVP name; 3: number text. After the start: 1 is refused, 2 a plain text.
int fix_named_query_and_xavp(void **param, int param_no);

// 1: format; 2: query and 3: AVP name list, each widened by the place of the other port.
int fix_port_pair_query(void **param, int param_no);
